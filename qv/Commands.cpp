#include "qv/Commands.h"

#include "Quillvane/ErrorText.h"
#include "Quillvane/InPlaceClose.h"
#include "Quillvane/ItemPath.h"
#include "Quillvane/OperationCancelled.h"
#include "Quillvane/Platform.h"
#include "Quillvane/VaultEngine.h"
#include "Quillvane/VaultError.h"
#include "qv/InterruptedCommands.h"
#include "qv/Interruption.h"
#include "qv/ProgressDisplay.h"
#include "qv/QuietFailure.h"
#include "qv/ResultOutput.h"
#include "qv/SecretChoice.h"
#include "qv/SmartFolder.h"

#include <algorithm>
#include <memory>
#include <set>
#include <string>
#include <system_error>
#include <utility>

namespace {

namespace fs = std::filesystem;

/// Told before any secret is asked for. A dangling link and a dead mount are there too.
void requireExistence(const fs::path& path) {
    std::error_code error;
    if (fs::symlink_status(path, error).type() == fs::file_type::not_found) {
        throw VaultError::sourceMissing();
    }
}

fs::path existingItem(const std::string& operand) {
    fs::path path = itemPath(operand);
    std::string extension = path.extension();
    std::ranges::transform(extension, extension.begin(), [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    });
    if (extension != ".quillvane") throw VaultError::notAQuillvane();
    requireExistence(path);
    return path;
}

void lock(const Arguments& arguments) {
    const fs::path folder = itemPath(arguments.operand);
    requireExistence(folder);
    const NewPassword secret = secretSource(arguments)->fresh("New password");
    VaultEngine::LockResult result;
    {
        ProgressDisplay display;
        result = VaultEngine::lock(
            folder, secret.password, secret.confirmation, Filesystem::apfs,
            [&](const Progress& progress) { display.show(progress); },
            &Interruption::cancellation());
    }
    if (!result.leftBehind.empty()) printMessage(result.leftBehind);
    try {
        printResult({result.container.native(), result.recoveryKey.text()});
        VaultEngine::recoveryKeyShown(result);
    } catch (const std::system_error& error) {
        throw std::runtime_error("The folder is protected, but its recovery key couldn't be "
                                 "printed. Remove the protection and protect it again to get "
                                 "one.\n" +
                                 errorText(error));
    }
}

void open(const Arguments& arguments) {
    const fs::path item = existingItem(arguments.operand);
    const Credential credential = askCredential(*secretSource(arguments), arguments, "Password");
    VaultEngine::OpenResult result;
    {
        ProgressDisplay display;
        result = VaultEngine::open(
            item, credential, [&](const Progress& progress) { display.show(progress); },
            &Interruption::cancellation());
    }
    if (Interruption::cancellation().requested()) {
        VaultEngine::detach(result.mountInfo);
        throw OperationCancelled();
    }
    printResult({result.mountPoint});
}

[[noreturn]] void notOpen(const fs::path& path) {
    requireExistence(path);
    throw std::runtime_error("\"" + path.filename().native() + "\" isn't open.");
}

/// The folder on which the item is opened in place.
std::string inPlaceFolder(const fs::path& item) {
    return (item.parent_path() / item.stem()).native();
}

void closeFolder(const fs::path& item) {
    const std::string folder = inPlaceFolder(item);
    const InPlaceClosed result = closeInPlace(item, folder);
    if (result.stillHidden)
        printMessage("\"" + item.filename().native() +
                     "\" is closed, but file managers may still hide it.");
    if (result.filesLeft) throw std::runtime_error(InPlaceClosed::filesLeftText(folder));
}

/// The item that is open in place, when `path` is it or its folder.
std::optional<fs::path> itemInPlace(const fs::path& path) {
    for (const fs::path& item : {path, fs::path(path.native() + ".quillvane")}) {
        const auto mountPoint = Platform::mountPointOfImage(item);
        std::error_code error;
        if (mountPoint && fs::equivalent(*mountPoint, inPlaceFolder(item), error)) return item;
    }
    return std::nullopt;
}

void close(const Arguments& arguments) {
    const fs::path path = itemPath(arguments.operand);
    if (const auto item = itemInPlace(path)) return closeFolder(*item);
    std::optional<std::string> mountPoint = Platform::mountPointOfImage(path);
    if (!mountPoint && Platform::isMounted(path)) mountPoint = path;
    if (!mountPoint) notOpen(path);
    VaultEngine::detach({{}, *mountPoint});
}

void closeSmartFolder(const Arguments& arguments) {
    const fs::path item = existingItem(arguments.operand);
    const std::string folder = inPlaceFolder(item);
    if (Platform::isMounted(folder)) return closeFolder(item);
    if (Platform::mountPointOfImage(item))
        throw std::runtime_error("\"" + item.filename().native() +
                                 "\" is open, but not in place. Close it with: qv close " +
                                 shellWord(item.native()));
    const bool leftBehind = VaultEngine::isHidden(item);
    VaultEngine::recoverIfOrphaned(item, folder);
    if (!leftBehind) notOpen(item);
}

void smart(const Arguments& arguments) {
    const fs::path item = existingItem(arguments.operand);
    if (itemInPlace(item) && !hasManager(item))
        return runSmartFolder(item, std::nullopt, arguments.minutes);
    if (Platform::mountPointOfImage(item))
        throw std::runtime_error("\"" + item.stem().native() + "\" is already open.");
    Credential credential = askCredential(*secretSource(arguments), arguments, "Password");
    runSmartFolder(item, std::move(credential), arguments.minutes);
}

void remove(const Arguments& arguments) {
    const fs::path item = existingItem(arguments.operand);
    const Credential credential = askCredential(*secretSource(arguments), arguments, "Password");
    fs::path restored;
    {
        ProgressDisplay display;
        restored = VaultEngine::removePassword(
            item, credential, [&](const Progress& progress) { display.show(progress); },
            &Interruption::cancellation());
    }
    printResult({restored.native()});
}

void change(const Arguments& arguments) {
    const fs::path item = existingItem(arguments.operand);
    auto source = secretSource(arguments);
    const Credential current = askCredential(*source, arguments, "Current password");
    const NewPassword secret = source->fresh("New password");
    source.reset(); // the terminal is as it was while the keys are derived
    if (secret.password.empty()) throw VaultError::emptyPassword();
    if (!(secret.password == secret.confirmation)) throw VaultError::passwordMismatch();
    VaultEngine::changePassword(item, current, secret.password, &Interruption::cancellation());
}

void perform(const Arguments& arguments) {
    switch (arguments.command) {
    case Arguments::Command::lock:
        return lock(arguments);
    case Arguments::Command::open:
        return open(arguments);
    case Arguments::Command::close:
        return close(arguments);
    case Arguments::Command::remove:
        return remove(arguments);
    case Arguments::Command::change:
        return change(arguments);
    case Arguments::Command::smart:
        return arguments.closeSmartFolder ? closeSmartFolder(arguments) : smart(arguments);
    case Arguments::Command::finish:
        return finishInterrupted(arguments);
    case Arguments::Command::undo:
        return undoInterrupted(arguments);
    case Arguments::Command::help:
    case Arguments::Command::version:
        break; // not operations
    }
}

} // namespace

void runCommand(const Arguments& arguments) {
    if (arguments.command == Arguments::Command::finish ||
        arguments.command == Arguments::Command::undo)
        return perform(arguments);
    std::set<std::string> told;
    tellInterrupted(arguments.operand, told);
    try {
        perform(arguments);
    } catch (const UsageError&) {
        throw;
    } catch (const QuietFailure&) {
        throw;
    } catch (const std::exception& error) {
        printMessage(errorText(error));
        tellInterrupted(arguments.operand, told); // what it leaves can be ended, too
        throw QuietFailure();
    }
}
