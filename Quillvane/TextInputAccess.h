#pragma once

#include "ItemAccess.h"

/// What assistive technology sees of a line of text that is typed into: of a masked one its mask.
class TextInputAccess final : public ItemAccess, public QAccessibleTextInterface {
public:
    using ItemAccess::ItemAccess;

    QAccessible::Role role() const override { return QAccessible::EditableText; }
    QAccessible::State state() const override;
    QString text(QAccessible::Text kind) const override;
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

private:
    int number(const char* property) const { return object()->property(property).toInt(); }
    int selectionStart() const { return number("selectionStart"); }
    int selectionEnd() const { return number("selectionEnd"); }
    bool masked() const { return number("echoMode") != 0; }
    /// The text as everybody sees it: the mask in place of what is masked.
    QString shown() const { return object()->property("displayText").toString(); }
    void select(int start, int end);
};
