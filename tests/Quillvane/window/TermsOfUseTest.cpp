#include "Quillvane/TermsOfUse.h"
#include "tests/support/QtPrinting.h"
#include "tests/support/TemporaryFolder.h"

#include <QFile>
#include <QSignalSpy>

#include <gtest/gtest.h>

namespace {

const QString key = QStringLiteral("quillvane.acceptedTermsVersion");

class TermsOfUseTest : public testing::Test {
protected:
    TemporaryFolder folder;
    QString file = QString::fromStdString((folder / "preferences.conf").string());
    QSettings preferences{file, QSettings::IniFormat};
};

TEST_F(TermsOfUseTest, AreNotAcceptedAtFirst) {
    EXPECT_FALSE(TermsOfUse(preferences).accepted());
}

TEST_F(TermsOfUseTest, OnlyThePresentVersionCounts) {
    for (const char* other : {"", "1", "3", "02", "2 ", "2.0", "22", "true"}) {
        preferences.setValue(key, other);
        EXPECT_FALSE(TermsOfUse(preferences).accepted()) << '"' << other << '"';
    }
    preferences.setValue(key, "2");
    EXPECT_TRUE(TermsOfUse(preferences).accepted());
}

TEST_F(TermsOfUseTest, AcceptingTellsTheWindowAndLasts) {
    preferences.setValue(key, "1");
    TermsOfUse terms(preferences);
    const QSignalSpy told(&terms, &TermsOfUse::acceptedChanged);
    terms.accept();
    EXPECT_TRUE(terms.accepted());
    EXPECT_EQ(told.count(), 1);

    const QString copy = file + ".copy"; // what another process sees: Qt shares open files
    ASSERT_TRUE(QFile::copy(file, copy));
    QSettings later(copy, QSettings::IniFormat);
    EXPECT_EQ(later.value(key).toString(), "2");
    EXPECT_TRUE(TermsOfUse(later).accepted());
}

TEST_F(TermsOfUseTest, OtherPreferencesStay) {
    preferences.setValue("other", "value");
    TermsOfUse(preferences).accept();
    EXPECT_EQ(preferences.value("other").toString(), "value");
}

TEST_F(TermsOfUseTest, TheirAddressIsAPageOnTheWeb) {
    const QUrl address = TermsOfUse(preferences).address();
    EXPECT_TRUE(address.isValid());
    EXPECT_EQ(address.scheme(), "https");
    EXPECT_FALSE(address.host().isEmpty());
}

} // namespace
