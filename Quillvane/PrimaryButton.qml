import QtQuick
import QtQuick.Controls.Basic

// The action for which a pane is there.
AbstractButton {
    id: button

    property string title
    property string systemImage
    property bool disabled: false

    text: title
    enabled: !disabled
    hoverEnabled: true
    implicitWidth: leftPadding + rightPadding + implicitContentWidth
    implicitHeight: Math.max(Brand.controlHeight, topPadding + bottomPadding + implicitContentHeight)
    horizontalPadding: Brand.spacingLarge
    verticalPadding: Brand.spacingSmall
    Accessible.role: Accessible.Button
    Accessible.name: title
    Accessible.onPressAction: clicked()
    Keys.onReturnPressed: clicked()
    Keys.onEnterPressed: clicked()

    contentItem: SymbolLabel {
        title: button.title
        systemImage: button.systemImage
        color: button.enabled ? Brand.bg : Brand.textDim
        font.pixelSize: Brand.bodySize
        font.weight: Font.DemiBold
    }
    background: Rectangle {
        radius: Brand.radius
        color: !button.enabled ? Brand.border
                               : button.down ? Qt.darker(Brand.accent, 1.2)
                               : button.hovered ? Qt.lighter(Brand.accent, 1.12) : Brand.accent

        FocusRing {
            visible: button.visualFocus
            border.color: Brand.text
        }
    }
}
