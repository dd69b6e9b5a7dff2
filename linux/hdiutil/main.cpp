#include "Arguments.h"
#include "AttachCommand.h"
#include "CreateCommand.h"
#include "DetachCommand.h"
#include "Quillvane/Platform.h"
#include "ToolError.h"

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <new>
#include <span>
#include <string>
#include <variant>

namespace {

constexpr const char* usage =
    "usage: hdiutil create -size N{k|m|g} -encryption AES-256 -stdinpass [-volname NAME]\n"
    "               [-fs APFS|JHFS+] [-type SPARSE] IMAGE\n"
    "       hdiutil attach -stdinpass [-plist] [-owners on] [-nobrowse] [-mountpoint DIR]\n"
    "               [-mountoptions allow_other,suid,dev] IMAGE\n"
    "       hdiutil detach [-force] DEVICE|MOUNTPOINT";

// What stands between "hdiutil: " and the reason.
struct Runner {
    const char*& verb;
    void operator()(const CreateArguments& arguments) const {
        verb = "create";
        runCreate(arguments);
    }
    void operator()(const AttachArguments& arguments) const {
        verb = "attach";
        runAttach(arguments);
    }
    void operator()(const DetachArguments& arguments) const {
        verb = "detach";
        runDetach(arguments);
    }
};

} // namespace

int main(int count, char** words) {
    Platform::disableCoreDumps(); // the process will hold keys
    const char* verb = "";
    std::string message;
    try {
        // A write that fails says so, also one beyond the longest file that is allowed.
        for (const int number : {SIGPIPE, SIGXFSZ})
            if (std::signal(number, SIG_IGN) == SIG_ERR) throw ToolError::fromErrno(errno);
        const std::span<const char* const> all(words, static_cast<std::size_t>(count));
        const Arguments arguments = parseArguments(all.subspan(count > 0 ? 1 : 0));
        std::visit(Runner{verb}, arguments);
        return EXIT_SUCCESS;
    } catch (const UsageError& error) {
        message = std::string(error.what()) + "\n" + usage;
    } catch (const VolumeBusy& error) {
        message = error.what();
    } catch (const std::bad_alloc&) {
        message = std::string(verb) + " failed - Cannot allocate memory";
    } catch (const std::exception& error) {
        message = std::string(verb) + " failed - " + error.what();
    }
    std::cerr << "hdiutil: " << message << '\n';
    return EXIT_FAILURE;
}
