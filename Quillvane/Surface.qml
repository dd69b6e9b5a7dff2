import QtQuick
import QtQuick.Controls.Basic

// A container for what belongs together.
Pane {
    padding: Brand.padding

    background: Rectangle {
        color: Brand.surface
        radius: Brand.radiusLarge
        border.color: Brand.border
    }
}
