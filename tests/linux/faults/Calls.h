#pragma once

#include <linux/filter.h>

#include <cstdint>
#include <vector>

/// Where a call's arguments name what it works on.
struct Operand {
    static constexpr int none = -1;
    /// The argument that is a descriptor: of the thing itself without a `path`, otherwise of the
    /// directory that a relative path begins at. None: the working directory.
    int descriptor = none;
    /// The argument that points to a path.
    int path = none;

    bool given() const { return descriptor != none || path != none; }
};

enum class Effect {
    change,  ///< changes the disk, or makes a change last
    grow,    ///< the same, and may need room for it
    control, ///< an ioctl: changes the disk if its request is one of a few
    map,     ///< makes memory through which a file may be changed unseen
    unseen,  ///< makes a queue through which files may be changed unseen
};

/// A system call that is looked at.
struct Call {
    long number;
    const char* name;
    Effect effect;
    Operand first;
    Operand second = {};
    /// Looked at only if this argument has one of the bits; otherwise always.
    int flagsArgument = Operand::none;
    std::uint32_t flags = 0;
};

/// The call of this number, which is one of those looked at.
const Call& callOf(long number);

/// Whether an ioctl of this request changes the disk.
bool changesDisk(std::uint64_t request);

/// A filter that asks its listener about the calls that are looked at, and lets all others be.
std::vector<sock_filter> callFilter();
