#include "Accessibility.h"

#include "ItemAccess.h"
#include "TextInputAccess.h"

#include <QQuickItem>

namespace {

QAccessibleInterface* make(const QString&, QObject* object) {
    auto* const item = qobject_cast<QQuickItem*>(object);
    if (item == nullptr) return nullptr;
    if (item->inherits("QQuickTextInput")) return new TextInputAccess(item);
    // A text of several lines can be read in pieces, for which the toolkit's interface is good.
    if (item->inherits("QQuickTextEdit")) return nullptr;
    return ItemAccess::isKnown(*item) ? new ItemAccess(item) : nullptr;
}

} // namespace

void Accessibility::install() {
    QAccessible::installFactory(&make);
}
