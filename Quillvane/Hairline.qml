import QtQuick
import QtQuick.Layouts

// A thin line between two parts of the window.
Rectangle {
    property bool vertical: false

    Layout.fillWidth: !vertical
    Layout.fillHeight: vertical
    implicitWidth: 1
    implicitHeight: 1
    color: Brand.border
}
