import QtQuick
import QtQuick.Controls.Basic

// A link to a page, opened in the browser.
AbstractButton {
    id: link

    required property url address

    implicitWidth: implicitContentWidth
    implicitHeight: implicitContentHeight + Brand.size(4)
    focusPolicy: Qt.StrongFocus
    Accessible.role: Accessible.Link
    Accessible.name: text
    onClicked: Qt.openUrlExternally(address)
    Keys.onReturnPressed: clicked()

    contentItem: Text {
        text: link.text
        color: Brand.accent
        font.pixelSize: Brand.bodySize
        font.underline: link.hovered || link.visualFocus
        horizontalAlignment: Text.AlignHCenter
    }

    HoverHandler {
        cursorShape: Qt.PointingHandCursor
    }
}
