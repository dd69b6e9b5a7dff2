import QtQuick
import QtQuick.Controls.Basic

// A box to tick, with its text. A binding of `checked` lasts: `toggled` tells of the user.
CheckBox {
    id: box

    padding: 0
    spacing: Brand.size(8)
    hoverEnabled: true
    font.pixelSize: Brand.bodySize
    opacity: enabled ? 1 : Brand.disabledOpacity
    Accessible.role: Accessible.CheckBox
    Accessible.name: text
    Accessible.checkable: true
    Accessible.checked: checked
    Accessible.onToggleAction: {
        // As the user does it.
        toggle();
        toggled();
    }

    indicator: Rectangle {
        x: box.leftPadding
        y: box.topPadding + Math.round((box.availableHeight - height) / 2)
        implicitWidth: Brand.symbolSize
        implicitHeight: Brand.symbolSize
        radius: Brand.size(4)
        color: box.checked ? Brand.accent : Brand.field
        border.color: box.checked ? Brand.accent
                                     : box.hovered || box.down ? Brand.text : Brand.textDim

        Symbol {
            anchors.centerIn: parent
            name: "checkmark"
            color: Brand.bg
            size: Brand.size(12)
            visible: box.checked
        }
        FocusRing {
            visible: box.visualFocus
            radius: Brand.size(4) + 3
        }
    }
    contentItem: Text {
        leftPadding: box.indicator.width + box.spacing
        text: box.text
        font: box.font
        color: Brand.text
        wrapMode: Text.WordWrap
        textFormat: Text.PlainText
        verticalAlignment: Text.AlignVCenter
    }
}
