#include "SymbolProvider.h"

#include <QByteArray>
#include <QFile>
#include <QPainter>
#include <QSvgRenderer>

namespace {

/// Empty when there is no such symbol.
QByteArray drawing(const QString& name) {
    QFile file(":/quillvane/symbols/" + name + ".svg");
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

SymbolProvider::SymbolProvider() : QQuickImageProvider(QQuickImageProvider::Image) {}

QImage SymbolProvider::requestImage(const QString& id, QSize* size, const QSize& requestedSize) {
    const auto slash = id.lastIndexOf('/');
    const QColor color('#' + id.mid(slash + 1));
    // A side left open comes as zero or less.
    const int side = std::max(requestedSize.width(), requestedSize.height());
    QImage image = draw(id.left(slash), color, side > 0 ? QSize(side, side) : QSize(24, 24));
    if (size != nullptr) *size = image.size();
    return image;
}

QImage SymbolProvider::draw(const QString& name, const QColor& color, const QSize& size) {
    QByteArray svg = drawing(name);
    if (svg.isEmpty() || !color.isValid()) return {};
    // The SVG that Qt draws has no colour from outside.
    svg.replace("currentColor", color.name().toLatin1());
    QSvgRenderer renderer(svg);
    QImage image(size, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setOpacity(color.alphaF());
    renderer.render(&painter);
    return image;
}
