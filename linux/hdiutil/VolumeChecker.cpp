#include "VolumeChecker.h"

#include "ChildProgram.h"
#include "Ext4Volume.h"
#include "PlaintextExport.h"
#include "ToolError.h"

#include <array>
#include <cstring>
#include <endian.h>

namespace {

// e2fsck's exit status: bits for "errors corrected" and "should be restarted" are good news.
constexpr int correctedBits = 1 | 2;

template <typename Number> Number field(std::span<const std::byte> superblock, std::size_t at) {
    Number value;
    std::memcpy(&value, superblock.data() + at, sizeof value);
    return value;
}

// e2fsck, told to agree with everything, would cut a volume to the length of a truncated image.
void checkSize(EncryptedImage& image) {
    constexpr std::size_t superblockOffset = 1024;
    std::array<std::byte, EncryptedImage::blockSize> block{};
    image.read(0, block);
    const auto superblock = std::span(block).subspan(superblockOffset);
    if (le16toh(field<std::uint16_t>(superblock, 0x38)) != 0xef53)
        throw ImageDamaged("no volume in it");
    const std::uint64_t low = le32toh(field<std::uint32_t>(superblock, 0x04));
    const std::uint64_t high = le32toh(field<std::uint32_t>(superblock, 0x150));
    const bool has64Bit = (le32toh(field<std::uint32_t>(superblock, 0x60)) & 0x80) != 0;
    if (low + (has64Bit ? high << 32 : 0) > image.blockCount())
        throw ImageDamaged("the file is shorter than its volume");
}

std::string lastLines(const std::string& output) {
    std::size_t from = output.size();
    for (int lines = 0; lines < 5 && from != std::string::npos && from > 0; ++lines)
        from = output.rfind('\n', from - 1);
    return from == std::string::npos || from == 0 ? output : output.substr(from + 1);
}

ProgramResult check(const PlaintextExport& plaintext, std::vector<std::string> options) {
    options.push_back(plaintext.file().string());
    return runProgram(E2FSCK_PROGRAM, options);
}

bool succeeded(const ProgramResult& result) {
    return (result.status & ~correctedBits) == 0;
}

void repair(EncryptedImage& image) {
    const PlaintextExport plaintext(image);
    // Replays the journal and frees what had no name any more. It goes on to look at everything
    // only when the volume says that it is not sound, which a crash alone does not bring about.
    if (succeeded(check(plaintext, {"-p"})) && !Ext4Volume::needsCheck(image)) return;
    if (succeeded(check(plaintext, {"-f", "-p"})) && !Ext4Volume::needsCheck(image)) return;
    // What the careful mode leaves to a person's decision is nearly always an entry that a power
    // failure cut short. Nobody can be asked here, so agree, and trust only a clean second look.
    const ProgramResult thorough = check(plaintext, {"-f", "-y"});
    const ProgramResult verdict = check(plaintext, {"-f", "-n"});
    if (verdict.status != 0)
        throw ImageDamaged("the volume could not be repaired:\n" + lastLines(thorough.output));
}

bool needsRepair(EncryptedImage& image, bool readOnly) {
    try {
        return Ext4Volume::needsCheck(image);
    } catch (const VolumeCorrupt&) {
        if (readOnly) throw;
        return true;
    }
}

} // namespace

void checkVolume(EncryptedImage& image, bool readOnly) {
    checkSize(image);
    if (!needsRepair(image, readOnly)) return;
    if (readOnly)
        throw ToolError("the volume was not closed properly, and the image cannot be written to");
    repair(image);
}
