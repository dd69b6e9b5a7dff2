import QtQuick

// The symbol and title at the head of a sheet.
Item {
    id: header

    required property string systemImage
    required property string title

    implicitHeight: Math.max(symbol.height, text.implicitHeight)

    Symbol {
        id: symbol

        anchors.verticalCenter: parent.verticalCenter
        name: header.systemImage
        color: Brand.accent
        size: Brand.size(24)
    }

    Text {
        id: text

        anchors.left: symbol.right
        anchors.leftMargin: Brand.size(10)
        anchors.right: parent.right
        anchors.verticalCenter: parent.verticalCenter
        text: header.title
        color: Brand.text
        font.pixelSize: Brand.size(18)
        font.weight: Font.DemiBold
        wrapMode: Text.Wrap
        Accessible.role: Accessible.Heading
        Accessible.name: header.title
    }
}
