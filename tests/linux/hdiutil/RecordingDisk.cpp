#include "RecordingDisk.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <sys/wait.h>
#include <system_error>

namespace {

constexpr std::byte garbage{0xa5};

} // namespace

RecordingDisk::RecordingDisk(unsigned megabytes, const std::string& options) {
    mayGrowTo(megabytes);
    const PlainImages images;
    const auto file = images.write({});
    std::filesystem::resize_file(file, std::uint64_t{megabytes} << 20);
    const Outcome made = runCommand("/usr/sbin/mke2fs -q -F -t ext4 -b 4096 -I 256 -m 0 -N 2048 " +
                                    options + " " + file.string());
    if (made.status != 0) throw std::runtime_error(made.output);
    fresh_ = PlainImages::read(file);
    content_ = fresh_;
}

void RecordingDisk::failWhenBroken() {
    const std::size_t now = attempts_++;
    if (now >= fault_.from && now - fault_.from < fault_.count)
        throw std::system_error(fault_.error, std::generic_category());
}

void RecordingDisk::read(std::uint64_t firstBlock, std::span<std::byte> into) {
    if (firstBlock * blockSize + into.size() > content_.size())
        throw std::system_error(EIO, std::generic_category());
    std::memcpy(into.data(), content_.data() + firstBlock * blockSize, into.size());
}

void RecordingDisk::write(std::uint64_t firstBlock, std::span<const std::byte> from) {
    if (firstBlock * blockSize + from.size() > content_.size())
        throw std::system_error(EIO, std::generic_category());
    for (; !from.empty(); ++firstBlock, from = from.subspan(blockSize)) {
        failWhenBroken();
        const auto block = from.first(blockSize);
        events_.push_back({Kind::write, firstBlock, 1, {block.begin(), block.end()}});
        apply(events_.back(), content_);
    }
}

void RecordingDisk::reserve(std::uint64_t, std::uint64_t) {
    if (fault_.error == ENOSPC) failWhenBroken();
}

void RecordingDisk::sync() {
    failWhenBroken();
    events_.push_back({Kind::sync, 0, 0, {}});
}

// By a few mebibytes at a time, so that growing is frequent and images stay small.
std::uint64_t RecordingDisk::longestCount() {
    constexpr std::uint64_t step = 2048;
    return std::min(longest_, blockCount() + step);
}

void RecordingDisk::lengthen(std::uint64_t count) {
    if (count <= blockCount()) return;
    failWhenBroken();
    events_.push_back({Kind::length, count, 0, {}});
    apply(events_.back(), content_);
}

bool RecordingDisk::discard(std::uint64_t firstBlock, std::uint64_t count) {
    failWhenBroken();
    events_.push_back({Kind::discard, firstBlock, count, {}});
    apply(events_.back(), content_);
    return true;
}

std::size_t RecordingDisk::count(Kind kind) const {
    return static_cast<std::size_t>(std::count_if(
        events_.begin(), events_.end(), [&](const Event& event) { return event.kind == kind; }));
}

/// What lies beyond the end, as the lengthening was lost, is lost, too.
void RecordingDisk::apply(const Event& event, std::vector<std::byte>& to) {
    if (event.kind == Kind::sync) return;
    if (event.kind == Kind::length) return to.resize(event.block * blockSize, garbage);
    if ((event.block + event.count) * blockSize > to.size()) return;
    std::byte* const place = to.data() + event.block * blockSize;
    if (event.kind == Kind::discard)
        std::fill_n(place, event.count * blockSize, garbage);
    else
        std::memcpy(place, event.data.data(), blockSize);
}

std::vector<std::byte> RecordingDisk::after(std::size_t events) const {
    std::vector<std::byte> content = fresh_;
    for (std::size_t i = 0; i < events; ++i) apply(events_[i], content);
    return content;
}

std::vector<std::byte> RecordingDisk::after(std::size_t events, std::minstd_rand& random) const {
    std::size_t synced = events;
    while (synced > 0 && !isSync(synced - 1)) --synced;
    std::vector<std::byte> content = after(synced);
    const auto odds = random() % 100;
    for (std::size_t i = synced; i < events; ++i)
        if (random() % 100 < odds) apply(events_[i], content);
    return content;
}

PlainImages::PlainImages() {
    const char* memory = "/dev/shm"; // thousands of images are written
    const std::filesystem::path parent = std::filesystem::is_directory(memory)
                                             ? std::filesystem::path(memory)
                                             : std::filesystem::temp_directory_path();
    std::string pattern = (parent / "images-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp");
    directory_ = pattern;
}

PlainImages::~PlainImages() {
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

std::filesystem::path PlainImages::write(const std::vector<std::byte>& content) const {
    auto file = directory_ / "plain";
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(content.data()),
              static_cast<std::streamsize>(content.size()));
    if (!out) throw std::runtime_error("writing " + file.string());
    return file;
}

std::vector<std::byte> PlainImages::read(const std::filesystem::path& file) {
    std::vector<std::byte> content(std::filesystem::file_size(file));
    std::ifstream in(file, std::ios::binary);
    in.read(reinterpret_cast<char*>(content.data()), static_cast<std::streamsize>(content.size()));
    if (!in) throw std::runtime_error("reading " + file.string());
    return content;
}

Outcome runCommand(const std::string& command) {
    Outcome outcome;
    FILE* pipe = ::popen(("( " + command + " ) 2>&1").c_str(), "r");
    if (pipe == nullptr) throw std::runtime_error("popen");
    std::array<char, 4096> buffer{};
    while (const std::size_t got = std::fread(buffer.data(), 1, buffer.size(), pipe))
        outcome.output.append(buffer.data(), got);
    const int status = ::pclose(pipe);
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return outcome;
}
