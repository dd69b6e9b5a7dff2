import QtQuick

// Marks the control that has the keyboard; stands inside it.
Rectangle {
    anchors.fill: parent
    anchors.margins: -3
    radius: Brand.radius + 3
    color: "transparent"
    border.width: 2
    border.color: Brand.accent
}
