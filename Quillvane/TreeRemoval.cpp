#include "TreeRemoval.h"

#include "TreeWalk.h"

#include <cerrno>
#include <fcntl.h>
#include <system_error>

namespace TreeRemoval {
namespace {

class Removal final : public TreeWalk {
public:
    void run(const std::filesystem::path& root) {
        struct stat status {};
        if (::lstat(root.c_str(), &status) != 0) failed(root.string(), errno);
        if (S_ISDIR(status.st_mode))
            walk(root);
        else
            file(AT_FDCWD, root.string(), status);
    }

private:
    void file(int directory, const std::string& name, const struct stat&) override {
        if (::unlinkat(directory, name.c_str(), 0) != 0) failed(name, errno);
    }

    void enter(int directory, const std::string& name, const struct stat& status) override {
        const mode_t mode = status.st_mode & 07777;
        if ((mode & S_IRWXU) == S_IRWXU || status.st_uid != ::geteuid()) return;
        // Should this fail, then so will what needs it, and say why.
        [[maybe_unused]] const int result =
            ::fchmodat(directory, name.c_str(), mode | S_IRWXU, AT_SYMLINK_NOFOLLOW);
    }

    void leave(int directory, const std::string& name) override {
        if (::unlinkat(directory, name.c_str(), AT_REMOVEDIR) != 0) failed(name, errno);
    }

    void failed(const std::string& name, int errorNumber) override {
        throw std::filesystem::filesystem_error(
            "cannot remove", pathOf(name), std::error_code(errorNumber, std::generic_category()));
    }
};

} // namespace

void remove(const std::filesystem::path& path) {
    Removal().run(path);
}

} // namespace TreeRemoval
