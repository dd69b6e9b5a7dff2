#include "Quillvane/AppDelegate.h"

#include "tests/support/TemporaryFolder.h"

#include <QDir>
#include <QFile>
#include <QGuiApplication>
#include <QIcon>
#include <QImage>
#include <QResource>

#include <gtest/gtest.h>

namespace {

/// Launches with a theme of its own that has no icon to begin with.
struct AppIconTest : ::testing::Test {
    AppIconTest() {
        const QString root = QString::fromStdString(folder.path().string());
        icons = root + "/theme/apps";
        EXPECT_TRUE(QDir().mkpath(icons));
        QFile index(root + "/theme/index.theme");
        EXPECT_TRUE(index.open(QIODevice::WriteOnly));
        index.write("[Icon Theme]\nName=theme\nDirectories=apps\n[apps]\nSize=64\nType=Scalable\n");
        index.close();
        QIcon::setThemeSearchPaths({root});
        QIcon::setFallbackSearchPaths({});
        QIcon::setThemeName("theme");
    }
    ~AppIconTest() override { QGuiApplication::setWindowIcon({}); }

    /// The colour of the icon that a launch sets; black when it sets none.
    static QColor launchedIcon() {
        QGuiApplication::setWindowIcon({});
        AppDelegate().applicationDidFinishLaunching();
        const QIcon icon = QGuiApplication::windowIcon();
        return icon.isNull() ? QColor(Qt::black) : icon.pixmap(16).toImage().pixelColor(8, 8);
    }
    QString themeFile() const { return icons + "/org.quillvane.Quillvane.png"; }
    void forgetTheme() { QIcon::setThemeName(QIcon::themeName()); } // it is read once

    TemporaryFolder folder;
    QString icons;
};

TEST_F(AppIconTest, LaunchGoesOnWithoutAnIcon) {
    EXPECT_EQ(launchedIcon(), QColor(Qt::black));
}

TEST_F(AppIconTest, ComesFromTheTheme) {
    QImage image(64, 64, QImage::Format_RGB32);
    image.fill(Qt::red);
    ASSERT_TRUE(image.save(themeFile()));
    forgetTheme();
    EXPECT_EQ(launchedIcon(), QColor(Qt::red));
}

TEST_F(AppIconTest, AnIconThatDoesNotLoadIsNone) {
    QFile file(themeFile());
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("not a picture");
    file.close();
    forgetTheme();
    EXPECT_EQ(launchedIcon(), QColor(Qt::black));
}

TEST_F(AppIconTest, ComesWithTheProgramOtherwise) {
    ASSERT_TRUE(QResource::registerResource(ICON_RESOURCE));
    EXPECT_EQ(launchedIcon(), QColor(Qt::white));
    EXPECT_TRUE(QResource::unregisterResource(ICON_RESOURCE));
}

} // namespace
