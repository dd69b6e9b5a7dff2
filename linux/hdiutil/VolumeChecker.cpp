#include "VolumeChecker.h"

#include "ChildProgram.h"
#include "PlaintextExport.h"
#include "SuperblockVerifier.h"
#include "ToolError.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

const char* const systemE2fsck = E2FSCK_PROGRAM;

namespace {

// e2fsck's exit status, by bits (e2fsck(8)). "Errors corrected" and "the system should be
// restarted", which is about file systems in use, are good news. "Errors left uncorrected" is what
// it says where it would have to ask: "UNEXPECTED INCONSISTENCY; RUN fsck MANUALLY".
constexpr int correctedBits = 1 | 2;
constexpr int uncorrectedBit = 4;
// Above it, `ProgramResult` tells of a signal.
constexpr int endedBySignal = 128;

/// What e2fsck said last, in which the reason is.
std::string lastLines(std::string output) {
    output.erase(output.find_last_not_of('\n') + 1);
    std::size_t from = output.size();
    for (int lines = 0; lines < 5 && from != std::string::npos && from > 0; ++lines)
        from = output.rfind('\n', from - 1);
    return from == std::string::npos || from == 0 ? output : output.substr(from + 1);
}

ImageDamaged beyondRepair(const std::string& found) {
    return ImageDamaged("the volume in it is damaged, and cannot be repaired without a risk for "
                        "its files; what that could cost has been left as it is, and "
                        "docs/damaged-items.md tells how to get at it: " +
                        found);
}

class Repair {
public:
    Repair(EncryptedImage& image, const BlockedSignals& signals, const std::string& e2fsck)
        : image_(image), plaintext_(image), signals_(signals), e2fsck_(e2fsck) {}

    /// Returns when e2fsck is content. Throws like `openSoundVolume`.
    void run(std::vector<std::string> options) {
        options.push_back(plaintext_.file().string());
        const ProgramResult result = start(options);
        // Nothing is written after a failure, so a journal is not given up half replayed.
        if (const int error = plaintext_.failure(); error != 0)
            throw std::system_error(error, std::generic_category(),
                                    "the volume needs to be repaired, which failed");
        if (result.status >= endedBySignal)
            throw ToolError("the volume needs to be repaired, and e2fsck ended unexpectedly");
        if ((result.status & ~correctedBits) == 0) return;
        if ((result.status & uncorrectedBit) != 0 || !superblockIsSound())
            throw beyondRepair(lastLines(result.output));
        throw ToolError("the volume needs to be repaired, which failed: " +
                        lastLines(result.output));
    }

private:
    ProgramResult start(const std::vector<std::string>& options) const {
        try {
            return runProgram(e2fsck_, options, &signals_);
        } catch (const std::system_error& error) {
            throw ToolError("the volume needs to be repaired, and e2fsck could not be started: " +
                            error.code().message());
        }
    }

    bool superblockIsSound() const {
        try {
            verifySuperblock(image_);
            return true;
        } catch (const VolumeCorrupt&) {
            return false;
        }
    }

    EncryptedImage& image_;
    PlaintextExport plaintext_;
    const BlockedSignals& signals_;
    const std::string& e2fsck_;
};

/// The volume when it needs no repair; else nothing, and `problem` says why.
std::unique_ptr<Ext4Volume> openIfSound(EncryptedImage& image, bool readOnly,
                                        std::string& problem) {
    try {
        if (!Ext4Volume::needsCheck(image)) return Ext4Volume::open(image, readOnly);
        problem = "it was not closed properly";
    } catch (const VolumeCorrupt& error) {
        if (readOnly) throw;
        problem = error.what();
    }
    return nullptr;
}

} // namespace

std::unique_ptr<Ext4Volume> openSoundVolume(EncryptedImage& image, bool readOnly,
                                            const BlockedSignals& signals,
                                            const std::string& e2fsck) {
    verifyLength(image);
    std::string problem;
    if (auto volume = openIfSound(image, readOnly, problem)) return volume;
    if (readOnly)
        throw ToolError("the volume was not closed properly, and the image cannot be written to");
    // At first, what a crash leaves: a journal to replay, inodes without a name. This goes on to
    // look at everything only when the volume says that it is not sound. Then everything.
    for (const auto& options : {std::vector<std::string>{"-p"}, {"-f", "-p"}}) {
        Repair(image, signals, e2fsck).run(options);
        image.sync();
        if (auto volume = openIfSound(image, readOnly, problem)) return volume;
    }
    throw beyondRepair(problem);
}
