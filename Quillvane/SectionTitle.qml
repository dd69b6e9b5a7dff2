import QtQuick
import QtQuick.Layouts

// The title of a part of the window.
Text {
    Layout.fillWidth: true
    color: Brand.text
    font.pixelSize: Brand.size(14)
    font.weight: Font.DemiBold
    wrapMode: Text.Wrap
    Accessible.role: Accessible.Heading
    Accessible.name: text
}
