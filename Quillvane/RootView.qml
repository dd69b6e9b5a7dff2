import QtQuick
import Quillvane

// The terms until they are accepted, then the main window's contents.
FocusScope {
    id: root

    required property VaultViewModel vm
    required property SmartFolderManager smart
    required property OpenRouter openRouter
    required property ContentModel content
    required property TermsOfUse terms
    required property SystemWords words

    readonly property int minimumWidth: root.terms.accepted ? 760 : 560
    readonly property int minimumHeight: root.terms.accepted ? 520 : 540

    implicitWidth: root.terms.accepted ? 920 : 600
    implicitHeight: root.terms.accepted ? 640 : 600

    Loader {
        anchors.fill: parent
        focus: true
        sourceComponent: root.terms.accepted ? mainContent : gate
    }

    // The linter does not follow ids of the file into a component.
    // qmllint disable unqualified

    Component {
        id: gate

        Item {
            DisclaimerGate {
                anchors.top: parent.top
                anchors.bottom: parent.bottom
                anchors.horizontalCenter: parent.horizontalCenter
                width: Math.min(parent.width, Brand.size(640))
                focus: true
                address: root.terms.address
                words: root.words
                onAccepted: root.terms.accept()
            }
        }
    }

    Component {
        id: mainContent

        ContentView {
            focus: true
            vm: root.vm
            smart: root.smart
            openRouter: root.openRouter
            content: root.content
            words: root.words
        }
    }
}
