import QtQuick
import QtQuick.Controls.Basic

// A button that is a symbol alone.
AbstractButton {
    id: button

    required property string systemImage
    required property string name

    implicitWidth: Brand.size(28)
    implicitHeight: Brand.size(28)
    focusPolicy: Qt.StrongFocus
    Accessible.role: Accessible.Button
    Accessible.name: name
    Accessible.onPressAction: clicked()
    Keys.onReturnPressed: clicked()
    Keys.onEnterPressed: clicked()

    background: Rectangle {
        radius: width / 2
        color: button.down ? Brand.wash(Brand.text, 0.14) : button.hovered ? Brand.wash(Brand.text, 0.08) : "transparent"
        border.width: button.visualFocus ? 2 : 0
        border.color: Brand.accent
    }

    contentItem: Item {
        Symbol {
            anchors.centerIn: parent
            name: button.systemImage
            color: Brand.textDim
            size: Brand.size(20)
        }
    }
}
