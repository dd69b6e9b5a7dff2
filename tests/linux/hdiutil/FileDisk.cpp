#include "FileDisk.h"

#include "RecordingDisk.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <stdexcept>
#include <system_error>
#include <unistd.h>

namespace {

off_t place(std::uint64_t block) {
    return static_cast<off_t>(block * BlockDevice::blockSize);
}

void require(bool condition) {
    if (!condition) throw std::system_error(errno, std::generic_category());
}

} // namespace

FileDisk::FileDisk(unsigned megabytes, const std::string& options)
    : blocks_((std::uint64_t{megabytes} << 20) / blockSize) {
    std::string pattern = (std::filesystem::temp_directory_path() / "disk-XXXXXX").string();
    require(::mkdtemp(pattern.data()) != nullptr);
    directory_ = pattern;
    const std::string file = directory_ / "plain";
    fd_ = ::open(file.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    require(fd_ >= 0 && ::ftruncate(fd_, place(blocks_)) == 0);
    const Outcome made = runCommand("/usr/sbin/mke2fs -q -F -t ext4 -b 4096 -I 256 -m 0 -J size=4 "
                                    "-O meta_bg,^resize_inode -E lazy_itable_init=1 " +
                                    options + " " + file);
    if (made.status != 0) throw std::runtime_error(made.output);
}

FileDisk::~FileDisk() {
    ::close(fd_);
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

void FileDisk::read(std::uint64_t firstBlock, std::span<std::byte> into) {
    const ssize_t got = ::pread(fd_, into.data(), into.size(), place(firstBlock));
    if (got != static_cast<ssize_t>(into.size()))
        throw std::system_error(EIO, std::generic_category());
}

void FileDisk::write(std::uint64_t firstBlock, std::span<const std::byte> from) {
    if (firstBlock + from.size() / blockSize > blocks_)
        throw std::system_error(EIO, std::generic_category());
    require(::pwrite(fd_, from.data(), from.size(), place(firstBlock)) ==
            static_cast<ssize_t>(from.size()));
}

void FileDisk::reserve(std::uint64_t, std::uint64_t count) {
    if (count > roomFor) throw std::system_error(ENOSPC, std::generic_category());
    roomFor -= count;
}

void FileDisk::lengthen(std::uint64_t count) {
    if (count <= blocks_) return;
    require(::ftruncate(fd_, place(count)) == 0);
    blocks_ = count;
}

bool FileDisk::discard(std::uint64_t firstBlock, std::uint64_t count) {
    require(::fallocate(fd_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, place(firstBlock),
                        place(count)) == 0);
    discarded.emplace_back(firstBlock, count);
    return true;
}

std::string FileDisk::check() const {
    const Outcome outcome = runCommand("/usr/sbin/e2fsck -fn " + (directory_ / "plain").string());
    return outcome.status == 0 ? "" : outcome.output;
}
