import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Quillvane

// Where a folder, or a protected item, is chosen or dropped.
//
// A binding of `url` lasts: `droppedUrl` tells what was dropped.
AbstractButton {
    id: zone

    property string prompt
    property string systemImage
    property url url
    property bool isFolder: false
    readonly property alias targeted: area.containsDrag
    readonly property alias detail: item.text
    readonly property bool chosen: item.name !== ""

    signal chooseRequested
    signal droppedUrl(url file)

    hoverEnabled: true
    implicitWidth: Brand.size(320)
    implicitHeight: Math.max(Brand.size(84), topPadding + bottomPadding + implicitContentHeight)
    padding: Brand.padding
    opacity: enabled ? 1 : Brand.disabledOpacity
    text: chosen ? item.name : prompt
    Accessible.role: Accessible.Button
    Accessible.name: text
    Accessible.onPressAction: clicked()
    Accessible.description: chosen ? item.location + (detail && ", " + detail) : ""
    Keys.onReturnPressed: clicked()
    Keys.onEnterPressed: clicked()
    onClicked: chooseRequested()

    ItemDetail {
        id: item

        url: zone.url
        isFolder: zone.isFolder
    }

    contentItem: RowLayout {
        spacing: Brand.padding

        Symbol {
            name: zone.chosen && zone.isFolder ? "folder.fill" : zone.chosen ? "lock.fill"
                                                                             : zone.systemImage
            color: zone.chosen || zone.targeted ? Brand.accent : Brand.textDim
            size: Brand.size(28)
        }
        ColumnLayout {
            Layout.fillWidth: true
            spacing: Brand.size(2)

            Text {
                Layout.fillWidth: true
                text: zone.text
                color: zone.chosen || zone.hovered || zone.targeted ? Brand.text : Brand.textDim
                font.pixelSize: Brand.bodySize
                font.weight: zone.chosen ? Font.DemiBold : Font.Normal
                // A name may be of any length, a prompt is to be read.
                elide: zone.chosen ? Text.ElideMiddle : Text.ElideNone
                wrapMode: zone.chosen ? Text.NoWrap : Text.WordWrap
                textFormat: Text.PlainText
            }
            Text {
                Layout.fillWidth: true
                visible: zone.chosen
                text: item.location
                color: Brand.textDim
                font.pixelSize: Brand.footnoteSize
                elide: Text.ElideMiddle
                textFormat: Text.PlainText
            }
            Text {
                Layout.fillWidth: true
                visible: text !== ""
                text: zone.detail
                color: Brand.textDim
                font.pixelSize: Brand.footnoteSize
                elide: Text.ElideRight
                textFormat: Text.PlainText
            }
        }
    }
    background: Rectangle {
        radius: Brand.radiusLarge
        color: zone.targeted ? Brand.wash(Brand.accent, 0.12)
                             : zone.down ? Brand.border
                                         : zone.hovered ? Qt.lighter(Brand.surface, 1.15) : Brand.surface
        border.width: zone.targeted ? 2 : 1
        border.color: zone.targeted ? Brand.accent
                                    : zone.hovered ? Brand.textDim : Brand.border

        FocusRing {
            visible: zone.visualFocus
            radius: Brand.radiusLarge + 3
        }
    }

    DropArea {
        id: area

        anchors.fill: parent
        keys: ["text/uri-list"]
        // Always a copy: for what was moved, the program that it comes from may delete it.
        onEntered: drag => drag.accept(Qt.CopyAction)
        onPositionChanged: drag => drag.accept(Qt.CopyAction)
        onDropped: drop => {
            const file = DropRules.accepted(drop.urls, zone.isFolder);
            if (file.toString() === "") {
                drop.accepted = false;
                return;
            }
            drop.accept(Qt.CopyAction);
            zone.droppedUrl(file);
        }
    }
}
