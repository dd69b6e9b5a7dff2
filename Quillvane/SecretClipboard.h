#pragma once

#include <QObject>
#include <QString>
#include <QtQml/qqmlregistration.h>

/// The way of secrets onto the clipboard. For the main thread.
class SecretClipboard : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_SINGLETON

public:
    using QObject::QObject;

    /// Puts `text` there, marked for programs that keep a history of the clipboard. It outlives the
    /// wiping of the text that it was copied from.
    Q_INVOKABLE static void copy(const QString& text);
};
