import QtQuick
import QtQuick.Controls.Basic

// The help text of a control, which is its parent.
ToolTip {
    id: tip

    delay: 600
    padding: Brand.spacingSmall
    font.pixelSize: Brand.footnoteSize

    contentItem: Text {
        text: tip.text
        font: tip.font
        color: Brand.text
    }
    background: Rectangle {
        color: Brand.surface
        radius: Brand.radiusSmall
        border.color: Brand.border
    }
}
