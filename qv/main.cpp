#include "Quillvane/ErrorText.h"
#include "Quillvane/Platform.h"
#include "qv/Arguments.h"
#include "qv/Commands.h"
#include "qv/Interruption.h"
#include "qv/QuietFailure.h"
#include "qv/ResultOutput.h"

#include <fcntl.h>
#include <span>
#include <string>
#include <unistd.h>

namespace {

enum ExitStatus : int { done = 0, failed = 1, wrongUsage = 2 };

/// Keeps a file that is opened later from becoming a standard stream that the caller had closed.
/// Opened the wrong way round, so that their use still fails.
void occupyStandardStreams() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) != -1) continue;
        if (open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY) != fd) _exit(failed);
    }
}

int run(std::span<const char* const> words) {
    try {
        const Arguments arguments = Arguments::parse(words);
        if (arguments.command == Arguments::Command::help) {
            printResult({helpText});
        } else if (arguments.command == Arguments::Command::version) {
            printResult({"qv " QUILLVANE_VERSION});
        } else {
            runCommand(arguments);
        }
        return done;
    } catch (const UsageError& error) {
        printMessage(std::string(error.what()) + "\n" + usageLine);
        return wrongUsage;
    } catch (const QuietFailure&) {
        return failed;
    } catch (const std::exception& error) {
        printMessage(errorText(error));
        return failed;
    }
}

} // namespace

int main(int argc, char* argv[]) {
    occupyStandardStreams();
    Interruption::install();
    Platform::disableCoreDumps();
    return run(std::span<const char* const>(argv, argc).subspan(argc > 0 ? 1 : 0));
}
