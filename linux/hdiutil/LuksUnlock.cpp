// Opening a LUKS2 header that may be hostile.
//
// Everything that interprets the file runs in a child process, which hands back one record through
// a pipe: the header may crash the library or keep it busy for ever, deaf to every signal but
// SIGKILL, and then the child is killed and the caller goes on.

#include "LuksContainer.h"
#include "LuksDevice.h"
#include "LuksHeader.h"
#include "Quillvane/FileDescriptor.h"
#include "ToolError.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <type_traits>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto timeLimit = 120s;
constexpr std::string_view primaryMagic{"LUKS\xba\xbe", 6};
constexpr std::string_view secondaryMagic{"SKUL\xba\xbe", 6};

enum class Outcome : std::uint32_t { unlocked = 1, wrongPassphrase, damaged, notSupported, failed };

// What the child hands back; lives in `Secret`s only.
struct Record {
    Outcome outcome;
    std::uint32_t sectorSize;
    std::uint64_t payloadOffset;
    std::uint64_t payloadSize;
    std::uint64_t keySize;
    bool toEndOfFile;
    std::array<char, 64> key;
    std::array<char, 256> detail; // zero-terminated
};
static_assert(std::is_trivially_copyable_v<Record>);

bool startsWith(int fd, off_t offset, std::string_view magic) {
    std::array<char, 6> bytes{};
    const ssize_t got = ::pread(fd, bytes.data(), bytes.size(), offset);
    return std::string_view(bytes.data(), got > 0 ? static_cast<std::size_t>(got) : 0) == magic;
}

// The library could not make sense of the header: was it ever one?
[[noreturn]] void reportUnreadable(int fd) {
    std::array<char, 2> version{};
    const bool versionRead = ::pread(fd, version.data(), version.size(), 6) == 2;
    const bool first = startsWith(fd, 0, primaryMagic);
    if (first && versionRead && version[0] == 0 && version[1] == 1)
        throw ImageNotSupported("an older kind of encrypted image, LUKS1");
    bool known = first;
    // The second header follows the first, whose sizes are these by definition of the format.
    for (off_t size = 16384; size <= 4 * 1024 * 1024; size *= 2)
        known = known || startsWith(fd, size, secondaryMagic);
    if (known) throw ImageDamaged("header unreadable");
    throw ImageNotSupported("not an encrypted image");
}

void unlockInto(Record& record, int fd, const Secret& passphrase) {
    const LuksDevice device = openLuksDevice(fd);
    const int loaded = crypt_load(device.get(), CRYPT_LUKS2, nullptr);
    if (loaded == -ENOMEM) throw ToolError::fromErrno(ENOMEM);
    if (loaded < 0) reportUnreadable(fd);
    const char* json = nullptr;
    if (crypt_dump_json(device.get(), &json, 0) < 0) throw ImageDamaged("header unreadable");
    const EncryptedImage::Geometry geometry = checkLuksHeader(json, fileLength(fd));
    record.sectorSize = geometry.sectorSize;
    record.payloadOffset = geometry.payloadOffset;
    record.payloadSize = geometry.payloadSize;
    record.toEndOfFile = geometry.toEndOfFile;

    std::size_t keySize = record.key.size();
    const int slot = crypt_volume_key_get(device.get(), CRYPT_ANY_SLOT, record.key.data(), &keySize,
                                          passphrase.text().data(), passphrase.size());
    if (slot == -EPERM || slot == -ENOENT) throw WrongPassphrase();
    if (slot == -EIO) throw ImageDamaged("keyslot unreadable");
    if (slot < 0) throw ToolError::fromErrno(-slot);
    if (keySize != 32 && keySize != 64) throw ImageNotSupported("unknown key size");
    record.keySize = keySize;
    record.outcome = Outcome::unlocked;
}

void setOutcome(Record& record, Outcome outcome, std::string_view detail) noexcept {
    record.outcome = outcome;
    // The last byte stays zero.
    detail.copy(record.detail.data(), record.detail.size() - 1);
}

void fill(Record& record, int fd, const Secret& passphrase) noexcept {
    try {
        unlockInto(record, fd, passphrase);
    } catch (const WrongPassphrase&) {
        setOutcome(record, Outcome::wrongPassphrase, "");
    } catch (const ImageDamaged& error) {
        setOutcome(record, Outcome::damaged, error.detail());
    } catch (const ImageNotSupported& error) {
        setOutcome(record, Outcome::notSupported, error.detail());
    } catch (const std::exception& error) {
        setOutcome(record, Outcome::failed, error.what());
    }
}

[[noreturn]] void runChild(int fd, int output, const Secret& passphrase) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    Secret memory(sizeof(Record)); // zeroes: no outcome yet
    auto* const record = reinterpret_cast<Record*>(memory.writable().data());
    fill(*record, fd, passphrase);
    // One write below the pipe's size goes through whole.
    const ssize_t written = ::write(output, memory.bytes().data(), memory.size());
    memory.clear();
    ::_exit(written == static_cast<ssize_t>(sizeof(Record)) ? 0 : 1);
}

// Waits for the child's record. Throws when the child ended without one or took too long.
void receive(int input, Secret& memory) {
    const auto deadline = Clock::now() + timeLimit;
    std::size_t filled = 0;
    while (filled < memory.size()) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd waiting{input, POLLIN, 0};
        const int ready = ::poll(&waiting, 1, static_cast<int>(std::max<long>(left, 0)));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) throw ToolError("the image could not be unlocked in time");
        const ssize_t got =
            ::read(input, memory.writable().data() + filled, memory.size() - filled);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) throw ToolError("unlocking the image ended unexpectedly");
        filled += static_cast<std::size_t>(got);
    }
}

[[noreturn]] void throwOutcome(const Record& record) {
    const std::string detail = record.detail.data();
    if (record.outcome == Outcome::wrongPassphrase) throw WrongPassphrase();
    if (record.outcome == Outcome::damaged) throw ImageDamaged(detail);
    if (record.outcome == Outcome::notSupported) throw ImageNotSupported(detail);
    throw ToolError(detail);
}

/// Ends the child whatever happens: it has handed over what it had, or never will.
class ChildEnd {
public:
    explicit ChildEnd(pid_t child) : child_(child) {}
    ~ChildEnd() {
        ::kill(child_, SIGKILL);
        while (::waitpid(child_, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
    ChildEnd(const ChildEnd&) = delete;
    ChildEnd& operator=(const ChildEnd&) = delete;

private:
    pid_t child_;
};

} // namespace

LuksContainer::Unlocked LuksContainer::unlock(int fd, const Secret& passphrase) {
    std::array<int, 2> ends{-1, -1};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0)
        throw std::system_error(errno, std::generic_category(), "pipe");
    const FileDescriptor reading(ends[0]);
    FileDescriptor writing(ends[1]);
    const pid_t child = ::fork();
    if (child < 0) throw std::system_error(errno, std::generic_category(), "fork");
    if (child == 0) runChild(fd, writing.get(), passphrase);
    const ChildEnd end(child);
    writing.reset();

    Secret memory(sizeof(Record));
    receive(reading.get(), memory);
    const auto& record = *reinterpret_cast<const Record*>(memory.bytes().data());
    if (record.outcome != Outcome::unlocked) throwOutcome(record);

    Unlocked result;
    result.volumeKey = Secret(std::string_view(record.key.data(), record.keySize));
    result.geometry = {record.payloadOffset, record.payloadSize, record.sectorSize,
                       record.toEndOfFile};
    return result;
}
