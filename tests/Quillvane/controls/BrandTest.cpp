#include "ControlsWindow.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr auto probe = R"(
    Item {
        property var palette: [Brand.bg, Brand.surface, Brand.field, Brand.border, Brand.text,
                               Brand.textDim, Brand.accent, Brand.error]
        property int sidebar: Brand.size(198)
        property int body: Brand.bodySize
    })";

double luminance(const QColor& color) {
    const auto linear = [](double c) {
        return c <= 0.03928 ? c / 12.92 : std::pow((c + 0.055) / 1.055, 2.4);
    };
    return 0.2126 * linear(color.redF()) + 0.7152 * linear(color.greenF()) +
           0.0722 * linear(color.blueF());
}

double contrast(const QColor& a, const QColor& b) {
    const auto [dark, light] = std::minmax({luminance(a), luminance(b)});
    return (light + 0.05) / (dark + 0.05);
}

class FontSize {
public:
    explicit FontSize(int pixels) {
        QFont font = previous_;
        font.setPixelSize(pixels);
        QGuiApplication::setFont(font);
    }
    ~FontSize() { QGuiApplication::setFont(previous_); }
    FontSize(const FontSize&) = delete;
    FontSize& operator=(const FontSize&) = delete;

private:
    QFont previous_ = QGuiApplication::font();
};

TEST(BrandTest, hasThePalette) {
    ControlsWindow window(probe);
    const QVariantList palette = window.view().rootObject()->property("palette").toList();
    const QList<QColor> expected{{14, 16, 23},    {23, 26, 36},    {15, 19, 28},   {38, 43, 58},
                                 {233, 236, 245}, {154, 161, 184}, {47, 217, 138}, {255, 107, 107}};
    ASSERT_EQ(palette.size(), expected.size());
    for (qsizetype i = 0; i < palette.size(); ++i)
        EXPECT_EQ(palette[i].value<QColor>(), expected[i]) << i;
}

TEST(BrandTest, textsAreLegibleOnEveryGround) {
    ControlsWindow window(probe);
    const QVariantList palette = window.view().rootObject()->property("palette").toList();
    for (const int ground : {0, 1, 2})
        for (const int text : {4, 5, 6, 7})
            EXPECT_GE(contrast(palette[ground].value<QColor>(), palette[text].value<QColor>()), 4.5)
                << text << " on " << ground;
    EXPECT_GE(contrast(palette[6].value<QColor>(), palette[0].value<QColor>()), 4.5)
        << "the title of a primary button";
}

TEST(BrandTest, measuresAreThoseGivenAtTheNominalFont) {
    const FontSize nominal(13);
    ControlsWindow window(probe);
    EXPECT_EQ(window.rootNumber("sidebar"), 198);
    EXPECT_EQ(window.rootNumber("body"), 13);
}

TEST(BrandTest, measuresGrowWithTheSystemsFontWhileTheWindowIsOpen) {
    const FontSize nominal(13);
    ControlsWindow window(probe);
    const FontSize large(26);
    EXPECT_TRUE(QTest::qWaitFor([&] { return window.rootNumber("sidebar") == 396; }));
    EXPECT_EQ(window.rootNumber("body"), 26);
}

TEST(BrandTest, measuresNeverShrink) {
    const FontSize small(9);
    ControlsWindow window(probe);
    EXPECT_EQ(window.rootNumber("sidebar"), 198);
}

} // namespace
