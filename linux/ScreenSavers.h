#pragma once

#include "BusConnection.h"

#include <QObject>

/// Tells when a screen saver of the desktop covers the screen.
class ScreenSavers : public QObject {
    Q_OBJECT

public:
    /// `bus` is the session bus.
    explicit ScreenSavers(BusConnection& bus);

signals:
    /// Once for each name and object under which the desktop offers its screen saver.
    void activated();
};
