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

void OpenRouter::setPendingFolder(const QUrl& folder) {
    if (folder.isEmpty() && pendingFolder_.isEmpty()) return;
    pendingFolder_ = folder;
    emit pendingFolderChanged();
}
