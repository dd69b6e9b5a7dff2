#include "Quillvane/SystemEvents.h"

#include "BusConnection.h"
#include "LoginSessionLock.h"
#include "MountWatcher.h"
#include "ScreenSavers.h"
#include "SessionManagerClient.h"
#include "ShutdownDelay.h"

#include <QCoreApplication>

namespace {

/// All sources of this system together. What comes from a bus is passed on from the event loop, so
/// that a receiver may do whatever it likes: a bus's handlers may not.
class LinuxSystemEvents : public SystemEvents {
public:
    LinuxSystemEvents() {
        connect(&loginLock_, &LoginSessionLock::locked, this, &SystemEvents::screenLocked,
                Qt::QueuedConnection);
        connect(&screenSavers_, &ScreenSavers::activated, this, &SystemEvents::screenLocked,
                Qt::QueuedConnection);
        connect(&shutdownDelay_, &ShutdownDelay::poweringOff, this, &SystemEvents::poweringOff,
                Qt::QueuedConnection);
        connect(&sessionClient_, &SessionManagerClient::loggingOut, this,
                &SystemEvents::poweringOff, Qt::QueuedConnection);
        connect(&sessionClient_, &SessionManagerClient::stopped, this, &QCoreApplication::quit,
                Qt::QueuedConnection);
        connect(&mounts_, &MountWatcher::unmounted, this, &SystemEvents::volumeUnmounted);
    }

    void readyForPowerOff() override {
        shutdownDelay_.release();
        sessionClient_.readyForLogOut();
    }

private:
    BusConnection systemBus_{BusConnection::Kind::system};
    BusConnection sessionBus_{BusConnection::Kind::session};
    // The delay is asked for last: whoever sees it held knows that locks are listened to as well.
    LoginSessionLock loginLock_{systemBus_};
    ShutdownDelay shutdownDelay_{systemBus_};
    ScreenSavers screenSavers_{sessionBus_};
    SessionManagerClient sessionClient_{sessionBus_};
    MountWatcher mounts_;
};

} // namespace

void SystemEvents::prepareEventLoop() {} // what happens comes through files that Qt can watch

std::unique_ptr<SystemEvents> SystemEvents::ofThisSystem() {
    return std::make_unique<LinuxSystemEvents>();
}
