#include "SecretClipboard.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QMimeData>

void SecretClipboard::copy(const QString& text) {
    auto* const data = new QMimeData;                      // the clipboard's from here on
    data->setText(QString(text.constData(), text.size())); // characters of its own
    data->setData(QStringLiteral("x-kde-passwordManagerHint"), "secret");
    data->setData(QStringLiteral("org.nspasteboard.ConcealedType"), "");
    QGuiApplication::clipboard()->setMimeData(data);
}
