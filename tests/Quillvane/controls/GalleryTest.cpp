#include "ControlsWindow.h"

#include "ManualTasks.h"
#include "Quillvane/FileUrl.h"
#include "Quillvane/ItemDetail.h"
#include "tests/support/TemporaryFolder.h"

#include <QDragEnterEvent>
#include <QFile>
#include <QMimeData>
#include <QSet>

namespace {

QByteArray gallery() {
    QFile file(GALLERY);
    if (!file.open(QIODevice::ReadOnly)) throw std::runtime_error("no gallery");
    return file.readAll();
}

/// Draws all controls; the picture is kept in the build's folder for people to look at.
TEST(GalleryTest, isDrawnWithoutWarnings) {
    const TemporaryFolder directory;
    std::filesystem::create_directory(directory / "Holiday photographs");
    writeFile(directory / "Holiday photographs" / "a", std::string(12345, 'x'));
    writeFile(directory / "Letters.quillvane", std::string(1234567, 'x'));
    ManualTasks tasks;
    ItemDetail::setTasks(tasks);
    ControlsWindow window(gallery());
    QQuickItem& root = *window.view().rootObject();
    root.setProperty("folder", fileUrl(directory / "Holiday photographs"));
    root.setProperty("item", fileUrl(directory / "Letters.quillvane"));
    tasks.finish();
    window.item("focusedPrimary").forceActiveFocus(Qt::TabFocusReason);
    QMimeData data;
    data.setUrls({QUrl("file:///tmp")});
    const QPointF over = window.item("target").mapToScene(QPointF(20, 20));
    QDragEnterEvent drag(over.toPoint(), Qt::CopyAction, &data, Qt::LeftButton, {});
    QCoreApplication::sendEvent(&window.view(), &drag);
    EXPECT_TRUE(window.value("target", "targeted").toBool());

    const QImage picture = window.view().grabWindow();
    const double ratio = window.view().effectiveDevicePixelRatio();
    EXPECT_EQ(picture.size(), (QSizeF(900, 700) * ratio).toSize());
    QSet<QRgb> colours;
    for (int y = 0; y < picture.height(); ++y)
        for (int x = 0; x < picture.width(); ++x) colours.insert(picture.pixel(x, y));
    EXPECT_TRUE(colours.contains(QColor("#2FD98A").rgb()));
    EXPECT_GT(colours.size(), 100);
    EXPECT_TRUE(picture.save(QString("controls-gallery-%1x.png").arg(ratio)));
}

} // namespace
