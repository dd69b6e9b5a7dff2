#include "TextInputAccess.h"

#include <QAccessible>
#include <QAccessibleObject>
#include <QQuickItem>
#include <QQuickWindow>
#include <QRectF>

namespace {

/// The toolkit's class is private: its properties tell all there is to know.
class LineOfText final : public QAccessibleObject,
                         public QAccessibleTextInterface,
                         public QAccessibleActionInterface {
public:
    explicit LineOfText(QQuickItem* item) : QAccessibleObject(item) {}

    QAccessible::Role role() const override { return QAccessible::EditableText; }
    QAccessible::State state() const override;
    QString text(QAccessible::Text kind) const override;
    QRect rect() const override;
    QWindow* window() const override { return item()->window(); }
    QAccessibleInterface* parent() const override;
    QAccessibleInterface* child(int) const override { return nullptr; }
    QAccessibleInterface* childAt(int, int) const override { return nullptr; }
    int childCount() const override { return 0; }
    int indexOfChild(const QAccessibleInterface*) const override { return -1; }
    void* interface_cast(QAccessible::InterfaceType type) override;

    void selection(int index, int* start, int* end) const override;
    int selectionCount() const override { return selectionStart() == selectionEnd() ? 0 : 1; }
    void addSelection(int start, int end) override { select(start, end); }
    void removeSelection(int index) override;
    void setSelection(int index, int start, int end) override;
    int cursorPosition() const override { return number("cursorPosition"); }
    void setCursorPosition(int position) override;
    QString text(int start, int end) const override { return shown().mid(start, end - start); }
    int characterCount() const override { return static_cast<int>(shown().size()); }
    QRect characterRect(int offset) const override;
    int offsetAtPoint(const QPoint& point) const override;
    void scrollToSubstring(int, int) override {} // the line follows its cursor
    QString attributes(int offset, int* start, int* end) const override;

    QStringList actionNames() const override { return {setFocusAction()}; }
    void doAction(const QString& name) override;
    QStringList keyBindingsForAction(const QString&) const override { return {}; }

private:
    QQuickItem* item() const { return static_cast<QQuickItem*>(object()); }
    int number(const char* property) const { return object()->property(property).toInt(); }
    int selectionStart() const { return number("selectionStart"); }
    int selectionEnd() const { return number("selectionEnd"); }
    bool masked() const { return number("echoMode") != 0; }
    /// The text as everybody sees it: the mask in place of what is masked.
    QString shown() const { return object()->property("displayText").toString(); }
    QRect onScreen(const QRectF& area) const;
    void select(int start, int end);
};

QAccessible::State LineOfText::state() const {
    QAccessible::State state;
    state.editable = !object()->property("readOnly").toBool();
    state.readOnly = !state.editable;
    state.focusable = item()->activeFocusOnTab();
    state.focused = item()->hasActiveFocus();
    state.selectableText = true;
    state.passwordEdit = masked();
    state.disabled = !item()->isEnabled();
    state.invisible = !item()->isVisible();
    return state;
}

QString LineOfText::text(QAccessible::Text kind) const {
    switch (kind) {
    case QAccessible::Name:
        return object()->property("placeholderText").toString();
    case QAccessible::Value:
        return shown();
    default:
        return {};
    }
}

QRect LineOfText::onScreen(const QRectF& area) const {
    if (window() == nullptr) return {};
    const QRect inWindow = item()->mapRectToScene(area).toRect();
    return {window()->mapToGlobal(inWindow.topLeft()), inWindow.size()};
}

QRect LineOfText::rect() const {
    return onScreen(QRectF(0, 0, item()->width(), item()->height()));
}

QAccessibleInterface* LineOfText::parent() const {
    // Items that only lay out others are not there for assistive technology.
    for (QQuickItem* above = item()->parentItem(); above != nullptr; above = above->parentItem()) {
        if (window() != nullptr && above == item()->window()->contentItem()) break;
        if (auto* const found = QAccessible::queryAccessibleInterface(above)) return found;
    }
    return QAccessible::queryAccessibleInterface(window());
}

void* LineOfText::interface_cast(QAccessible::InterfaceType type) {
    if (type == QAccessible::TextInterface) return static_cast<QAccessibleTextInterface*>(this);
    if (type == QAccessible::ActionInterface) return static_cast<QAccessibleActionInterface*>(this);
    return QAccessibleObject::interface_cast(type);
}

void LineOfText::doAction(const QString& name) {
    if (name == setFocusAction()) item()->forceActiveFocus();
}

void LineOfText::select(int start, int end) {
    QMetaObject::invokeMethod(object(), "select", Q_ARG(int, start), Q_ARG(int, end));
}

void LineOfText::selection(int index, int* start, int* end) const {
    *start = index == 0 ? selectionStart() : 0;
    *end = index == 0 ? selectionEnd() : 0;
}

void LineOfText::removeSelection(int index) {
    if (index == 0) QMetaObject::invokeMethod(object(), "deselect");
}

void LineOfText::setSelection(int index, int start, int end) {
    if (index == 0) select(start, end);
}

void LineOfText::setCursorPosition(int position) {
    object()->setProperty("cursorPosition", position);
}

QRect LineOfText::characterRect(int offset) const {
    QRectF place;
    QMetaObject::invokeMethod(object(), "positionToRectangle", Q_RETURN_ARG(QRectF, place),
                              Q_ARG(int, offset));
    return onScreen(place);
}

int LineOfText::offsetAtPoint(const QPoint& point) const {
    for (int offset = 0; offset < characterCount(); ++offset) {
        const QRect here = characterRect(offset);
        const QRect next = characterRect(offset + 1);
        if (QRect(here.topLeft(), QPoint(next.left(), here.bottom())).contains(point))
            return offset;
    }
    return -1;
}

QString LineOfText::attributes(int, int* start, int* end) const {
    *start = 0;
    *end = characterCount();
    return {};
}

QAccessibleInterface* make(const QString&, QObject* object) {
    auto* const item = qobject_cast<QQuickItem*>(object);
    return item != nullptr && item->inherits("QQuickTextInput") ? new LineOfText(item) : nullptr;
}

} // namespace

void TextInputAccess::install() {
    QAccessible::installFactory(&make);
}
