#include "VolumeFormatter.h"

#include "ChildProgram.h"
#include "Ext4Volume.h"
#include "PlaintextExport.h"
#include "ToolError.h"

#include <algorithm>
#include <limits>
#include <string>
#include <unistd.h>

namespace {

constexpr std::uint64_t mebibyte = 1024ULL * 1024;
// One for 8 KiB. Groups that a volume grows by have as many inodes as the first.
constexpr std::uint64_t groupBlocks = 32768;
constexpr std::uint64_t inodesPerGroup = 16384;
constexpr std::uint64_t mostInodes = std::numeric_limits<std::uint32_t>::max();
constexpr std::size_t longestLabel = 16;

// Named one by one, so that a system's own mke2fs.conf changes nothing. Missing on purpose, as
// libext2fs does not write them reliably: inline_data, ea_inode, bigalloc, orphan_file, quota. With
// meta_bg the descriptors of groups lie among the groups, so that more can follow without end.
constexpr const char* features = "none,has_journal,ext_attr,meta_bg,dir_index,filetype,extent,"
                                 "64bit,flex_bg,sparse_super,large_file,huge_file,dir_nlink,"
                                 "extra_isize,metadata_csum";

std::vector<std::string> formatArguments(const EncryptedImage& image, std::string_view label,
                                         const std::string& file) {
    const std::uint64_t groups = (image.blockCount() + groupBlocks - 1) / groupBlocks;
    const std::uint64_t inodes = std::min(groups * inodesPerGroup, mostInodes);
    const std::string owner = std::to_string(::geteuid()) + ":" + std::to_string(::getegid());
    // The kernel's dm-crypt refuses file-system blocks smaller than the encryption's sectors.
    return {"-t", "ext4", "-b", "4096", "-I", "256", "-m", "0", "-q", "-F", "-N",
            std::to_string(inodes),
            // The journal is written out in full, as a hole would read as random bytes. A quarter
            // of it holds what changes in five seconds of copying small files; a larger one is not
            // measurably faster.
            "-J", "size=16", "-O", features, "-L", std::string(label), "-E",
            "nodiscard,lazy_itable_init=1,root_owner=" + owner, file};
}

} // namespace

std::string_view labelFor(std::string_view volumeName) {
    if (volumeName.size() <= longestLabel) return volumeName;
    std::size_t length = longestLabel;
    while (length > 0 && (static_cast<unsigned char>(volumeName[length]) & 0xc0) == 0x80) --length;
    return volumeName.substr(0, length);
}

// The content's bytes are counted without the file system's own needs: each file is rounded up to
// whole blocks and takes an inode, directories grow. A tree of many tiny files needs several times
// its bytes, and the volume grows as it is filled. Of what is fixed, the journal takes 16 MiB, the
// first inodes and bitmaps 4, and the room that a volume keeps before it grows another 16.
std::uint64_t payloadFor(std::uint64_t content) {
    const std::uint64_t size = content + content / 16 + 48 * mebibyte;
    return (size + EncryptedImage::blockSize - 1) / EncryptedImage::blockSize *
           EncryptedImage::blockSize;
}

void formatVolume(EncryptedImage& image, std::string_view volumeName,
                  const BlockedSignals& signals) {
    {
        const PlaintextExport plaintext(image);
        const ProgramResult result = runProgram(
            MKE2FS_PROGRAM, formatArguments(image, labelFor(volumeName), plaintext.file().string()),
            &signals);
        if (result.status != 0) throw ToolError("no file system could be made: " + result.output);
    }
    const auto volume = Ext4Volume::open(image, false);
    volume->setName(volumeName);
    volume->close();
}
