#include "VolumeFormatter.h"

#include "ChildProgram.h"
#include "Ext4Volume.h"
#include "PlaintextExport.h"
#include "ToolError.h"

#include <string>
#include <unistd.h>

namespace {

constexpr std::uint64_t gibibyte = 1024ULL * 1024 * 1024;
constexpr std::size_t longestLabel = 16;

// Named one by one, so that a system's own mke2fs.conf changes nothing. Missing on purpose, as
// libext2fs does not write them reliably: inline_data, ea_inode, bigalloc, orphan_file, quota.
constexpr const char* features = "none,has_journal,ext_attr,resize_inode,dir_index,filetype,extent,"
                                 "64bit,flex_bg,sparse_super,large_file,huge_file,dir_nlink,"
                                 "extra_isize,metadata_csum";

std::vector<std::string> formatArguments(const EncryptedImage& image, std::string_view label,
                                         const std::string& file) {
    const std::uint64_t size = image.blockCount() * EncryptedImage::blockSize;
    const std::string owner = std::to_string(::geteuid()) + ":" + std::to_string(::getegid());
    // The kernel's dm-crypt refuses file-system blocks smaller than the encryption's sectors.
    return {"-t", "ext4", "-b", "4096", "-I", "256", "-m", "0", "-q", "-F",
            // Small volumes are for trees of small files, one inode a block.
            "-i", size < 4 * gibibyte ? "4096" : "16384",
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
// whole blocks and takes an inode, directories grow, the journal and the tables take their part.
// A tree of many tiny files needs several times its bytes. The image is sparse, so room that is
// not used costs nothing.
std::uint64_t payloadFor(std::uint64_t content) {
    const std::uint64_t size = content + content / 4 + 2 * gibibyte;
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
