pragma Singleton

import QtQuick
import Quillvane

// The look of the window: colours, and measures that grow with the system's font.
QtObject {
    id: brand

    readonly property color bg: "#0E1017"
    readonly property color surface: "#171A24"
    readonly property color field: "#0F131C"
    readonly property color border: "#262B3A"
    readonly property color text: "#E9ECF5"
    readonly property color textDim: "#9AA1B8"
    readonly property color accent: "#2FD98A"
    readonly property color error: "#FF6B6B"

    // Pixels of the system's font, and of the font for which all measures are given. A system
    // that has set none reports a font too small to read: measures never shrink.
    readonly property real systemFontSize: SystemFonts.pixelSize
    readonly property real nominalFontSize: 13
    readonly property real scale: Math.max(1, systemFontSize / nominalFontSize)

    readonly property int footnoteSize: size(11)
    readonly property int bodySize: size(13)
    readonly property int headingSize: size(15)
    readonly property int titleSize: size(22)

    readonly property int spacingSmall: size(6)
    readonly property int spacing: size(10)
    readonly property int spacingLarge: size(16)
    readonly property int padding: size(14)

    readonly property int radiusSmall: size(6)
    readonly property int radius: size(8)
    readonly property int radiusLarge: size(12)

    // Height of what is pressed or typed into.
    readonly property int controlHeight: size(34)
    readonly property int symbolSize: size(16)
    // What stands for everything that cannot be used at the moment.
    readonly property real disabledOpacity: 0.45

    // A measure in device-independent pixels, as it is with the system's font.
    function size(pixels: real): int {
        return Math.round(pixels * brand.scale);
    }

    // `colour` covering `share` (0 to 1) of what is below.
    function wash(colour: color, share: real): color {
        return Qt.rgba(colour.r, colour.g, colour.b, share);
    }
}
