#include "LoginSessionLock.h"

#include <cstdint>
#include <cstring>
#include <optional>
#include <unistd.h>

namespace {

constexpr unsigned replySeconds = 2;

// Whether the message, a change of properties, sets LockedHint to true.
bool setsLockedHint(sd_bus_message* message) {
    if (sd_bus_message_skip(message, "s") < 0 ||
        sd_bus_message_enter_container(message, 'a', "{sv}") < 0)
        return false;
    while (sd_bus_message_enter_container(message, 'e', "sv") > 0) {
        const char* name = nullptr;
        if (sd_bus_message_read(message, "s", &name) <= 0) return false;
        int value = 0;
        if (std::strcmp(name, "LockedHint") == 0)
            return sd_bus_message_read(message, "v", "b", &value) > 0 && value != 0;
        if (sd_bus_message_skip(message, "v") < 0 || sd_bus_message_exit_container(message) < 0)
            return false;
    }
    return false;
}

// The reply is a variant of a user's number and object.
std::optional<std::uint32_t> userOf(sd_bus_message* reply) {
    std::uint32_t user = 0;
    if (isError(reply) || sd_bus_message_read(reply, "v", "(uo)", &user, nullptr) <= 0)
        return std::nullopt;
    return user;
}

} // namespace

LoginSessionLock::LoginSessionLock(BusConnection& bus) : bus_(bus) {
    bus_.onSignal(
        "sender='org.freedesktop.login1',interface='org.freedesktop.login1.Session',"
        "member='Lock'",
        [this](sd_bus_message* message) { sessionLocked(sd_bus_message_get_path(message)); });
    bus_.onSignal("sender='org.freedesktop.login1',interface='org.freedesktop.DBus.Properties',"
                  "member='PropertiesChanged',arg0='org.freedesktop.login1.Session'",
                  [this](sd_bus_message* message) {
                      if (setsLockedHint(message)) sessionLocked(sd_bus_message_get_path(message));
                  });
}

void LoginSessionLock::sessionLocked(const std::string& session) {
    // A session of nobody we know counts as ours: to close folders needlessly does no harm, to
    // leave them open does.
    const auto onReply = [this](sd_bus_message* reply) {
        const auto user = userOf(reply);
        if (!user || *user == ::getuid()) emit locked();
    };
    if (!bus_.call({"org.freedesktop.login1", session, "org.freedesktop.DBus.Properties", "Get"},
                   onReply, replySeconds, "ss", "org.freedesktop.login1.Session", "User"))
        emit locked();
}
