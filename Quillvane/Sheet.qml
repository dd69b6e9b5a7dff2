import QtQuick

// A panel over the window, which cannot be used meanwhile.
FocusScope {
    id: sheet

    required property string name
    property bool shown: false
    // Whether Escape takes it away.
    property bool dismissible: true
    property int sheetWidth: 460
    property int maximumHeight: 560
    // Where the keys go when it appears.
    property Item firstFocus: null
    default property alias column: pane.column

    signal dismissed

    function open() {
        shown = true;
    }

    visible: shown
    enabled: shown
    Accessible.role: Accessible.Dialog
    Accessible.name: name
    Keys.onEscapePressed: {
        if (dismissible)
            dismissed();
    }

    onShownChanged: {
        if (shown)
            (firstFocus ?? sheet).forceActiveFocus(Qt.TabFocusReason);
    }

    Rectangle {
        anchors.fill: parent
        color: "#000000"
        opacity: 0.55
    }

    // What is beneath is out of reach.
    MouseArea {
        anchors.fill: parent
        hoverEnabled: true
        onWheel: wheel => wheel.accepted = true
    }

    Rectangle {
        anchors.centerIn: parent
        width: Math.min(Brand.size(sheet.sheetWidth), sheet.width - Brand.size(24))
        height: Math.min(pane.contentHeight + 2 * (Brand.size(20) - pane.ring), Brand.size(sheet.maximumHeight), sheet.height - Brand.size(24))
        radius: Brand.size(12)
        color: Brand.surface
        border.color: Brand.border

        ScrollPane {
            id: pane

            anchors.fill: parent
            anchors.margins: Brand.size(20) - ring
            // The bar stands in the margin.
            anchors.rightMargin: Brand.size(20) - gutter
            name: sheet.name
        }
    }
}
