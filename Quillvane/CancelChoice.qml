import QtQuick
import QtQuick.Layouts

// The button that cancels what runs, or that it is too late for that.
RowLayout {
    id: choice

    required property bool cancellable
    required property bool committed

    signal cancelled
    // The button had the keys, and is gone.
    signal keysLost

    visible: cancellable || committed

    GhostButton {
        // It stands in a bar no higher than this.
        Layout.preferredHeight: Brand.size(24)
        visible: choice.cancellable
        title: "Cancel"
        systemImage: "xmark"
        onClicked: choice.cancelled()
        onVisibleChanged: {
            if (visible || !focus)
                return;
            focus = false;
            choice.keysLost();
        }
    }

    FootnoteText {
        visible: choice.committed
        text: "Can't be cancelled any more"
    }
}
