import QtQuick
import QtQuick.Controls.Basic

// A link to a page, opened in the browser.
AbstractButton {
    id: link

    required property url address
    // The toolkit would make it a button again.
    readonly property int accessibleRole: Accessible.Link

    implicitWidth: implicitContentWidth
    implicitHeight: implicitContentHeight + Brand.size(4)
    focusPolicy: Qt.StrongFocus
    Accessible.role: accessibleRole
    Accessible.name: text
    Accessible.onPressAction: clicked()
    onClicked: Qt.openUrlExternally(address)
    Keys.onReturnPressed: clicked()
    Keys.onEnterPressed: clicked()

    contentItem: Text {
        text: link.text
        color: Brand.accent
        font.pixelSize: Brand.bodySize
        font.underline: link.hovered
        horizontalAlignment: Text.AlignHCenter
        verticalAlignment: Text.AlignVCenter
    }

    background: Item {
        FocusRing {
            visible: link.visualFocus
            radius: Brand.radiusSmall
        }
    }

    HoverHandler {
        cursorShape: Qt.PointingHandCursor
    }
}
