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
    // What stays in view above what scrolls.
    property alias header: head.data
    default property alias column: pane.column

    readonly property int margin: Brand.size(20)
    // Assistive technology does not see what is beneath.
    readonly property bool modal: true

    signal dismissed

    function open() {
        shown = true;
    }

    visible: shown
    enabled: shown
    Accessible.role: Accessible.Dialog
    Accessible.name: name
    Keys.forwardTo: [pane]
    Keys.onEscapePressed: {
        if (dismissible)
            dismissed();
    }

    onEnabledChanged: {
        if (enabled)
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
        // As high as what it holds, if that fits.
        readonly property int wantedHeight: pane.y + pane.contentHeight

        width: Math.min(Brand.size(sheet.sheetWidth), sheet.width - Brand.size(24))
        height: Math.min(wantedHeight, Brand.size(sheet.maximumHeight), sheet.height - Brand.size(24))
        radius: Brand.size(12)
        color: Brand.surface
        border.color: Brand.border

        Item {
            id: head

            anchors.left: parent.left
            anchors.right: parent.right
            anchors.top: parent.top
            anchors.margins: sheet.margin
            height: childrenRect.height
        }

        ScrollPane {
            id: pane

            anchors.left: parent.left
            anchors.right: parent.right
            anchors.top: head.bottom
            anchors.bottom: parent.bottom
            anchors.leftMargin: sheet.margin - ring
            // The bar stands in the margin.
            anchors.rightMargin: sheet.margin - gutter
            anchors.topMargin: (head.height > 0 ? Brand.size(14) : 0) - ring
            endSpace: sheet.margin - ring
            // The sheet has told it, unless the keys come here.
            name: activeFocusOnTab ? sheet.name : ""
        }
    }
}
