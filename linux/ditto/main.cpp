#include "linux/ditto/FolderCopy.h"

#include <csignal>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <exception>
#include <iostream>

namespace {

/// Makes sure that no file of the copy is opened as standard output or standard error, where
/// messages would be written into it.
bool holdStandardStreams() {
    int fd = 0;
    do {
        fd = open("/dev/null", O_RDWR);
    } while (fd >= 0 && fd <= STDERR_FILENO);
    return fd >= 0 && close(fd) == 0;
}

} // namespace

int main(int argc, char* argv[]) {
    if (!holdStandardStreams()) return 1;
    if (argc != 3 || *argv[1] == '\0' || *argv[2] == '\0') {
        std::cerr << "Usage: ditto SRC DST\n"
                     "Copies the contents of the folder SRC into the folder DST and verifies the "
                     "copy.\n";
        return 1;
    }
    // Nobody would wait for the copy any more, and what is left of it is about to be cleared away.
    // If the caller is gone already, the copy ends with the volume it reads or writes.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    umask(0); // the permissions of the copies are the originals'
    Report report(std::cerr);
    try {
        const bool whole = copyFolder(argv[1], argv[2], report);
        report.finish();
        return whole ? 0 : 1;
    } catch (const std::exception& error) {
        report.problem(argv[1], error.what());
        report.finish();
        return 1;
    }
}
