#pragma once

#include <QObject>
#include <QSocketNotifier>
#include <QTimer>

#include <functional>
#include <memory>
#include <string>
#include <systemd/sd-bus.h>

/// A connection to one of the two buses that is served by Qt's event loop and never waits, not even
/// to be made: a bus that hangs, dies or is missing costs nothing but the events it would have
/// sent. After it was lost it stays lost.
///
/// This is libsystemd's client and not Qt's, which waits for the bus when it connects and when a
/// service's signals are asked for, and which has a thread of its own.
///
/// For the main thread. Handlers are called out of the event loop, never while a function of this
/// class runs; they must neither destroy the connection nor run a loop of their own.
class BusConnection : public QObject {
    Q_OBJECT

public:
    enum class Kind { session, system };
    /// What a call goes to.
    struct Method {
        const char* service;
        std::string path;
        const char* interface;
        const char* name;
    };
    /// The message belongs to the caller.
    using Handler = std::function<void(sd_bus_message*)>;

    explicit BusConnection(Kind kind);
    ~BusConnection() override;
    BusConnection(const BusConnection&) = delete;
    BusConnection& operator=(const BusConnection&) = delete;

    /// Calls `handler` for each signal that fits `match`, a match rule without its type.
    void onSignal(const std::string& match, Handler handler);
    /// Calls `handler` each time when the service has started, not for one that runs already.
    void onStart(const std::string& service, std::function<void()> handler);

    /// Calls a method with arguments as `sd_bus_message_append` takes them. `onReply` gets the
    /// reply, or an error after `timeout` seconds at the latest. False, and no reply, when there is
    /// no bus (any more). A service that does not run is not started.
    template <typename... Arguments>
    bool call(const Method& method, Handler onReply, unsigned timeout, const char* types,
              Arguments... arguments) {
        const Message message = newCall(method);
        return message && sd_bus_message_append(message.get(), types, arguments...) >= 0 &&
               send(message.get(), std::move(onReply), timeout);
    }

private:
    struct MessageUnref {
        void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
    };
    struct BusUnref {
        void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); } // does not flush: may wait
    };
    using Message = std::unique_ptr<sd_bus_message, MessageUnref>;

    Message newCall(const Method& method);
    bool send(sd_bus_message* call, Handler onReply, unsigned timeout);
    /// Reads, writes and dispatches what can be without waiting.
    void process();
    /// Makes the loop wait for what the bus needs next.
    void watch();
    void lose();

    std::unique_ptr<sd_bus, BusUnref> bus_;
    std::unique_ptr<QSocketNotifier> readable_;
    std::unique_ptr<QSocketNotifier> writable_;
    QTimer timer_;
};

/// Whether the reply to a call is an error.
inline bool isError(sd_bus_message* reply) {
    return sd_bus_message_is_method_error(reply, nullptr) != 0;
}
