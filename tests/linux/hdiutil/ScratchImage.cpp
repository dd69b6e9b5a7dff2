#include "ScratchImage.h"

#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace {

void require(bool condition) {
    if (!condition) throw std::runtime_error("no scratch image");
}

} // namespace

ScratchImage::ScratchImage(std::uint64_t length)
    : fd_(::open(std::filesystem::temp_directory_path().c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC,
                 0600)) {
    require(fd_ >= 0);
    truncate(length);
}

ScratchImage::~ScratchImage() {
    ::close(fd_);
}

int ScratchImage::duplicate() const {
    const int result = ::fcntl(fd_, F_DUPFD_CLOEXEC, 0);
    require(result >= 0);
    return result;
}

void ScratchImage::truncate(std::uint64_t length) {
    require(::ftruncate(fd_, static_cast<off_t>(length)) == 0);
}

std::uint64_t ScratchImage::length() const {
    struct stat status {};
    require(::fstat(fd_, &status) == 0);
    return static_cast<std::uint64_t>(status.st_size);
}

std::vector<std::uint8_t> ScratchImage::read(std::uint64_t offset, std::size_t size) const {
    std::vector<std::uint8_t> result(size);
    const ssize_t got = ::pread(fd_, result.data(), size, static_cast<off_t>(offset));
    require(got >= 0);
    result.resize(static_cast<std::size_t>(got));
    return result;
}

void ScratchImage::write(std::uint64_t offset, std::string_view bytes) {
    require(::pwrite(fd_, bytes.data(), bytes.size(), static_cast<off_t>(offset)) ==
            static_cast<ssize_t>(bytes.size()));
}
