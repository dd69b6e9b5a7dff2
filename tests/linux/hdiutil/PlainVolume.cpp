#include "PlainVolume.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <stdexcept>
#include <unistd.h>
#include <vector>

namespace {

constexpr std::size_t blockSize = EncryptedImage::blockSize;
constexpr std::uint64_t payloadOffset = 1024 * 1024;

struct Outcome {
    int status;
    std::string output;
};

Outcome run(const std::string& command) {
    Outcome outcome{-1, {}};
    FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) throw std::runtime_error("popen");
    std::array<char, 4096> buffer{};
    while (const std::size_t got = std::fread(buffer.data(), 1, buffer.size(), pipe))
        outcome.output.append(buffer.data(), got);
    outcome.status = ::pclose(pipe);
    return outcome;
}

} // namespace

PlainVolume::PlainVolume(unsigned megabytes, const std::string& options) {
    std::string pattern = (std::filesystem::temp_directory_path() / "volume-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp");
    directory_ = pattern;
    const auto plain = directory_ / "plain";
    const std::uint64_t size = std::uint64_t{megabytes} << 20;
    std::ofstream(plain).close();
    std::filesystem::resize_file(plain, size);
    const Outcome made = run("/usr/sbin/mke2fs -q -F -t ext4 -b 4096 -I 256 -m 0 -J size=4 "
                             "-E lazy_itable_init=1 " +
                             options + " " + plain.string());
    if (made.status != 0) throw std::runtime_error(made.output);

    const auto file = directory_ / "image";
    const int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(payloadOffset + size)) != 0)
        throw std::runtime_error("making the image");
    Secret key(64);
    for (std::size_t i = 0; i < key.size(); ++i)
        key.writable()[i] = static_cast<std::uint8_t>(i * 7 + 1);
    image_ = std::make_unique<EncryptedImage>(fd, key,
                                              EncryptedImage::Geometry{payloadOffset, size, 4096});
    encrypt(plain);
    std::filesystem::remove(plain);
}

PlainVolume::~PlainVolume() {
    volume_.reset();
    image_.reset();
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

Ext4Volume& PlainVolume::volume() {
    if (!volume_) volume_ = Ext4Volume::open(*image_, false);
    return *volume_;
}

void PlainVolume::close() {
    if (volume_) volume_->close();
    volume_.reset();
}

void PlainVolume::crash() {
    // What a crash leaves is what the image holds now; what the destructor writes is undone.
    const auto kept = directory_ / "kept";
    std::filesystem::copy_file(directory_ / "image", kept);
    volume_.reset();
    std::ifstream from(kept, std::ios::binary);
    std::vector<char> buffer(1 << 20);
    off_t at = 0;
    while (from.read(buffer.data(), static_cast<std::streamsize>(buffer.size())) ||
           from.gcount() > 0) {
        if (::pwrite(image_->fd(), buffer.data(), static_cast<std::size_t>(from.gcount()), at) < 0)
            throw std::runtime_error("restoring the image");
        at += from.gcount();
    }
    std::filesystem::remove(kept);
}

std::filesystem::path PlainVolume::decrypt() {
    auto plain = directory_ / "plain";
    std::ofstream out(plain, std::ios::binary | std::ios::trunc);
    std::vector<std::byte> block(256 * blockSize);
    for (std::uint64_t at = 0; at < image_->blockCount(); at += 256) {
        const std::size_t count = std::min<std::uint64_t>(256, image_->blockCount() - at);
        image_->read(at, std::span(block).first(count * blockSize));
        out.write(reinterpret_cast<const char*>(block.data()),
                  static_cast<std::streamsize>(count * blockSize));
    }
    return plain;
}

void PlainVolume::encrypt(const std::filesystem::path& plain) {
    std::ifstream in(plain, std::ios::binary);
    std::vector<std::byte> block(blockSize);
    for (std::uint64_t at = 0; at < image_->blockCount(); ++at) {
        in.read(reinterpret_cast<char*>(block.data()), blockSize);
        image_->write(at, block);
    }
}

std::string PlainVolume::check(const std::string& options) {
    const Outcome outcome = run("/usr/sbin/e2fsck " + options + " " + decrypt().string());
    return outcome.status == 0 ? "" : outcome.output;
}
