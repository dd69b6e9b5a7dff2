#include "ShutdownDelay.h"

#include <fcntl.h>

namespace {

constexpr const char* service = "org.freedesktop.login1";
constexpr const char* manager = "org.freedesktop.login1.Manager";
constexpr unsigned replySeconds = 25;

} // namespace

ShutdownDelay::ShutdownDelay(BusConnection& bus) : bus_(bus) {
    bus_.onSignal("sender='org.freedesktop.login1',interface='org.freedesktop.login1.Manager',"
                  "member='PrepareForShutdown'",
                  [this](sd_bus_message* message) {
                      int start = 0;
                      if (sd_bus_message_read(message, "b", &start) > 0) prepare(start != 0);
                  });
    bus_.onStart(service, [this] { take(); });
    take();
}

void ShutdownDelay::prepare(bool start) {
    if (start) {
        stage_ = Stage::poweringOff;
        emit poweringOff();
    } else {
        stage_ = Stage::running;
        if (inhibitor_.get() < 0) take();
    }
}

void ShutdownDelay::release() {
    if (stage_ != Stage::poweringOff) return;
    stage_ = Stage::released;
    inhibitor_.reset();
}

void ShutdownDelay::take() {
    const auto onReply = [this](sd_bus_message* reply) {
        int fd = -1;
        // An error leaves us without the delay: the events come all the same.
        if (isError(reply) || sd_bus_message_read(reply, "h", &fd) <= 0) return;
        // One that comes after the program was ready is closed with the message.
        if (stage_ != Stage::released) inhibitor_ = FileDescriptor(::fcntl(fd, F_DUPFD_CLOEXEC, 3));
    };
    bus_.call({service, "/org/freedesktop/login1", manager, "Inhibit"}, onReply, replySeconds,
              "ssss", "shutdown", "Quillvane", "Closing the open Smart Folders", "delay");
}
