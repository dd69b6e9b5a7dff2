#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// A sparse file without a name, of a given length; it ends with the object.
class ScratchImage {
public:
    explicit ScratchImage(std::uint64_t length);
    ~ScratchImage();
    ScratchImage(const ScratchImage&) = delete;
    ScratchImage& operator=(const ScratchImage&) = delete;

    int fd() const { return fd_; }
    /// Another descriptor for the same open file.
    int duplicate() const;
    void truncate(std::uint64_t length);
    std::uint64_t length() const;
    std::vector<std::uint8_t> read(std::uint64_t offset, std::size_t size) const;
    void write(std::uint64_t offset, std::string_view bytes);

private:
    int fd_;
};
