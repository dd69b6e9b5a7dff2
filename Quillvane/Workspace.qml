import QtQuick
import QtQuick.Layouts
import Quillvane

// The middle of the window: header, the mode's pane and the messages.
FocusScope {
    id: workspace

    required property VaultViewModel vm
    required property SmartFolderManager smart
    required property ContentModel content
    required property SystemWords words

    readonly property var texts: Modes.all[workspace.vm.mode]
    // Where the buttons leave no room for the mode's title beside them.
    readonly property bool narrow: width < Brand.size(480)

    signal guideRequested
    signal aboutRequested

    ColumnLayout {
        anchors.fill: parent
        anchors.margins: Brand.size(18)
        spacing: Brand.size(14)

        ColumnLayout {
            Layout.fillWidth: true
            spacing: Brand.size(6)

            Item {
                Layout.fillWidth: true
                implicitHeight: title.y + Math.max(title.implicitHeight, buttons.implicitHeight)

                Text {
                    id: title

                    anchors.left: parent.left
                    anchors.right: workspace.narrow ? parent.right : buttons.left
                    anchors.rightMargin: workspace.narrow ? 0 : Brand.size(8)
                    y: workspace.narrow ? buttons.height + Brand.size(8) : 0
                    text: workspace.texts.title
                    color: Brand.text
                    font.pixelSize: Brand.size(20)
                    font.weight: Font.DemiBold
                    wrapMode: Text.WordWrap
                    Accessible.role: Accessible.Heading
                    Accessible.name: text
                }

                Row {
                    id: buttons

                    anchors.right: parent.right
                    spacing: Brand.size(8)

                    GhostButton {
                        title: "Guide"
                        systemImage: "questionmark.circle"
                        onClicked: workspace.guideRequested()
                    }

                    GhostButton {
                        title: "About Quillvane"
                        systemImage: "info.circle"
                        onClicked: workspace.aboutRequested()
                    }
                }
            }

            BodyText {
                Layout.fillWidth: true
                text: workspace.texts.subtitle
                color: Brand.textDim
            }
        }

        ScrollPane {
            Layout.fillWidth: true
            Layout.fillHeight: true
            // The bar stands in the margin.
            Layout.rightMargin: -gutter
            Layout.leftMargin: -ring
            Layout.topMargin: -ring
            // With nothing below, it scrolls through the margin.
            Layout.bottomMargin: messages.visible ? 0 : -endSpace
            endSpace: messages.visible ? 0 : Brand.size(18)
            name: workspace.texts.title

            Loader {
                // Wider fields would be harder to read, not easier.
                width: Math.min(parent.width, Brand.size(640))
                sourceComponent: [lockPane, openPane, removePane, changePane, smartPane][workspace.vm.mode]
            }
        }

        StatusArea {
            id: messages

            Layout.fillWidth: true
            Layout.leftMargin: -ring
            Layout.rightMargin: -gutter
            errorMessage: workspace.content.errorMessage
            wasCancelled: workspace.content.wasCancelled
            successMessage: workspace.content.successMessage
        }
    }

    // The linter does not follow ids of the file into a component.
    // qmllint disable unqualified

    Component {
        id: lockPane

        LockPane {
            vm: workspace.vm
            busy: workspace.content.busy
        }
    }

    Component {
        id: openPane

        OpenPane {
            vm: workspace.vm
            content: workspace.content
            words: workspace.words
        }
    }

    Component {
        id: removePane

        RemovePane {
            vm: workspace.vm
            busy: workspace.content.busy
        }
    }

    Component {
        id: changePane

        ChangePane {
            vm: workspace.vm
            busy: workspace.content.busy
        }
    }

    Component {
        id: smartPane

        SmartPane {
            vm: workspace.vm
            smart: workspace.smart
            content: workspace.content
            words: workspace.words
        }
    }
}
