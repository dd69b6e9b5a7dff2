import QtQuick
import QtQuick.Layouts

// A symbol and a text beside it.
RowLayout {
    id: row

    required property string systemImage
    required property string text
    // Whether it is news that assistive technology tells at once.
    property bool alert: false
    property color symbolColor: Brand.textDim
    property color textColor: Brand.text

    spacing: Brand.size(8)

    Symbol {
        Layout.alignment: Qt.AlignTop
        Layout.topMargin: Brand.size(1)
        name: row.systemImage
        color: row.symbolColor
        size: Brand.size(16)
    }

    BodyText {
        Layout.fillWidth: true
        text: row.text
        color: row.textColor
        Accessible.role: row.alert ? Accessible.AlertMessage : Accessible.StaticText
    }
}
