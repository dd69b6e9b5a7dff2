#include "TextInputAccess.h"

#include <QRectF>

QAccessible::State TextInputAccess::state() const {
    QAccessible::State state = ItemAccess::state();
    state.editable = !object()->property("readOnly").toBool();
    state.readOnly = !state.editable;
    state.selectableText = true;
    state.passwordEdit = masked();
    return state;
}

QString TextInputAccess::text(QAccessible::Text kind) const {
    switch (kind) {
    case QAccessible::Name:
        return object()->property("placeholderText").toString();
    case QAccessible::Value:
        return shown();
    default:
        return {};
    }
}

void* TextInputAccess::interface_cast(QAccessible::InterfaceType type) {
    if (type == QAccessible::TextInterface) return static_cast<QAccessibleTextInterface*>(this);
    return ItemAccess::interface_cast(type);
}

void TextInputAccess::select(int start, int end) {
    QMetaObject::invokeMethod(object(), "select", Q_ARG(int, start), Q_ARG(int, end));
}

void TextInputAccess::selection(int index, int* start, int* end) const {
    *start = index == 0 ? selectionStart() : 0;
    *end = index == 0 ? selectionEnd() : 0;
}

void TextInputAccess::removeSelection(int index) {
    if (index == 0) QMetaObject::invokeMethod(object(), "deselect");
}

void TextInputAccess::setSelection(int index, int start, int end) {
    if (index == 0) select(start, end);
}

void TextInputAccess::setCursorPosition(int position) {
    object()->setProperty("cursorPosition", position);
}

QRect TextInputAccess::characterRect(int offset) const {
    QRectF place;
    QMetaObject::invokeMethod(object(), "positionToRectangle", Q_RETURN_ARG(QRectF, place),
                              Q_ARG(int, offset));
    return onScreen(place);
}

int TextInputAccess::offsetAtPoint(const QPoint& point) const {
    for (int offset = 0; offset < characterCount(); ++offset) {
        const QRect here = characterRect(offset);
        const QRect next = characterRect(offset + 1);
        if (QRect(here.topLeft(), QPoint(next.left(), here.bottom())).contains(point))
            return offset;
    }
    return -1;
}

QString TextInputAccess::attributes(int, int* start, int* end) const {
    *start = 0;
    *end = characterCount();
    return {};
}
