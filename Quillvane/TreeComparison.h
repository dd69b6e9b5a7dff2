#pragma once

#include "Cancellation.h"
#include "FolderRecord.h"

#include <cstddef>
#include <filesystem>
#include <vector>

/// Holds one tree against another that is to have everything that is in it.
///
/// Alike are files of the same contents and time of last change, links of the same target, devices
/// and FIFOs of the same kind, and folders of the same name, if their owner, group, mode, extended
/// attributes and access control lists are alike as well (`EntryMetadata`). Sockets are alike to
/// anything, as nothing can keep them; so are file managers' own files (".DS_Store") anywhere, and
/// `VaultEngine::systemVolumeItems` at the top where the system keeps files of its own on volumes;
/// elsewhere these are the user's. What has a temporary name (`DurableFile::temporaryName`) and is
/// not there is alike to anything in its folder that it could be. What cannot be read is not alike.
/// Links are not followed, and other file systems not entered.
///
/// All functions throw `std::filesystem::filesystem_error` when the tree is rearranged meanwhile,
/// and when the reference cannot be opened.
namespace TreeComparison {

/// `unfinished` is for a copy that was cut short. Of a file no more is asked than that every byte
/// which is not zero is that of the other file, and of anything no more than that it has no
/// attributes and grants no rights that the other does not.
/// With `any` all that counts is that an entry of the same kind is there, and that a file has the
/// same contents or was written later: what a power failure has cost in it was not.
enum class Files { finished, unfinished, any };

/// What of the tree is not alike in the other, relative to the tree.
struct Differences {
    std::size_t count = 0;
    /// The first few.
    std::vector<std::filesystem::path> first;
};

/// Throws `OperationCancelled` too.
Differences compare(const std::filesystem::path& tree, const std::filesystem::path& reference,
                    Files files, const Cancellation* cancellation = nullptr);
/// Deletes what is alike in both from `tree`, entry by entry, and last the tree itself if nothing
/// stays in it. A file that is changed meanwhile, or that somebody has open for writing, is not
/// alike. What stays is told. Throws `std::filesystem::filesystem_error` with the path of what the
/// system did not let go, and `std::system_error` when it does not tell what is open; what came
/// before is gone then.
Differences removeAlike(const std::filesystem::path& tree, const std::filesystem::path& reference,
                        Files files);
/// What a copy that was cut short, and is to be deleted once the reference is gone, has in common
/// with it: all that is alike as `unfinished`. Files are read even if they have the size and the
/// time of last change that they should: a file that somebody writes into before the copying tool
/// gives it its time looks finished.
FolderRecord recordAlike(const std::filesystem::path& tree, const std::filesystem::path& reference);

} // namespace TreeComparison
