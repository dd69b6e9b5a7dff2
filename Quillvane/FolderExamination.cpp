#include "FolderExamination.h"

#include "OperationCancelled.h"
#include "Platform.h"
#include "PrintableText.h"
#include "TreeWalk.h"
#include "VaultEngine.h"
#include "VaultError.h"

#include <fcntl.h>
#include <string>

namespace FolderExamination {
namespace {

namespace fs = std::filesystem;

constexpr const char* whileProtecting = " while the folder was being protected.";

std::string inQuotes(const fs::path& path) {
    return "\"" + printable(path.string()) + "\"";
}

/// Visits every entry once and makes sure that nobody is writing to a file.
class Examination : public TreeWalk {
protected:
    Examination(const HeldFolder& folder, const Cancellation* cancellation)
        : folder_(folder), cancellation_(cancellation) {}

    void examine() {
        try {
            walk(folder_.parent(), folder_.name());
        } catch (const fs::filesystem_error&) {
            throw VaultError::verificationFailed(inQuotes(folder_.name()) + " changed" +
                                                 whileProtecting);
        }
    }
    virtual void entry(const std::string& name, const struct stat& status) = 0;

private:
    void file(int directory, const std::string& name, const struct stat& status) final {
        stopIfCancelled();
        if (depth() == 1 && mayComeAndChange(name)) return;
        entry(name, status);
        if (S_ISREG(status.st_mode)) requireNoWriter(directory, name);
    }
    void enter(int, const std::string& name, const struct stat& status) final {
        stopIfCancelled();
        if (depth() > 0) return entry(name, status);
        if (!folder_.is(status))
            throw VaultError::verificationFailed(
                inQuotes(name) + " was exchanged for another folder" + whileProtecting);
    }
    void failed(const std::string&, int) final {}

    void requireNoWriter(int directory, const std::string& name) {
        const FileDescriptor opened(::openat(
            directory, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
        if (opened && writers_.isOpenForWriting(opened.get()))
            throw VaultError::verificationFailed(inQuotes(pathOf(name)) +
                                                 " is open for writing in another program.");
    }
    void stopIfCancelled() const {
        if (cancellation_ != nullptr && cancellation_->requested()) throw OperationCancelled();
    }

    const HeldFolder& folder_;
    const Cancellation* cancellation_;
    Platform::WriterCheck writers_;
};

class Recording final : public Examination {
public:
    Recording(const HeldFolder& folder, const Cancellation* cancellation)
        : Examination(folder, cancellation) {}
    FolderRecord run() {
        examine();
        record_.finish();
        return std::move(record_);
    }

private:
    void entry(const std::string& name, const struct stat& status) override {
        record_.add(pathHash(name), status);
    }

    FolderRecord record_;
};

class Comparison final : public Examination {
public:
    Comparison(const HeldFolder& folder, const FolderRecord& record,
               const Cancellation* cancellation)
        : Examination(folder, cancellation), record_(record), name_(folder.name()) {}
    void run() {
        examine();
        if (seen_ != record_.size())
            throw VaultError::verificationFailed("Something in " + inQuotes(name_) +
                                                 " was removed or renamed" + whileProtecting);
    }

private:
    void entry(const std::string& name, const struct stat& status) override {
        ++seen_;
        switch (record_.verdict(pathHash(name), status)) {
        case FolderRecord::Verdict::asRecorded:
            return;
        case FolderRecord::Verdict::changed:
            throw VaultError::verificationFailed(inQuotes(pathOf(name)) + " changed" +
                                                 whileProtecting);
        case FolderRecord::Verdict::unknown:
            throw VaultError::verificationFailed(inQuotes(pathOf(name)) + " appeared" +
                                                 whileProtecting);
        }
    }

    const FolderRecord& record_;
    std::string name_;
    std::size_t seen_ = 0;
};

} // namespace

bool mayComeAndChange(const std::string& name) {
    return name == ".DS_Store" ||
           (Platform::keepsFilesOnVolumes() && VaultEngine::systemVolumeItems().contains(name));
}

FolderRecord record(const HeldFolder& folder, const Cancellation* cancellation) {
    return Recording(folder, cancellation).run();
}

void requireUnchanged(const HeldFolder& folder, const FolderRecord& record,
                      const Cancellation* cancellation) {
    Comparison(folder, record, cancellation).run();
}

} // namespace FolderExamination
