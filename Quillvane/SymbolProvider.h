#pragma once

#include <QColor>
#include <QImage>
#include <QQuickImageProvider>
#include <QSize>
#include <QString>

/// The program's symbols as images: "image://symbol/NAME/COLOR", the colour in hexadecimal digits
/// without their "#".
///
/// The drawings are the resources ":/quillvane/symbols/NAME.svg".
class SymbolProvider final : public QQuickImageProvider {
public:
    SymbolProvider();

    /// The symbol in exactly the size requested, or 24 x 24; null when there is no such symbol or
    /// colour. On any thread.
    QImage requestImage(const QString& id, QSize* size, const QSize& requestedSize) override;

    /// `size` in pixels; null when there is no such symbol.
    static QImage draw(const QString& name, const QColor& color, const QSize& size);
};
