import QtQuick
import QtQuick.Controls.Basic

// A column that scrolls when it does not fit, by wheel, by bar and by the keys when it has the
// focus.
Flickable {
    id: pane

    property string name: ""
    // Room for the bar whether it is there or not: its coming must not change the height.
    readonly property int gutter: Brand.size(12)
    // Room for the focus rings of what stands at the edge.
    readonly property int ring: Brand.size(4)
    // Room below the last of what it holds, through which it scrolls.
    property int endSpace: 0
    default property alias column: content.data

    contentWidth: width
    contentHeight: content.height + 2 * ring + endSpace
    clip: true
    boundsBehavior: Flickable.StopAtBounds
    activeFocusOnTab: contentHeight > height
    Accessible.role: Accessible.Pane
    Accessible.name: name

    // What has the keyboard is in view.
    readonly property Item keyboardItem: Window.activeFocusItem
    onKeyboardItemChanged: {
        if (keyboardItem && content.isInside(keyboardItem))
            content.reveal(keyboardItem);
    }

    Keys.onUpPressed: bar.decrease()
    Keys.onDownPressed: bar.increase()

    ScrollBar.vertical: ScrollBar {
        id: bar

        minimumSize: 0.1
        padding: Brand.size(3)
        policy: pane.contentHeight > pane.height ? ScrollBar.AlwaysOn : ScrollBar.AlwaysOff
        // The pane itself scrolls by the keys.
        focusPolicy: Qt.NoFocus
        Accessible.ignored: true

        contentItem: Rectangle {
            implicitWidth: Brand.size(6)
            radius: width / 2
            color: Brand.wash(Brand.textDim, bar.pressed ? 0.9 : bar.hovered ? 0.7 : 0.4)
        }
    }

    Item {
        id: content

        function isInside(item: Item): bool {
            for (let ancestor = item; ancestor; ancestor = ancestor.parent) {
                if (ancestor === content)
                    return true;
            }
            return false;
        }

        function reveal(item: Item) {
            const top = item.mapToItem(pane.contentItem, 0, 0).y - pane.ring;
            const bottom = top + item.height + 2 * pane.ring;
            if (top < pane.contentY)
                pane.contentY = Math.max(0, top);
            else if (bottom > pane.contentY + pane.height)
                pane.contentY = Math.min(bottom - pane.height, pane.contentHeight - pane.height);
        }

        x: pane.ring
        y: pane.ring
        width: pane.width - pane.ring - pane.gutter
        height: childrenRect.height

        FocusRing {
            parent: pane
            visible: pane.activeFocus
            anchors.margins: 0
            radius: Brand.radiusSmall
        }
    }
}
