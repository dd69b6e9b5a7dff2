#pragma once

#include <QList>
#include <QObject>
#include <QUrl>
#include <QtQml/qqmlregistration.h>

/// What may be dropped on the window.
class DropRules : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_SINGLETON

public:
    using QObject::QObject;

    /// The first of the URLs that names a folder, or else, when folders are not asked for, anything
    /// with the extension "quillvane" in any letter case; empty when none does.
    Q_INVOKABLE static QUrl accepted(const QList<QUrl>& urls, bool isFolder);
};
