// in-place open|open-with-key|close|recover ITEM: the in-place operations of the engine on the real
// tools, for tests and benchmarks that drive them from outside.
//
// `open` reads a password from standard input up to its end, `open-with-key` a recovery key, and
// prints name, item and mount folder, each followed by a NUL. `close` does what follows on closing
// a Smart Folder. A failure is told on standard error; the exit status is then 1.

#include "Quillvane/VaultEngine.h"

#include <exception>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace {

Secret secret() {
    return Secret(std::string(std::istreambuf_iterator<char>(std::cin), {}));
}

void open(const VaultEngine::Path& item, const Credential& credential) {
    const VaultEngine::SmartMount mount = VaultEngine::openAsFolder(item, credential);
    for (const std::string& text : {mount.name, mount.lockedPath, mount.mountPath})
        std::cout << text << '\0';
    std::cout.flush();
}

void run(const std::string& verb, const std::string& itemText) {
    const VaultEngine::Path item(itemText);
    const VaultEngine::Path plain = item.has_filename() ? item : item.parent_path();
    const VaultEngine::Path folder = plain.parent_path() / plain.stem();
    if (verb == "open") return open(item, Credential::password(secret()));
    if (verb == "open-with-key") return open(item, Credential::recoveryKey(secret()));
    if (verb == "recover") return VaultEngine::recoverIfOrphaned(item, folder);
    if (verb != "close") throw std::invalid_argument(verb);
    VaultEngine::deactivateInPlace(folder);
    VaultEngine::recoverIfOrphaned(item, folder);
}

} // namespace

int main(int argc, char* argv[]) {
    if (argc != 3) {
        std::cerr << "usage: in-place open|open-with-key|close|recover ITEM\n";
        return 2;
    }
    try {
        run(argv[1], argv[2]);
        return 0;
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
        return 1;
    }
}
