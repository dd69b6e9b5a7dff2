#pragma once

#include <QEvent>
#include <QFontDatabase>
#include <QFontInfo>
#include <QGuiApplication>
#include <QObject>
#include <QString>
#include <QtQml/qqmlregistration.h>

/// The fonts that the user has set for all programs, followed while they change. For the main
/// thread.
class SystemFonts : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_SINGLETON
    /// Families of the font for texts and of the monospaced one.
    Q_PROPERTY(QString family READ family NOTIFY changed)
    Q_PROPERTY(QString fixed READ fixed NOTIFY changed)
    /// Size of texts in device-independent pixels.
    Q_PROPERTY(double pixelSize READ pixelSize NOTIFY changed)

public:
    explicit SystemFonts(QObject* parent = nullptr) : QObject(parent) {
        QCoreApplication::instance()->installEventFilter(this);
    }

    static QString family() { return QGuiApplication::font().family(); }
    static QString fixed() { return QFontDatabase::systemFont(QFontDatabase::FixedFont).family(); }
    static double pixelSize() { return QFontInfo(QGuiApplication::font()).pixelSize(); }

    bool eventFilter(QObject* watched, QEvent* event) override {
        if (event->type() == QEvent::ApplicationFontChange) emit changed();
        return QObject::eventFilter(watched, event);
    }

signals:
    void changed();
};
