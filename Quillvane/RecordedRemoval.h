#pragma once

#include "FolderRecord.h"
#include "HeldFolder.h"

#include <cstddef>
#include <string>
#include <vector>

/// Deletes of a folder what is as it was recorded, and nothing else.
namespace RecordedRemoval {

/// What stayed because it is not what was recorded.
struct Leftovers {
    static constexpr std::size_t namedEntries = 3;

    std::size_t count = 0;
    std::vector<std::string>
        first; ///< at most `namedEntries` paths, beginning with the folder's name

    /// A sentence for the user; empty when nothing stayed.
    std::string description() const;
};

/// Deletes the folder entry by entry, each only if it is as recorded at that moment and nobody has
/// it open for writing; files at the top that `FolderExamination::mayComeAndChange` go in any case.
/// Follows no link and enters nothing that is mounted inside. Makes folders of the user writable
/// where it must. What stays is added to `leftovers`, also when it throws
/// `std::filesystem::filesystem_error` with the path of what the system did not let go, or
/// `std::system_error`; what came before is gone then.
void remove(const HeldFolder& folder, const FolderRecord& record, Leftovers& leftovers);

} // namespace RecordedRemoval
