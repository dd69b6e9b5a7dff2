#include "linux/ditto/FileContents.h"

#include "linux/ditto/FileDescriptor.h"

#include <gtest/gtest.h>

#include <fcntl.h>

#include <cstdlib>
#include <functional>
#include <string>

namespace {

constexpr std::uint64_t mebibyte = 1U << 20;

FileDescriptor temporaryFile() {
    std::string path = testing::TempDir() + "ditto-contents-XXXXXX";
    FileDescriptor file(mkstemp(path.data()));
    EXPECT_TRUE(file.open());
    unlink(path.c_str());
    return file;
}

void put(const FileDescriptor& file, std::uint64_t offset, const std::string& data) {
    ASSERT_EQ(pwrite(file.get(), data.data(), data.size(), static_cast<off_t>(offset)),
              static_cast<ssize_t>(data.size()));
}

Status statusOf(const FileDescriptor& file) {
    return statusAt(Side::source, file.get(), "");
}

/// Data at the start, across a buffer's boundary and near the end, with holes between.
FileDescriptor holedFile() {
    FileDescriptor file = temporaryFile();
    put(file, 0, "start");
    put(file, 4 * mebibyte - 3, "across");
    put(file, 9 * mebibyte, std::string(3 * mebibyte, 'x'));
    EXPECT_EQ(ftruncate(file.get(), 20 * mebibyte + 1), 0);
    return file;
}

} // namespace

TEST(FileContents, CopiesDataAndHoles) {
    FileContents contents;
    const FileDescriptor source = holedFile();
    const FileDescriptor copy = temporaryFile();
    contents.copy(source.get(), copy.get(), statusOf(source));
    EXPECT_EQ(statusOf(copy).size, 20 * mebibyte + 1);
    EXPECT_EQ(statusOf(copy).blocks, statusOf(source).blocks);
    EXPECT_NO_THROW(contents.compare(source.get(), copy.get(), statusOf(source)));
}

TEST(FileContents, FindsADifferenceAnywhere) {
    FileContents contents;
    const FileDescriptor source = holedFile();
    // In data, in holes of the original, at the very end.
    for (const std::uint64_t where :
         {std::uint64_t{0}, mebibyte, 4 * mebibyte + 2, 12 * mebibyte - 1, 20 * mebibyte}) {
        const FileDescriptor copy = temporaryFile();
        contents.copy(source.get(), copy.get(), statusOf(source));
        put(copy, where, "!");
        EXPECT_THROW(contents.compare(source.get(), copy.get(), statusOf(source)), Difference)
            << where;
    }
}

TEST(FileContents, FindsAHoleWhereTheOriginalHasData) {
    FileContents contents;
    const FileDescriptor source = holedFile();
    const FileDescriptor copy = temporaryFile();
    ASSERT_EQ(ftruncate(copy.get(), 20 * mebibyte + 1), 0);
    EXPECT_THROW(contents.compare(source.get(), copy.get(), statusOf(source)), Difference);
}

TEST(FileContents, ZerosAndAHoleAreTheSame) {
    FileContents contents;
    const FileDescriptor source = temporaryFile();
    put(source, 0, std::string(2 * mebibyte, '\0'));
    const FileDescriptor copy = temporaryFile();
    ASSERT_EQ(ftruncate(copy.get(), 2 * mebibyte), 0);
    EXPECT_NO_THROW(contents.compare(source.get(), copy.get(), statusOf(source)));
}

TEST(FileContents, NoticesThatTheSourceBecameShorter) {
    FileContents contents;
    const FileDescriptor source = holedFile();
    const Status before = statusOf(source);
    ASSERT_EQ(ftruncate(source.get(), 10 * mebibyte), 0);
    const FileDescriptor copy = temporaryFile();
    Status asData = before;
    EXPECT_EQ(ftruncate(source.get(), 3), 0);
    asData.size = 5; // small enough to be read without a search for holes
    EXPECT_THROW(contents.copy(source.get(), copy.get(), asData), Difference);
}

TEST(FileContents, ReportsAFailedWrite) {
    FileContents contents;
    const FileDescriptor source = holedFile();
    const FileDescriptor full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    ASSERT_TRUE(full.open());
    try {
        contents.copy(source.get(), full.get(), statusOf(source));
        FAIL() << "nothing was thrown";
    } catch (const FileError& error) {
        EXPECT_EQ(error.code().value(), ENOSPC);
        EXPECT_TRUE(error.endsCopy());
    }
}
