#include "linux/ApplicationService.h"

#include "Quillvane/ApplicationInstance.h"
#include "Quillvane/FileUrl.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusError>
#include <QEvent>

#include <utility>

const char* const ApplicationService::name = "org.quillvane.Quillvane";
const char* const ApplicationService::path = "/org/quillvane/Quillvane";
const char* const ApplicationService::interface = "org.freedesktop.Application";
const char* const ApplicationService::protectAction = "protect";

namespace {

/// The URL of a local file; empty when the text is none.
QUrl localFile(const QString& uri) {
    const QUrl url = QUrl::fromEncoded(uri.toUtf8(), QUrl::StrictMode);
    return filePath(url).empty() ? QUrl() : url;
}

} // namespace

ApplicationService::ApplicationService(ApplicationInstance& instance)
    : QDBusAbstractAdaptor(&instance), instance_(instance) {}

QVariantMap ApplicationService::understood(const QVariantMap& platformData) {
    // They go into our environment later, where something huge would keep us from starting tools.
    constexpr qsizetype longest = 1024;
    QVariantMap result;
    for (const char* key : {"desktop-startup-id", "activation-token"}) {
        const QVariant value = platformData.value(key);
        if (value.typeId() != QMetaType::QString) continue;
        const QString text = value.toString();
        if (!text.isEmpty() && text.size() <= longest) result.insert(key, text);
    }
    return result;
}

void ApplicationService::Activate(const QVariantMap& platform_data, const QDBusMessage& call) {
    activate(platform_data);
    answerLater(call);
}

void ApplicationService::Open(const QStringList& uris, const QVariantMap& platform_data,
                              const QDBusMessage& call) {
    QList<QUrl> items;
    for (const QString& uri : uris) {
        const QUrl item = localFile(uri);
        if (!item.isEmpty()) items.append(item);
    }
    if (!refusing_ && !items.isEmpty()) emit instance_.opened(items);
    activate(platform_data);
    answerLater(call);
}

void ApplicationService::ActivateAction(const QString& action_name, const QVariantList& parameter,
                                        const QVariantMap& platform_data,
                                        const QDBusMessage& call) {
    if (action_name == protectAction && parameter.size() == 1) {
        const bool isText = parameter.first().typeId() == QMetaType::QString;
        const QUrl folder = isText ? localFile(parameter.first().toString()) : QUrl();
        if (!refusing_ && !folder.isEmpty()) emit instance_.protectionAsked(folder);
    }
    Activate(platform_data, call);
}

void ApplicationService::activate(const QVariantMap& platformData) const {
    if (!refusing_) emit instance_.activated(understood(platformData));
}

void ApplicationService::answerLater(const QDBusMessage& call) {
    // What the signals have posted comes first. If the application quits before that, the caller
    // hears of it and opens its items elsewhere.
    call.setDelayedReply(true);
    if (unanswered_.isEmpty()) QCoreApplication::postEvent(this, new QEvent(QEvent::User));
    unanswered_.append(call);
}

void ApplicationService::customEvent(QEvent*) {
    answerAll();
}

void ApplicationService::answerAll() {
    for (const QDBusMessage& call : std::exchange(unanswered_, {})) {
        if (!call.isReplyRequired()) continue;
        QDBusConnection::sessionBus().send(
            refusing_ ? call.createErrorReply(QDBusError::ServiceUnknown, "Quillvane is quitting.")
                      : call.createReply());
    }
}

void ApplicationService::refuse() {
    refusing_ = true;
    QCoreApplication::sendPostedEvents(&instance_); // the calls that came in
    answerAll();
}
