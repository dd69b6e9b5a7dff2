#pragma once

#include "BlockDevice.h"

#include <ext2fs/ext2fs.h>

#include <cstdint>
#include <optional>
#include <set>

/// Gives the room of a volume's free blocks back to the disk.
///
/// It looks through the groups in which free blocks may have room. A block counts as free when the
/// bitmap in memory says so, which must be only after its freeing is committed. Not thread-safe.
class FreeRoom {
public:
    FreeRoom(BlockDevice& device, ext2_filsys fs) : device_(device), fs_(fs) {}

    /// Of these blocks, free ones may have room. Those beyond the volume's end do not count.
    void note(std::uint64_t firstBlock, std::uint64_t count);
    void noteAll();
    bool pending() const noexcept { return current_ || !groups_.empty(); }
    /// Discards free blocks, as many as it takes some ten milliseconds to. Throws
    /// `std::system_error`; the next call goes on with the same blocks.
    void giveSomeBack();

private:
    bool discardNext(std::uint64_t& budget);

    BlockDevice& device_;
    ext2_filsys fs_;
    std::set<dgrp_t> groups_;
    std::optional<dgrp_t> current_;
    std::uint64_t next_ = 0; ///< block of the current group to go on with
    bool refused_ = false;   ///< the device keeps its room
};
