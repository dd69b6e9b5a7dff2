#include "ScratchImage.h"

#include "linux/MountTable.h"
#include "linux/hdiutil/ChildProgram.h"
#include "linux/hdiutil/PlaintextExport.h"
#include "linux/hdiutil/PlaintextFile.h"
#include "linux/hdiutil/VolumeFormatter.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Bytes = std::vector<std::byte>;

constexpr std::size_t blocks = 512;
constexpr std::size_t size = blocks * EncryptedImage::blockSize;

class PlaintextTest : public testing::Test {
protected:
    PlaintextTest() {
        Secret key(64);
        for (std::size_t i = 0; i < key.size(); ++i)
            key.writable()[i] = static_cast<std::uint8_t>(i);
        image = std::make_unique<EncryptedImage>(file.duplicate(), key,
                                                 EncryptedImage::Geometry{4096, size, 4096});
        // Holes are not zeros under encryption.
        image->write(0, model);
    }

    Bytes randomBytes(std::size_t length) {
        Bytes result(length);
        for (std::byte& byte : result) byte = static_cast<std::byte>(random());
        return result;
    }

    Bytes content() {
        Bytes result(size);
        image->read(0, result);
        return result;
    }

    // A random piece of the file, often at the edges of blocks.
    std::pair<std::size_t, std::size_t> piece() {
        const std::size_t offset = random() % size;
        const std::size_t length = 1 + random() % std::min<std::size_t>(size - offset, 3 * 4096);
        return {random() % 2 == 0 ? offset : offset / 4096 * 4096, length};
    }

    std::mt19937 random{1};
    ScratchImage file{4096 + size};
    std::unique_ptr<EncryptedImage> image;
    Bytes model = Bytes(size);
};

TEST_F(PlaintextTest, fileTakesAnyPiece) {
    PlaintextFile plain(*image);
    EXPECT_EQ(plain.size(), size);
    for (int i = 0; i < 300; ++i) {
        const auto [offset, length] = piece();
        const Bytes fresh = randomBytes(length);
        plain.write(offset, fresh);
        std::ranges::copy(fresh, model.begin() + static_cast<std::ptrdiff_t>(offset));
        const auto [from, count] = piece();
        const auto got = plain.read(from, count);
        ASSERT_EQ(got.size(), count);
        ASSERT_EQ(std::memcmp(got.data(), model.data() + from, count), 0);
    }
    EXPECT_EQ(content(), model);
}

TEST_F(PlaintextTest, fileHasAnEnd) {
    PlaintextFile plain(*image);
    EXPECT_EQ(plain.read(size, 10).size(), 0U);
    EXPECT_EQ(plain.read(size - 3, 10).size(), 3U);
    EXPECT_THROW(plain.write(size - 3, randomBytes(4)), std::system_error);
    EXPECT_THROW(plain.write(size + 1, {}), std::system_error);
    EXPECT_EQ(content(), model);
}

TEST_F(PlaintextTest, exportIsPrivateAndGoesAway) {
    std::filesystem::path path;
    {
        const PlaintextExport plaintext(*image);
        path = plaintext.file();
        struct stat status {};
        ASSERT_EQ(::stat(path.c_str(), &status), 0);
        EXPECT_EQ(status.st_size, static_cast<off_t>(size));
        EXPECT_EQ(status.st_mode & 0777U, 0600U);
        ASSERT_EQ(::stat(path.parent_path().parent_path().c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777U, 0700U);
        EXPECT_EQ(MountTable::current().at(path.parent_path())->type, MountTable::exportType);
    }
    EXPECT_FALSE(std::filesystem::exists(path.parent_path()));
    EXPECT_FALSE(MountTable::current().at(path.parent_path()));
}

TEST_F(PlaintextTest, exportReadsAndWrites) {
    {
        const PlaintextExport plaintext(*image);
        const int fd = ::open(plaintext.file().c_str(), O_RDWR | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        for (int i = 0; i < 50; ++i) {
            const auto [offset, length] = piece();
            const Bytes fresh = randomBytes(length);
            ASSERT_EQ(::pwrite(fd, fresh.data(), length, static_cast<off_t>(offset)),
                      static_cast<ssize_t>(length));
            std::ranges::copy(fresh, model.begin() + static_cast<std::ptrdiff_t>(offset));
        }
        Bytes back(size);
        ASSERT_EQ(::pread(fd, back.data(), size, 0), static_cast<ssize_t>(size));
        EXPECT_EQ(back, model);
        EXPECT_EQ(::fsync(fd), 0);
        EXPECT_EQ(::fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, 4096), -1);
        EXPECT_EQ(errno, EOPNOTSUPP);
        ::close(fd);
    }
    EXPECT_EQ(content(), model);
}

TEST_F(PlaintextTest, exportEndsEvenWhenInUse) {
    int fd = -1;
    {
        const PlaintextExport plaintext(*image);
        fd = ::open(plaintext.file().c_str(), O_RDONLY | O_CLOEXEC);
        ASSERT_GE(fd, 0);
    }
    char byte = 0;
    EXPECT_EQ(::pread(fd, &byte, 1, 0), -1);
    ::close(fd);
}

TEST_F(PlaintextTest, exportTellsErrors) {
    const PlaintextExport plaintext(*image);
    file.truncate(4096 + size / 2);
    const int fd = ::open(plaintext.file().c_str(), O_RDONLY | O_CLOEXEC);
    char byte = 0;
    EXPECT_EQ(::pread(fd, &byte, 1, static_cast<off_t>(size - 1)), -1);
    EXPECT_EQ(errno, EIO);
    ::close(fd);
}

TEST(VolumeFormatterTest, labels) {
    EXPECT_EQ(labelFor("Docs"), "Docs");
    EXPECT_EQ(labelFor("exactly sixteen!"), "exactly sixteen!");
    EXPECT_EQ(labelFor("exactly sixteen!!"), "exactly sixteen!");
    EXPECT_EQ(labelFor("fifteen bytes..ü"), "fifteen bytes..");
    EXPECT_EQ(labelFor("写真写真写真"), "写真写真写");
}

TEST(VolumeFormatterTest, aLittleMoreThanTheContent) {
    for (const std::uint64_t content : {1ULL, 1ULL << 20, 1ULL << 40}) {
        EXPECT_GE(payloadFor(content), content + (40ULL << 20));
        EXPECT_LE(payloadFor(content), content + content / 16 + (64ULL << 20));
        EXPECT_EQ(payloadFor(content) % 4096, 0U);
    }
}

TEST(ChildProgramTest, tellsStatusAndOutput) {
    const ProgramResult result = runProgram("/bin/sh", {"-c", "echo out; echo err >&2; exit 3"});
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(result.output, "out\nerr\n");
    EXPECT_EQ(runProgram("/bin/sh", {"-c", "kill -TERM $$"}).status, 128 + SIGTERM);
    EXPECT_THROW(runProgram("/nowhere/program", {}), std::system_error);
}

TEST(ChildProgramTest, givesNothingAway) {
    ::setenv("QUILLVANE_TEST_VARIABLE", "visible", 1);
    const ProgramResult result = runProgram("/bin/sh", {"-c", "cat; env; ls /proc/self/fd"});
    EXPECT_EQ(result.output.find("QUILLVANE_TEST_VARIABLE"), std::string::npos);
    EXPECT_NE(result.output.find("LC_ALL=C"), std::string::npos);
}

} // namespace
