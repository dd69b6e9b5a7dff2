#include "BusConnection.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <limits>
#include <poll.h>
#include <utility>

namespace {

using Handler = BusConnection::Handler;

constexpr std::uint64_t microsecondsPerSecond = 1'000'000;
constexpr std::uint64_t microsecondsPerMillisecond = 1'000;

// A signal of a service goes to all. One that is for us alone may be anybody's: the library does
// not know the names of who sent it, and relies on the bus, which applies no rule to such.
int onSignalMessage(sd_bus_message* message, void* handler, sd_bus_error*) {
    if (sd_bus_message_get_destination(message) == nullptr)
        (*static_cast<Handler*>(handler))(message);
    return 0;
}

int onMessage(sd_bus_message* message, void* handler, sd_bus_error*) {
    (*static_cast<Handler*>(handler))(message);
    return 0;
}

// Without it the library would give up the whole connection when the bus refuses a rule.
int onRuleAnswered(sd_bus_message*, void*, sd_bus_error*) {
    return 0;
}

void destroyHandler(void* handler) {
    delete static_cast<Handler*>(handler);
}

// Leaves the slot, and with it the handler, to the connection.
void handOver(sd_bus_slot* slot, std::unique_ptr<Handler> handler) {
    sd_bus_slot_set_destroy_callback(slot, destroyHandler);
    static_cast<void>(handler.release());
    sd_bus_slot_set_floating(slot, 1);
    sd_bus_slot_unref(slot);
}

std::uint64_t monotonicMicroseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * microsecondsPerSecond +
           static_cast<std::uint64_t>(now.tv_nsec) / 1'000;
}

std::chrono::milliseconds until(std::uint64_t moment) {
    const std::uint64_t now = monotonicMicroseconds();
    if (moment <= now) return std::chrono::milliseconds(0);
    const std::uint64_t left = (moment - now) / microsecondsPerMillisecond + 1;
    return std::chrono::milliseconds(
        std::min<std::uint64_t>(left, std::numeric_limits<int>::max()));
}

} // namespace

BusConnection::BusConnection(Kind kind) {
    sd_bus* bus = nullptr;
    const int result = kind == Kind::session ? sd_bus_open_user(&bus) : sd_bus_open_system(&bus);
    if (result < 0) return; // no such bus
    bus_.reset(bus);
    timer_.setSingleShot(true);
    connect(&timer_, &QTimer::timeout, this, &BusConnection::process);
    watch();
}

BusConnection::~BusConnection() = default;

void BusConnection::onSignal(const std::string& match, Handler handler) {
    if (!bus_) return;
    auto kept = std::make_unique<Handler>(std::move(handler));
    sd_bus_slot* slot = nullptr;
    if (sd_bus_add_match_async(bus_.get(), &slot, ("type='signal'," + match).c_str(),
                               onSignalMessage, onRuleAnswered, kept.get()) < 0)
        return;
    handOver(slot, std::move(kept));
    watch();
}

void BusConnection::onStart(const std::string& service, std::function<void()> handler) {
    onSignal("sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
             "member='NameOwnerChanged',arg0='" +
                 service + "'",
             [handler = std::move(handler)](sd_bus_message* message) {
                 const char* newOwner = nullptr;
                 if (sd_bus_message_read(message, "sss", nullptr, nullptr, &newOwner) > 0 &&
                     *newOwner != '\0')
                     handler();
             });
}

BusConnection::Message BusConnection::newCall(const Method& method) {
    sd_bus_message* message = nullptr;
    if (!bus_ ||
        sd_bus_message_new_method_call(bus_.get(), &message, method.service, method.path.c_str(),
                                       method.interface, method.name) < 0)
        return nullptr;
    sd_bus_message_set_auto_start(message, 0);
    return Message(message);
}

bool BusConnection::send(sd_bus_message* call, Handler onReply, unsigned timeout) {
    auto kept = std::make_unique<Handler>(std::move(onReply));
    sd_bus_slot* slot = nullptr;
    if (sd_bus_call_async(bus_.get(), &slot, call, onMessage, kept.get(),
                          timeout * microsecondsPerSecond) < 0)
        return false;
    handOver(slot, std::move(kept));
    watch();
    return true;
}

void BusConnection::process() {
    // One bus that talks without end must not keep the loop from everything else.
    for (int round = 0; bus_ && round < 64; ++round) {
        const int result = sd_bus_process(bus_.get(), nullptr);
        if (result < 0) return lose();
        if (result == 0) break;
    }
    if (bus_) watch();
}

void BusConnection::watch() {
    const int fd = sd_bus_get_fd(bus_.get());
    const int events = sd_bus_get_events(bus_.get());
    if (fd < 0 || events < 0) return lose();
    // Another one when the first of several addresses did not work.
    if (!readable_ || readable_->socket() != fd) {
        readable_ = std::make_unique<QSocketNotifier>(fd, QSocketNotifier::Read);
        writable_ = std::make_unique<QSocketNotifier>(fd, QSocketNotifier::Write);
        connect(readable_.get(), &QSocketNotifier::activated, this, &BusConnection::process);
        connect(writable_.get(), &QSocketNotifier::activated, this, &BusConnection::process);
    }
    readable_->setEnabled((events & POLLIN) != 0);
    writable_->setEnabled((events & POLLOUT) != 0);
    std::uint64_t moment = 0;
    if (sd_bus_get_timeout(bus_.get(), &moment) < 0) return lose();
    if (moment == std::numeric_limits<std::uint64_t>::max())
        timer_.stop();
    else
        timer_.start(until(moment));
}

void BusConnection::lose() {
    timer_.stop();
    // Not destroyed: one of them may be calling this.
    for (QSocketNotifier* notifier : {readable_.get(), writable_.get()}) {
        if (notifier) notifier->setEnabled(false);
    }
    bus_.reset();
}
