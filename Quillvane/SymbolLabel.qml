import QtQuick
import QtQuick.Layouts

// A symbol and the title after it, as buttons show them.
Item {
    id: label

    property string title
    property string systemImage
    property color color: Brand.text
    property alias font: text.font

    implicitWidth: row.implicitWidth
    implicitHeight: row.implicitHeight

    RowLayout {
        id: row

        anchors.centerIn: parent
        width: Math.min(implicitWidth, parent.width)
        spacing: label.title !== "" ? Brand.spacingSmall : 0

        Symbol {
            name: label.systemImage
            color: label.color
            visible: name !== ""
        }
        Text {
            id: text

            Layout.fillWidth: true
            visible: text !== ""
            text: label.title
            color: label.color
            elide: Text.ElideRight
            textFormat: Text.PlainText
        }
    }
}
