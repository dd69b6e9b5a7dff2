// check-volume IMAGE: runs e2fsck, changing nothing, on the plaintext of an image that is not
// attached. The passphrase is one line on standard input. Prints what e2fsck says; exits as it
// does.

#include "linux/hdiutil/ChildProgram.h"
#include "linux/hdiutil/ImageFile.h"
#include "linux/hdiutil/LuksContainer.h"
#include "linux/hdiutil/PassphraseInput.h"
#include "linux/hdiutil/PlaintextExport.h"

#include <cstdlib>
#include <exception>
#include <iostream>
#include <unistd.h>

namespace {

ProgramResult check(const char* path) {
    ImageFile file = openImage(path);
    const LuksContainer::Unlocked container =
        LuksContainer::unlock(file.fd.get(), readPassphrase(STDIN_FILENO));
    EncryptedImage image(file.fd.release(), container.volumeKey, container.geometry);
    const PlaintextExport plaintext(image);
    return runProgram("/usr/sbin/e2fsck", {"-fn", plaintext.file().string()});
}

} // namespace

int main(int count, char** arguments) {
    if (count != 2) {
        std::cerr << "usage: check-volume IMAGE\n";
        return EXIT_FAILURE;
    }
    try {
        const ProgramResult result = check(arguments[1]);
        std::cout << result.output;
        return result.status;
    } catch (const std::exception& error) {
        std::cerr << "check-volume: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
}
