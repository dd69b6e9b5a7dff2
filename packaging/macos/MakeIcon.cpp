// make-icon DRAWING ICON: makes an icon of macOS (.icns) out of an SVG drawing.
//
// Such a file is a list of entries, each with a code of four letters that stands for a size, its
// length, and the picture as PNG; all numbers are big-endian and count themselves.

#include <QBuffer>
#include <QByteArray>
#include <QImage>
#include <QPainter>
#include <QSaveFile>
#include <QSvgRenderer>
#include <QtEndian>

#include <array>
#include <cstdio>

namespace {

struct Size {
    const char* code;
    int pixels;
};

/// From 16 points at twice the pixels up to 512 at twice the pixels. The system makes those of 16
/// and 32 pixels out of the next: their codes stand for an older format.
constexpr std::array<Size, 8> sizes{{{"ic11", 32},
                                     {"ic12", 64},
                                     {"ic07", 128},
                                     {"ic13", 256},
                                     {"ic08", 256},
                                     {"ic14", 512},
                                     {"ic09", 512},
                                     {"ic10", 1024}}};

QByteArray entry(const char* code, const QByteArray& contents) {
    const quint32 length = qToBigEndian(static_cast<quint32>(contents.size() + 8));
    return QByteArray(code, 4) + QByteArray(reinterpret_cast<const char*>(&length), sizeof length) +
           contents;
}

QByteArray picture(QSvgRenderer& drawing, int pixels) {
    QImage image(pixels, pixels, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    drawing.render(&painter);
    painter.end();
    QBuffer png;
    png.open(QIODevice::WriteOnly);
    if (!image.save(&png, "PNG")) return {};
    return png.data();
}

} // namespace

int main(int argc, char* argv[]) {
    if (argc != 3) {
        static_cast<void>(std::fprintf(stderr, "usage: make-icon DRAWING ICON\n"));
        return 2;
    }
    QSvgRenderer drawing(QString::fromLocal8Bit(argv[1]));
    if (!drawing.isValid()) {
        static_cast<void>(std::fprintf(stderr, "%s is no drawing\n", argv[1]));
        return 1;
    }
    QByteArray entries;
    for (const Size& size : sizes) entries += entry(size.code, picture(drawing, size.pixels));
    const QByteArray icon = entry("icns", entries);
    QSaveFile file(QString::fromLocal8Bit(argv[2]));
    if (!file.open(QIODevice::WriteOnly) || file.write(icon) != icon.size() || !file.commit()) {
        static_cast<void>(std::fprintf(stderr, "%s: %s\n", argv[2],
                                       file.errorString().toLocal8Bit().constData()));
        return 1;
    }
    return 0;
}
