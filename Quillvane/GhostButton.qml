import QtQuick
import QtQuick.Controls.Basic

// A compact button beside the main action.
AbstractButton {
    id: button

    enum Role { Plain, Destructive }

    property string title
    property string systemImage
    property int role: GhostButton.Plain
    property bool disabled: false
    readonly property color colour: role === GhostButton.Destructive ? Brand.error : Brand.text

    text: title
    enabled: !disabled
    hoverEnabled: true
    implicitWidth: leftPadding + rightPadding + implicitContentWidth
    implicitHeight: Math.max(Brand.size(28),
                             topPadding + bottomPadding + implicitContentHeight)
    horizontalPadding: Brand.spacing
    verticalPadding: Brand.size(4)
    opacity: enabled ? 1 : Brand.disabledOpacity
    Accessible.role: Accessible.Button
    Accessible.name: title
    Accessible.onPressAction: clicked()
    Keys.onReturnPressed: clicked()
    Keys.onEnterPressed: clicked()

    contentItem: SymbolLabel {
        title: button.title
        systemImage: button.systemImage
        color: button.colour
        font.pixelSize: Brand.bodySize
    }
    background: Rectangle {
        radius: Brand.radius
        color: Brand.wash(button.colour, button.down ? 0.16 : button.hovered ? 0.08 : 0)
        border.color: button.role === GhostButton.Destructive ? Brand.wash(Brand.error, 0.5)
                                                              : Brand.border

        FocusRing {
            visible: button.visualFocus
        }
    }
}
