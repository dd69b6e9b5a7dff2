import QtQuick
import QtQuick.Layouts

// The bottom edge: what is being done, and with what.
Item {
    id: bar

    required property bool busy
    required property bool cancellable
    required property bool committed
    required property double fraction
    required property string message
    required property string encryption
    required property string driveName

    signal cancelled
    // The keys have to go elsewhere.
    signal keysLost

    implicitHeight: Brand.size(30)
    Accessible.role: Accessible.StatusBar
    Accessible.name: busy ? message : "Ready"

    RowLayout {
        anchors.fill: parent
        anchors.leftMargin: Brand.size(14)
        anchors.rightMargin: Brand.size(14)
        spacing: Brand.size(8)

        ProgressMark {
            visible: bar.busy
            fraction: bar.fraction
        }

        FootnoteText {
            Layout.fillWidth: true
            text: bar.Accessible.name
            Accessible.ignored: true
        }

        CancelChoice {
            cancellable: bar.busy && bar.cancellable
            committed: bar.busy && bar.committed
            onCancelled: bar.cancelled()
            onKeysLost: bar.keysLost()
        }

        Symbol {
            name: "lock.shield"
            color: Brand.textDim
            size: Brand.size(14)
        }

        FootnoteText {
            text: bar.encryption
        }

        FootnoteText {
            Layout.maximumWidth: Brand.size(160)
            visible: bar.driveName !== ""
            text: "·  " + bar.driveName
        }
    }
}
