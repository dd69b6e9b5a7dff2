#include "qv/ResultOutput.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <memory>

namespace {

/// What a shell makes of the word.
std::string read(const std::string& word) {
    const std::string command = "printf %s " + word;
    const std::unique_ptr<FILE, int (*)(FILE*)> shell(::popen(command.c_str(), "r"), ::pclose);
    std::array<char, 200> text{};
    return {text.data(), std::fread(text.data(), 1, text.size(), shell.get())};
}

TEST(ShellWordTest, IsInPlainQuotesAsARule) {
    EXPECT_EQ(shellWord("/home/ada/Tax Papers"), "\"/home/ada/Tax Papers\"");
}

TEST(ShellWordTest, HoldsNoCommands) {
    for (const std::string name : {"a b", "it's", "$(echo x)", "`echo x`", "\"; echo x; \"",
                                   "back\\slash", "'; echo 'x", "!!", "$HOME", "*", "ä ö"})
        EXPECT_EQ(read(shellWord(name)), name);
}

} // namespace
