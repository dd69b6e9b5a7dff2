#pragma once

#include "BusConnection.h"

#include <QObject>

#include <string>

/// Tells when a session of our user is locked, by what the login manager says of its sessions.
class LoginSessionLock : public QObject {
    Q_OBJECT

public:
    /// `bus`, the system bus, must outlive the object.
    explicit LoginSessionLock(BusConnection& bus);

signals:
    /// One lock may be told twice: when it is asked for and when it is done.
    void locked();

private:
    void sessionLocked(const std::string& session);

    BusConnection& bus_;
};
