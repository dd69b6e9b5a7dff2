#include "Quillvane/SecretText.h"
#include "Quillvane/FileDescriptor.h"
#include "tests/support/QtPrinting.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <fcntl.h>
#include <unistd.h>

namespace {

const QString text = QStringLiteral("pässwörd 写真 \U0001F600");

TEST(SecretText, BecomesItsUtf8Bytes) {
    EXPECT_EQ(secretOf(text).text(), "pässwörd 写真 \U0001F600");
}

TEST(SecretText, EmptyTextIsAnEmptySecret) {
    EXPECT_TRUE(secretOf({}).empty());
    EXPECT_TRUE(secretOf(QStringLiteral("")).empty());
    EXPECT_TRUE(textOf(Secret()).isEmpty());
}

TEST(SecretText, AddsAndDropsNothing) {
    const QString unusual = QString::fromUtf8("\uFEFF a\0\te\u0301 ", 10);
    EXPECT_EQ(secretOf(unusual).text(), unusual.toUtf8().toStdString());
    EXPECT_EQ(secretOf(QString(10000, QChar(u'€'))).size(), 30000U);
}

TEST(SecretText, ComesBackAsItWas) {
    EXPECT_EQ(textOf(secretOf(text)), text);
}

TEST(SecretText, WipedTextIsEmpty) {
    QString wiped = QStringLiteral("secret").repeated(2);
    wipeText(wiped);
    EXPECT_EQ(wiped, "");
    wipeText(wiped);
    EXPECT_EQ(wiped, "");
}

TEST(SecretText, WipingReachesWhoSharesTheCharacters) {
    QString wiped = QStringLiteral("secret").repeated(2);
    const QString shared = wiped;
    wipeText(wiped);
    EXPECT_EQ(wiped, "");
    EXPECT_EQ(shared, QString(12, QChar(u'\0')));
}

TEST(SecretText, ConstantsCanBeWiped) {
    QString wiped = QStringLiteral("constant");
    wipeText(wiped);
    EXPECT_EQ(wiped, "");
}

TEST(SecretText, WipingOverwritesTheCharacters) {
    const FileDescriptor memory(::open("/proc/self/mem", O_RDONLY | O_CLOEXEC));
    ASSERT_GE(memory.get(), 0);
    QString wiped(100, QChar(u'x'));
    const auto place = reinterpret_cast<std::uintptr_t>(wiped.constData());
    wipeText(wiped);
    // The system reads it for us: it is not the string's any more.
    std::array<char16_t, 100> left{};
    ASSERT_EQ(::pread(memory.get(), left.data(), sizeof left, static_cast<off_t>(place)),
              static_cast<ssize_t>(sizeof left));
    EXPECT_EQ(std::ranges::count(left, u'x'), 0);
}

} // namespace
