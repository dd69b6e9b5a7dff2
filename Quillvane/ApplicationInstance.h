#pragma once

#include "ApplicationArguments.h"

#include <QList>
#include <QObject>
#include <QUrl>
#include <QVariantMap>

#include <chrono>
#include <stdexcept>

class ApplicationService;

/// Sees to it that the user's session has one running instance of the application, which does what
/// every later start is asked to do. One body per system stands in the folder named after it.
///
/// For the main thread. To be made after the application object and before anything else that acts
/// when the application is about to quit, see `release`.
class ApplicationInstance : public QObject {
    Q_OBJECT

public:
    /// `patience` is how long a start waits until the running instance has answered.
    explicit ApplicationInstance(std::chrono::milliseconds patience = std::chrono::seconds(5));
    ~ApplicationInstance() override;

    /// What the desktop gave this start so that its window may come to the front: texts under
    /// "desktop-startup-id" and "activation-token", each of them optional. To be asked before the
    /// application object is made, which may take them out of the environment.
    static QVariantMap platformDataFromEnvironment();

    enum class Role { running, handedOver };
    /// Makes this process the running instance, which does itself what is asked here, and what
    /// others are asked as soon as its event loop runs; or hands everything to the instance that
    /// runs already, after which this process is to end. A system that cannot tell lets each start
    /// run by itself.
    /// Throws `ApplicationInstanceError` when the running instance does not answer.
    Role start(const ApplicationArguments& asked, const QVariantMap& platformData);

    /// From now on a start becomes an instance of its own. Done by itself, first of all, when the
    /// application is about to quit, for what else is done then may take its time.
    void release();

signals:
    /// Items are to be opened, given to this start or to another.
    void opened(const QList<QUrl>& items);
    /// A folder is to be offered for protection, likewise.
    void protectionAsked(const QUrl& folder);
    /// Another start, or the desktop, wants the window in front. `platformData` is as above.
    void activated(const QVariantMap& platformData);

private:
    // Not every system needs them.
    [[maybe_unused]] std::chrono::milliseconds patience_;
    /// A child, while this may be the running instance.
    [[maybe_unused]] ApplicationService* service_ = nullptr;
};

/// There is a running instance that items cannot be handed to; the text says what to do.
class ApplicationInstanceError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};
