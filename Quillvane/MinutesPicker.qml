import QtQuick
import QtQuick.Controls.Basic

// The time of inactivity after which Smart Folders close.
ComboBox {
    id: picker

    required property int minutes

    signal picked(int minutes)

    implicitWidth: Brand.size(96)
    implicitHeight: Brand.size(30)
    model: [1, 2, 5, 15, 30]
    currentIndex: model.indexOf(minutes)
    displayText: minutes + " min"
    Accessible.role: Accessible.ComboBox
    Accessible.name: "Auto-close after"
    Accessible.description: popup.visible && highlightedIndex >= 0 ? textAt(highlightedIndex) + " min" : displayText
    Accessible.onPressAction: popup.open()
    onActivated: index => picker.picked(model[index])

    background: Rectangle {
        radius: Brand.size(7)
        color: picker.hovered ? Brand.surface : Brand.field
        border.width: picker.visualFocus ? 2 : 1
        border.color: picker.visualFocus ? Brand.accent : Brand.border
    }

    contentItem: Text {
        leftPadding: Brand.size(10)
        text: picker.displayText
        color: Brand.text
        font.pixelSize: Brand.bodySize
        verticalAlignment: Text.AlignVCenter
    }

    indicator: Symbol {
        x: picker.width - width - Brand.size(8)
        y: (picker.height - height) / 2
        name: "chevron.down"
        color: Brand.textDim
        size: Brand.size(12)
    }

    delegate: ItemDelegate {
        id: choice

        required property int modelData
        required property int index

        width: picker.width // qmllint disable unqualified
        highlighted: picker.highlightedIndex === index // qmllint disable unqualified
        Accessible.name: text
        Accessible.selectable: true
        Accessible.selected: highlighted
        Accessible.onPressAction: clicked()
        text: modelData + " min"

        background: Rectangle {
            color: choice.highlighted ? Brand.wash(Brand.accent, 0.2) : "transparent"
        }

        contentItem: Text {
            text: choice.text
            color: Brand.text
            font.pixelSize: Brand.bodySize
        }
    }

    popup.background: Rectangle {
        radius: Brand.size(7)
        color: Brand.surface
        border.color: Brand.border
    }
}
