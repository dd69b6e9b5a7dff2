#include "Quillvane/ApplicationInstance.h"

#include "linux/ApplicationService.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDeadlineTimer>
#include <QStringList>
#include <QVariantList>

#include <utility>

// The bus gives the name to one process at a time, which settles every race between two starts: the
// one that does not get it hands over to the one that did. The object is there before the name is,
// and what comes in waits for the event loop, so that no call is lost.

namespace {

/// Asks the bus itself. Not by `QDBusConnection::interface`, which would wait for long when the bus
/// does not answer, and keep a program that quits from what is urgent then.
QDBusMessage askBus(const QDBusConnection& bus, const char* method, const QVariantList& arguments) {
    constexpr int milliseconds = 2000;
    QDBusMessage call = QDBusMessage::createMethodCall(
        "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", method);
    call.setArguments(arguments);
    return bus.call(call, QDBus::Block, milliseconds);
}

/// Asks for the name. False when another process has it; the bus may also be unable to tell.
bool mayRun(const QDBusConnection& bus) {
    constexpr uint doNotQueue = 4;
    constexpr uint exists = 3;
    const QDBusMessage answer =
        askBus(bus, "RequestName", {QString(ApplicationService::name), doNotQueue});
    return answer.arguments().value(0).toUInt() != exists;
}

QString uriOf(const QUrl& file) {
    return QString::fromLatin1(file.toEncoded());
}

/// The method of the running instance for what a start is asked to do, with its arguments but for
/// the platform data.
std::pair<const char*, QVariantList> methodFor(const ApplicationArguments& asked) {
    if (!asked.folderToProtect.isEmpty()) {
        const QVariantList parameter{uriOf(asked.folderToProtect)};
        return {"ActivateAction",
                QVariantList{QString(ApplicationService::protectAction), QVariant(parameter)}};
    }
    if (asked.items.isEmpty()) return {"Activate", {}};
    QStringList uris;
    for (const QUrl& item : asked.items) uris.append(uriOf(item));
    return {"Open", QVariantList{uris}};
}

/// The call that another start hands to the running instance.
QDBusMessage handOverCall(const ApplicationArguments& asked, const QVariantMap& platformData) {
    const auto [method, arguments] = methodFor(asked);
    QDBusMessage call = QDBusMessage::createMethodCall(
        ApplicationService::name, ApplicationService::path, ApplicationService::interface, method);
    call.setArguments(arguments);
    call << platformData;
    // If the instance has gone it is for us to take its place, not for the bus to start another.
    call.setAutoStartService(false);
    return call;
}

} // namespace

ApplicationInstance::ApplicationInstance(std::chrono::milliseconds patience) : patience_(patience) {
    connect(QCoreApplication::instance(), &QCoreApplication::aboutToQuit, this,
            &ApplicationInstance::release);
}

ApplicationInstance::~ApplicationInstance() {
    release();
}

QVariantMap ApplicationInstance::platformDataFromEnvironment() {
    return ApplicationService::understood(
        {{"desktop-startup-id", qEnvironmentVariable("DESKTOP_STARTUP_ID")},
         {"activation-token", qEnvironmentVariable("XDG_ACTIVATION_TOKEN")}});
}

ApplicationInstance::Role ApplicationInstance::start(const ApplicationArguments& asked,
                                                     const QVariantMap& platformData) {
    QDBusConnection bus = QDBusConnection::sessionBus();
    service_ = new ApplicationService(*this);
    bus.registerObject(ApplicationService::path, this, QDBusConnection::ExportAdaptors);

    const QDeadlineTimer deadline(patience_);
    constexpr int attempts = 3; // the instance may vanish, and another start take its place
    for (int attempt = 1; !mayRun(bus); ++attempt) {
        // Timers may go off 5 % early.
        if (attempt == attempts || deadline.remainingTime() < patience_.count() / 10)
            throw ApplicationInstanceError("Quillvane is already running but does not answer. End "
                                           "it, or log out and in again, then try once more.");
        const QDBusMessage answer = bus.call(handOverCall(asked, platformData), QDBus::Block,
                                             static_cast<int>(deadline.remainingTime()));
        if (answer.type() == QDBusMessage::ReplyMessage) return Role::handedOver;
    }
    if (!asked.items.isEmpty()) emit opened(asked.items);
    if (!asked.folderToProtect.isEmpty()) emit protectionAsked(asked.folderToProtect);
    return Role::running;
}

void ApplicationInstance::release() {
    if (!service_) return;
    const QDBusConnection bus = QDBusConnection::sessionBus();
    askBus(bus, "ReleaseName", {QString(ApplicationService::name)});
    service_->refuse(); // the calls that came before that
    service_ = nullptr;
}
