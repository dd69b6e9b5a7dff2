#include "OpenRouter.h"

OpenRouter& OpenRouter::shared() {
    static OpenRouter router;
    return router;
}

void OpenRouter::setPendingContainer(const QUrl& item) {
    if (item.isEmpty() && pendingContainer_.isEmpty()) return;
    pendingContainer_ = item;
    emit pendingContainerChanged();
}
