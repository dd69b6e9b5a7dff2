#include "ControlsWindow.h"
#include "tests/support/TemporaryFolder.h"

#include <QDirIterator>
#include <QRegularExpression>

#include <cmath>
#include <filesystem>
#include <map>
#include <set>

namespace {

const std::set<std::string> names{"arrow.up.forward.app",
                                  "book.closed.fill",
                                  "checkmark",
                                  "checkmark.circle.fill",
                                  "checkmark.seal.fill",
                                  "chevron.down",
                                  "desktopcomputer",
                                  "doc.on.doc",
                                  "doc.text.fill",
                                  "eject.fill",
                                  "exclamationmark.shield.fill",
                                  "exclamationmark.triangle.fill",
                                  "eye",
                                  "eye.slash",
                                  "eye.trianglebadge.exclamationmark",
                                  "folder",
                                  "folder.badge.gearshape",
                                  "folder.badge.plus",
                                  "folder.fill",
                                  "hand.raised.fill",
                                  "info.circle",
                                  "key.fill",
                                  "key.horizontal.fill",
                                  "lock.fill",
                                  "lock.open",
                                  "lock.open.fill",
                                  "lock.shield",
                                  "lock.shield.fill",
                                  "pencil",
                                  "questionmark.circle",
                                  "square.and.arrow.down",
                                  "wand.and.stars",
                                  "xmark",
                                  "xmark.circle.fill",
                                  "xmark.shield.fill"};

QImage drawn(const std::string& name, int side, const QColor& color = Qt::white) {
    return SymbolProvider::draw(QString::fromStdString(name), color, QSize(side, side));
}

/// The share of the square that is covered, from 0 to 1.
double coverage(const QImage& image) {
    double sum = 0;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x) sum += qAlpha(image.pixel(x, y));
    return sum / 255 / (image.width() * image.height());
}

/// Every text that a file of QML gives as the name of a symbol.
std::set<std::string> namesUsedIn(const std::filesystem::path& file) {
    static const QRegularExpression property(R"(\b(?:systemImage|symbol|name)\s*:([^\n]*))");
    static const QRegularExpression literal(R"re("([a-z]+(?:\.[a-z]+)*)")re");
    std::set<std::string> used;
    auto properties = property.globalMatch(QString::fromStdString(readFile(file)));
    while (properties.hasNext()) {
        auto literals = literal.globalMatch(properties.next().captured(1));
        while (literals.hasNext()) used.insert(literals.next().captured(1).toStdString());
    }
    return used;
}

TEST(SymbolTest, everyNameIsDrawnAndNoOtherFileIsThere) {
    std::set<std::string> found;
    for (QDirIterator files(":/quillvane/symbols"); files.hasNext();) {
        files.next();
        found.insert(files.fileInfo().completeBaseName().toStdString());
    }
    EXPECT_EQ(found, names);
}

TEST(SymbolTest, everyNameThatTheWindowUsesIsKnown) {
    std::size_t used = 0;
    for (const auto& entry : std::filesystem::directory_iterator(QML_FOLDER)) {
        if (entry.path().extension() != ".qml") continue;
        for (const auto& name : namesUsedIn(entry.path())) {
            EXPECT_EQ(names.count(name), 1U) << name << " in " << entry.path();
            ++used;
        }
    }
    EXPECT_GT(used, 2U) << "the eye and the check mark at least";
}

TEST(SymbolTest, everySymbolIsAShapeOfItsOwnInTheColourAskedFor) {
    std::map<QByteArray, std::string> shapes;
    for (const auto& name : names) {
        const QImage image = drawn(name, 48, QColor(0x2F, 0xD9, 0x8A));
        ASSERT_FALSE(image.isNull()) << name;
        EXPECT_GT(coverage(image), 0.05) << name;
        EXPECT_LT(coverage(image), 0.75) << name;
        const QByteArray bytes(reinterpret_cast<const char*>(image.constBits()),
                               image.sizeInBytes());
        EXPECT_TRUE(shapes.try_emplace(bytes, name).second) << name << " is " << shapes[bytes];
        for (int y = 0; y < 48; ++y) {
            for (int x = 0; x < 48; ++x) {
                const QColor pixel = image.pixelColor(x, y);
                if (pixel.alpha() == 255) {
                    ASSERT_EQ(pixel, QColor(0x2F, 0xD9, 0x8A)) << name;
                }
            }
        }
    }
}

TEST(SymbolTest, nothingIsCutOffAtTheEdge) {
    for (const auto& name : names) {
        const QImage image = drawn(name, 96);
        for (int i = 0; i < 96; ++i)
            for (const auto& at : {QPoint(i, 0), QPoint(i, 95), QPoint(0, i), QPoint(95, i)})
                ASSERT_LT(qAlpha(image.pixel(at)), 128)
                    << name << " at " << at.x() << ' ' << at.y();
    }
}

TEST(SymbolTest, theProviderGivesExactlyTheSizeAskedFor) {
    SymbolProvider provider;
    for (const int side : {11, 16, 24, 32, 57}) {
        QSize size;
        const QImage image = provider.requestImage("lock.fill/2fd98a", &size, QSize(side, side));
        EXPECT_EQ(image.size(), QSize(side, side));
        EXPECT_EQ(size, QSize(side, side));
    }
    EXPECT_EQ(provider.requestImage("lock.fill/2fd98a", nullptr, QSize()).size(), QSize(24, 24));
}

TEST(SymbolTest, coloursMayBeTranslucent) {
    SymbolProvider provider;
    const QImage image = provider.requestImage("folder.fill/80ff0000", nullptr, QSize(24, 24));
    EXPECT_NEAR(image.pixelColor(12, 14).alpha(), 0x80, 1);
    EXPECT_EQ(image.pixelColor(12, 14).red(), 255);
}

TEST(SymbolTest, theProviderKnowsNoOtherNames) {
    SymbolProvider provider;
    for (const auto* id : {"nonsense/ffffff", "/ffffff", "lock.fill/colour", "lock.fill", ""})
        EXPECT_TRUE(provider.requestImage(id, nullptr, QSize(16, 16)).isNull()) << id;
}

TEST(SymbolTest, isDrawnForThePixelsOfTheScreen) {
    ControlsWindow window(R"(
        Symbol { objectName: "symbol"; name: "lock.fill"; color: Brand.accent; size: 15 })");
    auto* image = window.item("symbol").findChild<QQuickItem*>();
    if (image == nullptr) image = window.item("symbol").childItems().value(0);
    ASSERT_NE(image, nullptr);
    const double ratio = window.view().effectiveDevicePixelRatio();
    EXPECT_EQ(window.item("symbol").implicitWidth(), 15);
    EXPECT_EQ(image->property("status").toInt(), 1) << "ready";
    EXPECT_DOUBLE_EQ(image->width() * ratio, std::round(15 * ratio));
    EXPECT_DOUBLE_EQ(image->implicitWidth() * ratio, std::round(15 * ratio)) << "as drawn";
    EXPECT_DOUBLE_EQ(image->property("paintedWidth").toDouble(), image->width());
}

} // namespace
