import QtQuick

// A small bar of progress; a moving one while the fraction is not known.
Rectangle {
    id: mark

    required property double fraction
    // As assistive technology reads it.
    readonly property var value: fraction < 0 ? undefined : 100 * Math.min(fraction, 1)
    readonly property int minimumValue: 0
    readonly property int maximumValue: 100

    implicitWidth: Brand.size(72)
    implicitHeight: Brand.size(6)
    radius: height / 2
    color: Brand.border
    clip: true
    Accessible.role: Accessible.ProgressBar
    Accessible.name: "Progress"

    Rectangle {
        id: filled

        height: parent.height
        radius: parent.radius
        color: Brand.accent
        width: mark.fraction < 0 ? mark.width / 3 : mark.width * Math.min(mark.fraction, 1)
        x: mark.fraction < 0 ? run.position * (mark.width - width) : 0
    }

    QtObject {
        id: run

        property double position: 0
    }

    SequentialAnimation {
        running: mark.visible && mark.fraction < 0
        loops: Animation.Infinite

        NumberAnimation {
            target: run
            property: "position"
            from: 0
            to: 1
            duration: 900
            easing.type: Easing.InOutQuad
        }

        NumberAnimation {
            target: run
            property: "position"
            from: 1
            to: 0
            duration: 900
            easing.type: Easing.InOutQuad
        }
    }
}
