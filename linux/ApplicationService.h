#pragma once

#include <QDBusAbstractAdaptor>
#include <QDBusMessage>
#include <QList>
#include <QStringList>
#include <QVariantMap>

class ApplicationInstance;

/// The running instance as the session bus shows it: the interface that the Desktop Entry
/// specification describes under "D-Bus Activation".
///
/// Whatever comes in is somebody's text: what is not as it should be is left out silently.
class ApplicationService : public QDBusAbstractAdaptor {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Application")

public:
    static const char* const name; ///< of the instance on the bus, the application's id
    static const char* const path; ///< of the instance's object
    static const char* const interface;
    static const char* const protectAction; ///< takes the URI of the folder to protect

    /// A child of `instance`, which emits what comes in.
    explicit ApplicationService(ApplicationInstance& instance);

    /// Answers as if nobody had the name, so that the caller tries anew: every call that waits and
    /// every one that is still to come.
    void refuse();

    /// What we understand of the platform data that a caller sent, or an environment.
    static QVariantMap understood(const QVariantMap& platformData);

    // The methods on the bus, under their names there.
    Q_SLOT void Activate(const QVariantMap& platform_data, const QDBusMessage& call);
    Q_SLOT void Open(const QStringList& uris, const QVariantMap& platform_data,
                     const QDBusMessage& call);
    /// Any action but `protectAction` just brings the window to the front.
    Q_SLOT void ActivateAction(const QString& action_name, const QVariantList& parameter,
                               const QVariantMap& platform_data, const QDBusMessage& call);

private:
    void activate(const QVariantMap& platformData) const;
    void answerLater(const QDBusMessage& call);
    void answerAll();
    void customEvent(QEvent* event) override;

    ApplicationInstance& instance_;
    QList<QDBusMessage> unanswered_;
    bool refusing_ = false;
};
