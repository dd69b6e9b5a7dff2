import QtQuick
import QtQuick.Controls.Basic

// A container for what belongs together.
Pane {
    // What it is for; one without a name is not there for assistive technology.
    property string name: ""
    // The toolkit would make it a pane again.
    readonly property int accessibleRole: Accessible.Grouping

    Accessible.role: accessibleRole
    Accessible.name: name
    Accessible.ignored: name === ""
    padding: Brand.padding

    background: Rectangle {
        color: Brand.surface
        radius: Brand.radiusLarge
        border.color: Brand.border
    }
}
