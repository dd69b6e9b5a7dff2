#include "Quillvane/ApplicationInstance.h"

// The system itself starts one instance and gives it all items by open-document events.

ApplicationInstance::ApplicationInstance(std::chrono::milliseconds patience)
    : patience_(patience) {}

ApplicationInstance::~ApplicationInstance() = default;

QVariantMap ApplicationInstance::platformDataFromEnvironment() {
    return {};
}

ApplicationInstance::Role ApplicationInstance::start(const ApplicationArguments& asked,
                                                     const QVariantMap&) {
    if (!asked.items.isEmpty()) emit opened(asked.items);
    if (!asked.folderToProtect.isEmpty()) emit protectionAsked(asked.folderToProtect);
    return Role::running;
}

void ApplicationInstance::release() {}
