#pragma once

#include <QAccessible>
#include <QAccessibleObject>
#include <QList>
#include <QMetaObject>
#include <QQuickItem>
#include <QQuickWindow>

/// What assistive technology sees of an item of the window: what the item's `Accessible` properties
/// say, together with what the toolkit's own interface leaves out or gets wrong: whether the item
/// is disabled, whether it takes the focus, and whether a sheet stands before it.
///
/// The toolkit's controls set their own `Accessible.role` when assistive technology comes; one that
/// is to have another has it as the property `accessibleRole`, too.
///
/// An item with the property `modal` stands, while it is visible, before its elder neighbours and
/// all that is in them: those are neither shown nor usable.
///
/// An item acts by the handler of the one action that its role has (`onToggleAction` of a check
/// box, `onPressAction` of others), which is not called while the item is disabled. An item that
/// shows progress has the properties `value`, `minimumValue` and `maximumValue`.
class ItemAccess : public QAccessibleObject,
                   public QAccessibleActionInterface,
                   public QAccessibleValueInterface {
public:
    explicit ItemAccess(QQuickItem* item);
    ~ItemAccess() override;

    /// Whether an item is there for assistive technology, and does not only lay out others.
    static bool isKnown(const QQuickItem& item);

    QAccessible::Role role() const override;
    QAccessible::State state() const override;
    QString text(QAccessible::Text kind) const override;
    QRect rect() const override;
    QWindow* window() const override { return item()->window(); }
    QAccessibleInterface* parent() const override;
    QAccessibleInterface* child(int index) const override;
    QAccessibleInterface* childAt(int x, int y) const override;
    int childCount() const override { return static_cast<int>(children().size()); }
    int indexOfChild(const QAccessibleInterface* child) const override;
    void* interface_cast(QAccessible::InterfaceType type) override;

    QStringList actionNames() const override;
    void doAction(const QString& name) override;
    QStringList keyBindingsForAction(const QString&) const override { return {}; }

    QVariant currentValue() const override { return object()->property("value"); }
    void setCurrentValue(const QVariant&) override {} // progress is not for others to set
    QVariant minimumValue() const override { return object()->property("minimumValue"); }
    QVariant maximumValue() const override { return object()->property("maximumValue"); }
    QVariant minimumStepSize() const override { return {}; }

protected:
    QQuickItem* item() const { return static_cast<QQuickItem*>(object()); }
    /// Where a part of the item is on the screen.
    QRect onScreen(const QRectF& part) const;

private:
    QList<QQuickItem*> children() const;
    bool isBehindSheet() const;
    bool isUsable() const { return item()->isEnabled() && item()->isVisible() && !isBehindSheet(); }

    QMetaObject::Connection enabledChanges_;
};
