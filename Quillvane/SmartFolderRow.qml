import QtQuick
import QtQuick.Layouts

// One open Smart Folder.
Flow {
    id: row

    required property string name
    property bool disabled: false

    signal showRequested
    signal closeRequested

    spacing: Brand.size(8)

    RowLayout {
        width: Math.max(Brand.size(90), row.width - buttons.width - row.spacing > Brand.size(90) ? row.width - buttons.width - row.spacing : row.width)
        height: Math.max(buttons.height, label.implicitHeight)
        spacing: Brand.size(8)

        Symbol {
            name: "folder.fill"
            color: Brand.accent
            size: Brand.size(18)
        }

        BodyText {
            id: label

            Layout.fillWidth: true
            text: row.name
            wrapMode: Text.WrapAnywhere
            maximumLineCount: 2
            elide: Text.ElideRight
        }
    }

    Row {
        id: buttons

        spacing: Brand.size(8)

        GhostButton {
            title: "Show"
            systemImage: "folder"
            disabled: row.disabled
            Accessible.name: "Show " + row.name
            onClicked: row.showRequested()
        }

        GhostButton {
            title: "Close now"
            systemImage: "eject.fill"
            disabled: row.disabled
            Accessible.name: "Close " + row.name + " now"
            onClicked: row.closeRequested()
        }
    }
}
