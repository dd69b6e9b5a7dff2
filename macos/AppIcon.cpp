#include "Quillvane/AppIcon.h"

#include <QCoreApplication>
#include <QPixmap>

QIcon appIcon() {
    // Beside the bundle's folder of programs.
    const QIcon icon(QCoreApplication::applicationDirPath() + "/../Resources/AppIcon.icns");
    return icon.pixmap(64).isNull() ? QIcon() : icon;
}
