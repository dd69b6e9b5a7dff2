#include "Quillvane/AppIcon.h"

#include <QFile>
#include <QPixmap>

namespace {

/// An icon reads its files no sooner than it is drawn.
bool loads(const QIcon& icon) {
    return !icon.pixmap(64).isNull();
}

} // namespace

QIcon appIcon() {
    // Installed, the icon is part of the desktop's theme; otherwise the window brings it along.
    QIcon themed = QIcon::fromTheme("org.quillvane.Quillvane");
    if (loads(themed)) return themed;
    const QString own = QStringLiteral(":/quillvane/AppIcon.svg");
    return QFile::exists(own) && loads(QIcon(own)) ? QIcon(own) : QIcon();
}
