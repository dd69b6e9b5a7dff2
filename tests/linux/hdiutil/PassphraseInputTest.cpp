#include "linux/hdiutil/PassphraseInput.h"
#include "linux/hdiutil/ToolError.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

// Reads the passphrase from a pipe that gets these pieces one after the other.
Secret readFrom(const std::vector<std::string>& pieces) {
    int ends[2] = {-1, -1};
    EXPECT_EQ(::pipe(ends), 0);
    std::thread writer([&] {
        for (const std::string& piece : pieces)
            EXPECT_EQ(::write(ends[1], piece.data(), piece.size()),
                      static_cast<ssize_t>(piece.size()));
        ::close(ends[1]);
    });
    struct Join {
        std::thread& thread;
        int fd;
        ~Join() {
            thread.join();
            ::close(fd);
        }
    } join{writer, ends[0]};
    return readPassphrase(ends[0]);
}

TEST(PassphraseInputTest, oneLine) {
    EXPECT_EQ(readFrom({"secret\n"}).text(), "secret");
    EXPECT_EQ(readFrom({"secret"}).text(), "secret");
    EXPECT_EQ(readFrom({"secret\nmore\n"}).text(), "secret");
    EXPECT_EQ(readFrom({"sec", "ret", "\n"}).text(), "secret");
    EXPECT_EQ(readFrom({"\n"}).text(), "");
    EXPECT_EQ(readFrom({}).text(), "");
}

TEST(PassphraseInputTest, everyOtherByteCounts) {
    const std::string text(" a\r\t\0\xff\xc3 ", 8);
    EXPECT_EQ(readFrom({text + "\n"}).text(), text);
}

TEST(PassphraseInputTest, longLines) {
    EXPECT_EQ(readFrom({std::string(8192, 'x') + "\n"}).size(), 8192U);
    EXPECT_EQ(readFrom({std::string(8192, 'x')}).size(), 8192U);
    EXPECT_THROW(readFrom({std::string(8193, 'x')}), ToolError);
}

TEST(PassphraseInputTest, failure) {
    EXPECT_THROW(readPassphrase(-1), std::system_error);
}

} // namespace
