#pragma once

#include "BusConnection.h"

#include <QObject>

#include <string>

/// The program as a client of the desktop's session manager, which asks its clients before the user
/// is logged out, and waits for them.
class SessionManagerClient : public QObject {
    Q_OBJECT

public:
    /// `bus`, the session bus, must outlive the object.
    explicit SessionManagerClient(BusConnection& bus);
    ~SessionManagerClient() override;
    SessionManagerClient(const SessionManagerClient&) = delete;
    SessionManagerClient& operator=(const SessionManagerClient&) = delete;

    /// After `loggingOut`: the session manager need not wait any longer.
    void readyForLogOut();

signals:
    void loggingOut();
    /// The program is to end now. Comes after `loggingOut`.
    void stopped();

private:
    void enrol();
    void handle(sd_bus_message* message);
    void respond();

    BusConnection& bus_;
    /// Our object at the session manager; empty as long as it does not know us.
    std::string client_;
    bool awaited_ = false;
};
