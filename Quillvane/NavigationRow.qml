import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts

// One mode in the sidebar.
AbstractButton {
    id: row

    required property string title
    required property string systemImage
    property bool selected: false
    // The toolkit would make it a button again.
    readonly property int accessibleRole: Accessible.PageTab

    implicitHeight: Brand.size(34)
    leftPadding: Brand.size(10)
    rightPadding: Brand.size(10)
    focusPolicy: Qt.StrongFocus
    Accessible.role: accessibleRole
    Accessible.name: title
    Accessible.selectable: true
    Accessible.selected: selected
    Accessible.onPressAction: clicked()
    Keys.onReturnPressed: clicked()
    Keys.onEnterPressed: clicked()
    Keys.onUpPressed: nextItemInFocusChain(false).forceActiveFocus(Qt.BacktabFocusReason)
    Keys.onDownPressed: nextItemInFocusChain(true).forceActiveFocus(Qt.TabFocusReason)

    background: Rectangle {
        radius: Brand.size(7)
        color: row.selected ? Brand.wash(Brand.accent, 0.16) : row.hovered ? Brand.wash(Brand.text, 0.06) : "transparent"
        border.width: row.visualFocus ? 2 : 0
        border.color: Brand.accent
    }

    contentItem: RowLayout {
        spacing: Brand.size(10)

        Symbol {
            name: row.systemImage
            color: row.selected ? Brand.accent : Brand.textDim
            size: Brand.size(18)
        }

        Text {
            Layout.fillWidth: true
            text: row.title
            color: row.selected ? Brand.text : Brand.textDim
            font.pixelSize: Brand.bodySize
            font.weight: row.selected ? Font.DemiBold : Font.Normal
            elide: Text.ElideRight
        }
    }
}
