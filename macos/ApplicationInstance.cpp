#include "Quillvane/ApplicationInstance.h"

// The system itself starts one instance and gives it all items by open-document events.

ApplicationInstance::ApplicationInstance(std::chrono::milliseconds patience)
    : patience_(patience) {}

ApplicationInstance::~ApplicationInstance() = default;

QVariantMap ApplicationInstance::platformDataFromEnvironment() {
    return {};
}

ApplicationInstance::Role ApplicationInstance::start(const QList<QUrl>& items, const QVariantMap&) {
    if (!items.isEmpty()) emit opened(items);
    return Role::running;
}

void ApplicationInstance::release() {}
