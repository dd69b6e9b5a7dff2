#pragma once

#include <stdexcept>

/// The structures on the volume contradict themselves; the text says what was found.
class VolumeCorrupt : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The volume needs something that this program does not have; the text says what.
class VolumeNotSupported : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};
