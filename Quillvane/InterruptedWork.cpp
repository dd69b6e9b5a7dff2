#include "InterruptedWork.h"

#include "DurableFile.h"
#include "ItemPath.h"
#include "KeyMetadata.h"
#include "KeyStore.h"
#include "Platform.h"
#include "VaultEngine.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

// What was interrupted, and what the user is told of it. InterruptedEnding.cpp ends it.

namespace InterruptedWork {
namespace {

namespace fs = std::filesystem;
using Contents = OperationNote::Contents;
using Step = OperationNote::Step;

std::optional<struct stat> statusOf(const Path& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 ? std::optional(status) : std::nullopt;
}

bool anythingAt(const Path& path) {
    return statusOf(path).has_value();
}

bool isDirectoryWithInode(const Path& path, std::uint64_t inode) {
    const auto status = statusOf(path);
    return status && S_ISDIR(status->st_mode) && status->st_ino == inode;
}

bool isDirectory(const Path& path) {
    const auto status = statusOf(path);
    return status && S_ISDIR(status->st_mode);
}

/// A link counts too: an item may be given by one.
bool isNoDirectory(const Path& path) {
    const auto status = statusOf(path);
    return status && !S_ISDIR(status->st_mode);
}

bool isFileWithInode(const Path& path, std::uint64_t inode) {
    const auto status = statusOf(path);
    return status && !S_ISDIR(status->st_mode) && status->st_ino == inode;
}

/// A file that may be a working image of ours.
bool isOwnFile(const Path& path) {
    const auto status = statusOf(path);
    return status && S_ISREG(status->st_mode) && status->st_uid == ::geteuid() &&
           status->st_nlink == 1;
}

/// A working image that this user is told of though it is another's: one that the system's
/// administrator made in a folder of this user, and any for the administrator. Files of others,
/// who could leave as many as they like in a shared directory, are not told.
bool isForeignToTell(const Path& path) {
    const auto status = statusOf(path);
    return status && S_ISREG(status->st_mode) && status->st_uid != ::geteuid() &&
           (status->st_uid == 0 || ::geteuid() == 0);
}

bool hasKeyFile(const Path& image) {
    const auto text = KeyStore::read(image);
    return text && KeyMetadata::decode(*text);
}

/// The directory that was noted. Its birth tells, where it is known: on some disks it has another
/// number at each mount, and the roots of two have the same.
bool isDirectoryOfNote(const Path& path, std::uint64_t inode, std::int64_t noted) {
    const auto birth = Platform::birthTime(path);
    if (birth && noted) return isDirectory(path) && birth == noted;
    return isDirectoryWithInode(path, inode);
}

/// What is not found is not there then, and not only out of reach.
bool canBeLookedInto(const Contents& contents) {
    return std::ranges::all_of(
        std::array{contents.folder, contents.item, contents.image}, [&](const std::string& name) {
            struct stat status {};
            return ::lstat((contents.directory / name).c_str(), &status) == 0 || errno == ENOENT;
        });
}

bool isThere(const Contents& contents) {
    return isDirectoryOfNote(contents.directory, contents.directoryInode,
                             contents.directoryBirth) &&
           canBeLookedInto(contents);
}

// Numbers of files cannot be relied on where another is given at each mount (FAT, some file systems
// in user space): the working image is known by its name, which was made for it alone, and of a
// removal whatever has the names is told. What is deleted in the end is compared before.

std::optional<State> stateOfProtection(const Contents& contents) {
    const Path image = contents.directory / contents.image;
    const Path item = contents.directory / contents.item;
    if (contents.step(Step::shown)) return std::nullopt;
    if (contents.step(Step::done))
        return anythingAt(item) ? std::optional(State::named) : std::nullopt;
    const bool hasFolder = isDirectoryOfNote(contents.directory / contents.folder,
                                             contents.originalInode, contents.originalBirth);
    const bool hasImage = isOwnFile(image) && hasKeyFile(image);
    const auto imageInode = contents.step(Step::deleting);
    if (!imageInode || contents.step(Step::dropping)) {
        if (!isOwnFile(image)) return std::nullopt;
        if (!hasImage) return State::unfinished;
        return hasFolder ? State::copied : State::unnamed;
    }
    if (isFileWithInode(item, *imageInode)) return State::named;
    if (hasImage || isFileWithInode(image, *imageInode))
        return hasFolder ? State::deleting : State::unnamed;
    if (!anythingAt(image) && isOwnFile(item) && hasKeyFile(item)) return State::named;
    return State::imageMissing;
}

/// The item may have been renamed: then its password needs the key file.
bool isRenamed(const Contents& contents) {
    std::error_code error;
    for (fs::directory_iterator entry(contents.directory, error), end; !error && entry != end;
         entry.increment(error))
        if (isFileWithInode(entry->path(), contents.originalInode)) return true;
    return false;
}

std::optional<State> stateOfRemoval(const Contents& contents) {
    const Path item = contents.directory / contents.item;
    const Path folder = contents.directory / contents.folder;
    const bool made = contents.step(Step::made).has_value();
    const bool copied = contents.step(Step::copied) && !contents.step(Step::undoing);
    const bool hasItem = isNoDirectory(item);
    const bool hasFolder = made && isDirectory(folder);
    if (copied && hasFolder && hasItem) return State::restored;
    if (copied && !anythingAt(item))
        return anythingAt(KeyStore::path(item)) && !isRenamed(contents)
                   ? std::optional(State::keyFileLeft)
                   : std::nullopt;
    if (hasFolder && !copied) return hasItem ? State::incomplete : State::itemMissing;
    // It may have been made just before it could be noted.
    if (!made && hasItem && VaultEngine::isDirectoryEmpty(folder)) return State::incomplete;
    if (hasItem && Platform::mountPointOfImage(item)) return State::opened;
    return std::nullopt;
}

/// The key to an image that we began to delete opens nothing, and one that has become the item has
/// another key file by then; any other image may only have been moved. Whether nothing is left to
/// be dropped.
bool dropWorkingKeyFile(const Contents& contents) {
    if (contents.image.empty()) return true;
    const Path image = contents.directory / contents.image;
    const Path item = contents.directory / contents.item;
    const auto imageInode = contents.step(Step::deleting);
    if (anythingAt(image) || !anythingAt(KeyStore::path(image))) return true;
    const bool named = imageInode && isFileWithInode(item, *imageInode) && hasKeyFile(item);
    if (!named && !contents.step(Step::dropping)) return true;
    DurableFile::syncDirectory(contents.directory); // or a crash may bring the image back
    KeyStore::remove(image);
    return !anythingAt(KeyStore::path(image));
}

/// The directory may have been renamed, or its disk be mounted at another place.
void follow(Contents& contents, const Path& directory) {
    const auto birth = Platform::birthTime(directory);
    const auto status = statusOf(directory);
    if (birth && birth == contents.directoryBirth && status &&
        status->st_ino == contents.directoryInode && !isThere(contents))
        contents.directory = directory;
}

std::vector<Found> findAmong(const std::vector<OperationNote::Entry>& notes) {
    std::vector<Found> found;
    for (const auto& [id, interrupted, contents] : notes) {
        // A directory that is not there may be on a disk that is not connected.
        if (!interrupted || !isThere(contents)) continue;
        if (const auto state = stateOf(contents)) {
            found.push_back({*state, id, contents});
        } else if (auto note = OperationNote::take(id, contents.directory)) {
            settle(*note);
        }
    }
    return found;
}

bool isWorkingName(const std::string& name) {
    constexpr std::string_view prefix = ".Quillvane-";
    constexpr std::string_view extension = ".sparseimage";
    constexpr std::size_t uuidLength = 36;
    if (name.size() != prefix.size() + uuidLength + extension.size() || !name.starts_with(prefix) ||
        !name.ends_with(extension))
        return false;
    return name.substr(prefix.size(), uuidLength).find_first_not_of("-0123456789ABCDEF") ==
           std::string::npos;
}

void addStrayImages(const Path& directory, const std::vector<OperationNote::Entry>& notes,
                    std::vector<Found>& found) {
    std::error_code error;
    for (fs::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        const bool foreign = isForeignToTell(entry->path());
        if (!isWorkingName(name) || !(foreign || isOwnFile(entry->path()))) continue;
        const bool noted = std::ranges::any_of(notes, [&](const auto& note) {
            // Of one whose directory is not there nobody would tell.
            return note.contents.image == name && isThere(note.contents);
        });
        // Of what cannot be read nobody can tell whether it is in use.
        const bool unknown = foreign && ::access(entry->path().c_str(), R_OK) != 0;
        if (noted || (!unknown && Platform::isImageInUse(entry->path()))) continue;
        Contents contents;
        contents.directory = directory;
        contents.image = name;
        const State state = foreign                     ? State::strayForeign
                            : hasKeyFile(entry->path()) ? State::strayOpenable
                                                        : State::strayImage;
        found.push_back({state, {}, std::move(contents)});
    }
}

std::string inQuotes(const std::string& name) {
    return "\"" + name + "\"";
}

std::string textOfProtection(const Found& found) {
    const Contents& contents = found.contents;
    const std::string begin = "Protecting " + inQuotes(contents.folder) + " in " +
                              contents.directory.string() + " was interrupted";
    if (found.state == State::unfinished)
        return begin + ". The folder is as it was; nothing is protected yet.";
    if (found.state == State::copied)
        return begin + ". The folder was whole then, and so was its encrypted copy.";
    if (found.state == State::deleting)
        return begin + " while the original was being deleted. Everything is in the encrypted "
                       "copy, which your password opens; the folder may hold only a part.";
    if (found.state == State::unnamed)
        return begin + " at its last step. Everything is in the encrypted copy, which has not got "
                       "its name yet.";
    if (found.state == State::imageMissing)
        return begin + ", and its encrypted copy " + inQuotes(contents.image) +
               " is no longer there.";
    return inQuotes(contents.folder) + " in " + contents.directory.string() +
           " is protected, but its recovery key may not have been shown. Your password opens it. "
           "To get a recovery key, remove the protection and protect the folder again.";
}

std::string textOfRemoval(const Found& found) {
    const Contents& contents = found.contents;
    const std::string begin = "Removing the protection of " + inQuotes(contents.item) + " in " +
                              contents.directory.string() + " was interrupted";
    if (found.state == State::opened)
        return begin + ". The item is as it was, but it is still open.";
    if (found.state == State::incomplete)
        return begin + ". The item is whole; the folder " + inQuotes(contents.folder) +
               " beside it is not. Don't delete the item.";
    if (found.state == State::restored)
        return begin + " before the item was deleted. Both were whole then, and anyone with the "
                       "drive can read the folder.";
    if (found.state == State::itemMissing)
        return begin + ", and the item is no longer there. The folder " +
               inQuotes(contents.folder) + " may hold only a part of it.";
    return "The protection of " + inQuotes(contents.folder) + " in " + contents.directory.string() +
           " was removed; only the item's key file was left. If you have moved the item, keep the "
           "key "
           "file: its password needs it.";
}

} // namespace

std::optional<State> stateOf(const Contents& contents) {
    return contents.operation == OperationNote::Operation::protect ? stateOfProtection(contents)
                                                                   : stateOfRemoval(contents);
}

std::vector<Found> find() {
    return findAmong(OperationNote::all());
}

std::vector<Found> findIn(const Path& place) {
    std::error_code missing;
    const Path directory = fs::canonical(place, missing);
    if (missing) return {};
    auto notes = OperationNote::all();
    for (auto& note : notes) follow(note.contents, directory);
    std::erase_if(notes, [&](const auto& note) { return note.contents.directory != directory; });
    auto found = findAmong(notes);
    addStrayImages(directory, notes, found);
    return found;
}

std::string text(const Found& found) {
    if (found.state == State::strayImage)
        return "An unfinished encrypted copy was left in " + found.contents.directory.string() +
               ": " + inQuotes(found.contents.image) +
               ". Nobody can open it. Delete it, unless another computer is at work on it.";
    if (found.state == State::strayOpenable)
        return "The encrypted copy of a folder was left in " + found.contents.directory.string() +
               ": " + inQuotes(found.contents.image) +
               ". Its password opens it once it and its key file have the names of an item: "
               "NAME.quillvane and .NAME.quillvane.qvkeys.";
    if (found.state == State::strayForeign)
        return "The encrypted copy of a folder is in " + found.contents.directory.string() + ": " +
               inQuotes(found.contents.image) +
               ". Another user has made it, as with sudo, and may be at work on it. Don't delete "
               "it: it may hold what is missing in the folder. That user can finish or undo it.";
    return found.contents.operation == OperationNote::Operation::protect ? textOfProtection(found)
                                                                         : textOfRemoval(found);
}

Path place(const Found& found) {
    const Contents& contents = found.contents;
    if (contents.folder.empty()) return contents.directory / contents.image;
    const bool protect = contents.operation == OperationNote::Operation::protect;
    return contents.directory / (protect ? contents.folder : contents.item);
}

bool canBeEnded(const Found& found) noexcept {
    return !found.note.empty();
}

bool finishNeedsSecret(const Found& found) {
    return found.state == State::copied || found.state == State::deleting ||
           found.state == State::opened || found.state == State::incomplete ||
           found.state == State::restored;
}

bool undoNeedsSecret(const Found& found) {
    const Path directory = found.contents.directory;
    switch (found.state) {
    case State::copied:
    case State::deleting:
    case State::unnamed:
    case State::named:
    case State::restored:
        return true;
    case State::incomplete:
        // As long as the item is open the folder may still be filled.
        return !VaultEngine::isDirectoryEmpty(directory / found.contents.folder) ||
               Platform::mountPointOfImage(directory / found.contents.item);
    default:
        return false;
    }
}

bool settle(OperationNote& note) noexcept {
    try {
        // A disk that went away in the middle has left something, which is not to be seen now.
        if (!isThere(note.contents()) || stateOf(note.contents())) return false;
        return dropWorkingKeyFile(note.contents()) && note.remove();
    } catch (const std::exception&) {
        return false; // it is looked at again the next time
    }
}

void settleShown(OperationNote& note) noexcept {
    const Contents& contents = note.contents();
    if (!anythingAt(KeyStore::path(contents.directory / contents.image)) && note.remove()) return;
    try {
        note.reach(Step::shown);
    } catch (const std::exception&) {
        return; // then it is told once more that the key may not have been shown
    }
}

} // namespace InterruptedWork
