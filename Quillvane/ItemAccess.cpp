#include "ItemAccess.h"

#include <QRectF>

#include <algorithm>

namespace {

/// The object that holds an item's `Accessible` properties, if it has any: the last one, for the
/// toolkit loses those that some of its controls make too early. Its class is private: its
/// properties tell all there is to know.
QObject* accessibleProperties(const QQuickItem& item) {
    const auto& all = item.QObject::children();
    const auto found = std::find_if(all.rbegin(), all.rend(), [](const QObject* child) {
        return child->inherits("QQuickAccessibleAttached");
    });
    return found == all.rend() ? nullptr : *found;
}

QVariant said(const QQuickItem& item, const char* property) {
    const QObject* const properties = accessibleProperties(item);
    return properties == nullptr ? QVariant() : properties->property(property);
}

QAccessible::Role roleOf(const QQuickItem& item) {
    const QVariant own = item.property("accessibleRole");
    const auto role =
        static_cast<QAccessible::Role>((own.isValid() ? own : said(item, "role")).toInt());
    return role == QAccessible::NoRole ? QAccessible::Client : role;
}

void gatherKnown(const QQuickItem& above, QList<QQuickItem*>& found) {
    for (QQuickItem* const item : above.childItems()) {
        if (ItemAccess::isKnown(*item))
            found << item;
        else
            gatherKnown(*item, found);
    }
}

/// The name of the action that things of a role have.
QString actionOf(QAccessible::Role role) {
    switch (role) {
    case QAccessible::Button:
    case QAccessible::ComboBox:
    case QAccessible::Link:
    case QAccessible::ListItem:
    case QAccessible::PageTab:
        return QAccessibleActionInterface::pressAction();
    case QAccessible::CheckBox:
        return QAccessibleActionInterface::toggleAction();
    default:
        return {};
    }
}

} // namespace

ItemAccess::ItemAccess(QQuickItem* item) : QAccessibleObject(item) {
    enabledChanges_ = QObject::connect(item, &QQuickItem::enabledChanged, item, [item] {
        if (item->window() == nullptr || !isKnown(*item)) return; // it may be going
        QAccessible::State changed;
        changed.disabled = true;
        QAccessibleStateChangeEvent event(item, changed);
        QAccessible::updateAccessibility(&event);
    });
}

ItemAccess::~ItemAccess() {
    QObject::disconnect(enabledChanges_);
}

bool ItemAccess::isKnown(const QQuickItem& item) {
    return said(item, "ignored") == QVariant(false);
}

QAccessible::Role ItemAccess::role() const {
    return roleOf(*item());
}

QAccessible::State ItemAccess::state() const {
    QAccessible::State state;
    state.checkable = said(*item(), "checkable").toBool();
    state.checked = said(*item(), "checked").toBool();
    state.pressed = said(*item(), "pressed").toBool();
    state.selectable = said(*item(), "selectable").toBool();
    state.selected = said(*item(), "selected").toBool();
    state.modal = item()->property("modal").toBool();
    state.disabled = !isUsable();
    state.focusable = !state.disabled && item()->activeFocusOnTab();
    state.focused = item()->window() != nullptr && item()->window()->activeFocusItem() == item();
    state.invisible = !item()->isVisible() || isBehindSheet();
    state.offscreen = window() != nullptr && !window()->geometry().intersects(rect());
    return state;
}

/// A sheet stands before all that comes ahead of it among its neighbours.
bool ItemAccess::isBehindSheet() const {
    const auto isSheet = [](const QQuickItem* each) {
        return each->isVisible() && each->property("modal").toBool();
    };
    QQuickItem* inside = item();
    for (QQuickItem* above = inside->parentItem(); above != nullptr; above = above->parentItem()) {
        const QList<QQuickItem*> all = above->childItems();
        if (std::any_of(all.begin() + all.indexOf(inside) + 1, all.end(), isSheet)) return true;
        inside = above;
    }
    return false;
}

QString ItemAccess::text(QAccessible::Text kind) const {
    switch (kind) {
    case QAccessible::Name:
        return said(*item(), "name").toString();
    case QAccessible::Description:
        return said(*item(), "description").toString();
    default:
        return {};
    }
}

QRect ItemAccess::onScreen(const QRectF& part) const {
    if (window() == nullptr) return {};
    const QRect inWindow = item()->mapRectToScene(part).toRect();
    return {window()->mapToGlobal(inWindow.topLeft()), inWindow.size()};
}

QRect ItemAccess::rect() const {
    return onScreen(QRectF(0, 0, item()->width(), item()->height()));
}

QAccessibleInterface* ItemAccess::parent() const {
    for (QQuickItem* above = item()->parentItem(); above != nullptr; above = above->parentItem())
        if (isKnown(*above)) return QAccessible::queryAccessibleInterface(above);
    return QAccessible::queryAccessibleInterface(window());
}

QList<QQuickItem*> ItemAccess::children() const {
    QList<QQuickItem*> found;
    gatherKnown(*item(), found);
    return found;
}

QAccessibleInterface* ItemAccess::child(int index) const {
    return QAccessible::queryAccessibleInterface(children().value(index));
}

QAccessibleInterface* ItemAccess::childAt(int x, int y) const {
    const QList<QQuickItem*> all = children();
    // The last one stands in front.
    for (auto each = all.rbegin(); each != all.rend(); ++each) {
        QAccessibleInterface* const child = QAccessible::queryAccessibleInterface(*each);
        if (child != nullptr && !child->state().invisible && child->rect().contains(x, y))
            return child;
    }
    return nullptr;
}

int ItemAccess::indexOfChild(const QAccessibleInterface* child) const {
    return static_cast<int>(children().indexOf(qobject_cast<QQuickItem*>(child->object())));
}

void* ItemAccess::interface_cast(QAccessible::InterfaceType type) {
    if (type == QAccessible::ActionInterface) return static_cast<QAccessibleActionInterface*>(this);
    if (type == QAccessible::ValueInterface && currentValue().isValid())
        return static_cast<QAccessibleValueInterface*>(this);
    return QAccessibleObject::interface_cast(type);
}

QStringList ItemAccess::actionNames() const {
    QStringList names;
    if (const QString own = actionOf(role()); !own.isEmpty()) names << own;
    if (item()->activeFocusOnTab()) names << setFocusAction();
    return names;
}

void ItemAccess::doAction(const QString& name) {
    if (!isUsable() || !actionNames().contains(name)) return;
    if (name == setFocusAction())
        item()->forceActiveFocus(Qt::TabFocusReason);
    else
        QMetaObject::invokeMethod(accessibleProperties(*item()),
                                  name == toggleAction() ? "toggleAction" : "pressAction");
}
