import QtQuick
import QtQuick.Window

// One of our symbols, drawn for the pixels of the window's screen.
Item {
    id: symbol

    property string name
    property color color: Brand.text
    property int size: Brand.symbolSize

    implicitWidth: size
    implicitHeight: size
    Accessible.ignored: true

    Image {
        // Whole pixels of the screen, at fractional scales too.
        readonly property real side: Math.round(symbol.size * Screen.devicePixelRatio)
                                     / Screen.devicePixelRatio

        anchors.centerIn: parent
        width: side
        height: side
        sourceSize.width: symbol.size
        sourceSize.height: symbol.size
        source: symbol.name && "image://symbol/" + symbol.name + "/" + symbol.color.toString().slice(1)
    }
}
