#include "SessionManagerClient.h"

namespace {

constexpr const char* service = "org.gnome.SessionManager";
constexpr const char* managerPath = "/org/gnome/SessionManager";
constexpr const char* clientInterface = "org.gnome.SessionManager.ClientPrivate";
constexpr unsigned replySeconds = 25;

void ignoreReply(sd_bus_message*) {}

} // namespace

SessionManagerClient::SessionManagerClient(BusConnection& bus) : bus_(bus) {
    // For all clients, so that nothing is lost between our enrolment and its answer.
    bus_.onSignal("sender='org.gnome.SessionManager',"
                  "interface='org.gnome.SessionManager.ClientPrivate'",
                  [this](sd_bus_message* message) {
                      if (client_ == sd_bus_message_get_path(message)) handle(message);
                  });
    bus_.onStart(service, [this] { enrol(); });
    enrol();
}

SessionManagerClient::~SessionManagerClient() {
    // Best effort: the session manager also notices when a client's connection ends.
    if (!client_.empty())
        bus_.call({service, managerPath, service, "UnregisterClient"}, ignoreReply, replySeconds,
                  "o", client_.c_str());
}

void SessionManagerClient::enrol() {
    client_.clear();
    awaited_ = false;
    const auto onReply = [this](sd_bus_message* reply) {
        const char* client = nullptr;
        // A session manager that does not take us cannot tell us either; there are other routes.
        if (!isError(reply) && sd_bus_message_read(reply, "o", &client) > 0) client_ = client;
    };
    bus_.call({service, managerPath, service, "RegisterClient"}, onReply, replySeconds, "ss",
              "quillvane", "");
}

void SessionManagerClient::handle(sd_bus_message* message) {
    const auto is = [&](const char* name) {
        return sd_bus_message_is_signal(message, clientInterface, name) > 0;
    };
    if (is("QueryEndSession")) {
        respond();
    } else if (is("EndSession")) {
        awaited_ = true;
        emit loggingOut();
    } else if (is("CancelEndSession")) {
        awaited_ = false;
    } else if (is("Stop")) {
        emit loggingOut();
        emit stopped();
    }
}

void SessionManagerClient::readyForLogOut() {
    if (!awaited_) return;
    awaited_ = false;
    respond();
}

void SessionManagerClient::respond() {
    bus_.call({service, client_, clientInterface, "EndSessionResponse"}, ignoreReply, replySeconds,
              "bs", 1, "");
}
