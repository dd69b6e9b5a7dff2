import QtQuick
import QtQuick.Layouts

// The symbol and title at the head of a sheet.
RowLayout {
    id: header

    required property string systemImage
    required property string title

    spacing: Brand.size(10)

    Symbol {
        name: header.systemImage
        color: Brand.accent
        size: Brand.size(24)
    }

    Text {
        Layout.fillWidth: true
        text: header.title
        color: Brand.text
        font.pixelSize: Brand.size(18)
        font.weight: Font.DemiBold
        wrapMode: Text.Wrap
        Accessible.role: Accessible.Heading
        Accessible.name: text
    }
}
