#pragma once

#include <QObject>

#include <filesystem>
#include <memory>

/// What happens to the user's session and volumes, as signals on the main thread. One happening may
/// reach the program by several routes, so any signal may come more than once.
class SystemEvents : public QObject {
    Q_OBJECT

public:
    /// To be called before the application object of a program without a window is made, whose
    /// event loop need not be the system's own.
    static void prepareEventLoop();
    /// The events of the system that the program runs on. Needs a running application object; what
    /// the system does not offer (no bus, say) never comes, which is no error. Never waits.
    ///
    /// A session manager that tells the program to end does so through `QCoreApplication::quit`,
    /// after `poweringOff`.
    static std::unique_ptr<SystemEvents> ofThisSystem();

    /// To be called after each `poweringOff` as soon as the program has done what it must: a system
    /// that waits for the program need not wait any longer. Without effect at other times.
    virtual void readyForPowerOff() {}

signals:
    void screenLocked();
    /// The user logs out, or the computer is about to be switched off or restarted.
    void poweringOff();
    /// A volume that was mounted at this path is not mounted there any more.
    void volumeUnmounted(const std::filesystem::path& mountPath);
};
