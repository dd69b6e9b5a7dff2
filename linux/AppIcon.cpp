#include "Quillvane/AppIcon.h"

#include <QPixmap>

namespace {

/// An icon reads its files no sooner than it is drawn.
bool loads(const QIcon& icon) {
    return !icon.pixmap(64).isNull();
}

} // namespace

QIcon appIcon() {
    // Installed, the icon is part of the desktop's theme; otherwise the program carries one.
    QIcon themed = QIcon::fromTheme("org.quillvane.Quillvane");
    if (loads(themed)) return themed;
    QIcon own(":/quillvane/AppIcon.svg");
    return loads(own) ? own : QIcon();
}
