#pragma once

#include "Cancellation.h"

#include <cstddef>
#include <filesystem>
#include <vector>

/// Holds one tree against another that is to have everything that is in it.
///
/// Alike are folders of the same name; files of the same contents, mode and time of last
/// change; links of the same target; devices and FIFOs of the same kind. Sockets are alike to
/// anything, as nothing can keep them, and so are `VaultEngine::systemVolumeItems` at the top. What
/// cannot be read is not alike. Links are not followed, and other file systems not entered.
///
/// Both functions throw `std::filesystem::filesystem_error` when the tree is rearranged meanwhile.
namespace TreeComparison {

/// `unfinished` is for a copy that was cut short: of a file no more is asked than that every byte
/// which is not zero is that of the other file.
enum class Files { finished, unfinished };

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
/// stays in it. What stays is told; what cannot be deleted as well.
Differences removeAlike(const std::filesystem::path& tree, const std::filesystem::path& reference,
                        Files files);

} // namespace TreeComparison
