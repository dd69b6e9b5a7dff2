import QtQuick
import QtQuick.Layouts
import Quillvane

// Opens an item as a volume, and closes the one that is open.
ColumnLayout {
    id: pane

    required property VaultViewModel vm
    required property ContentModel content
    required property SystemWords words

    spacing: Brand.size(12)

    DropZone {
        Layout.fillWidth: true
        prompt: "Choose a locked item to open…"
        systemImage: "lock.fill"
        isFolder: false
        url: pane.vm.openImageURL
        enabled: !pane.content.busy
        onChooseRequested: pane.vm.chooseImageToOpen()
        onDroppedUrl: file => pane.vm.openImageURL = file
    }

    UnlockFields {
        Layout.fillWidth: true
        password: pane.vm.openPassword
        useRecovery: pane.vm.openUseRecovery
        recoveryKey: pane.vm.openRecoveryKey
        disabled: pane.content.busy
        onPasswordEdited: text => pane.vm.openPassword = text
        onUseRecoveryEdited: on => pane.vm.openUseRecovery = on
        onRecoveryKeyEdited: text => pane.vm.openRecoveryKey = text
        onSubmitted: pane.vm.performOpen()
    }

    PrimaryButton {
        Layout.fillWidth: true
        title: "Open"
        systemImage: "lock.open.fill"
        disabled: pane.content.busy
        onClicked: pane.vm.performOpen()
    }

    Surface {
        Layout.fillWidth: true
        visible: pane.vm.openedMountPoint !== ""

        ColumnLayout {
            width: parent.width
            spacing: Brand.size(10)

            RowLayout {
                Layout.fillWidth: true
                spacing: Brand.size(10)

                Symbol {
                    Layout.alignment: Qt.AlignTop
                    name: "checkmark.seal.fill"
                    color: Brand.accent
                    size: Brand.size(20)
                }

                ColumnLayout {
                    Layout.fillWidth: true
                    spacing: Brand.size(2)

                    BodyText {
                        Layout.fillWidth: true
                        text: "Mounted"
                        font.weight: Font.DemiBold
                    }

                    BodyText {
                        Layout.fillWidth: true
                        text: pane.vm.openedMountPoint
                        color: Brand.textDim
                        wrapMode: Text.WrapAnywhere
                    }
                }
            }

            Flow {
                Layout.fillWidth: true
                spacing: Brand.size(8)

                GhostButton {
                    title: pane.words.showInFileManager
                    systemImage: "folder"
                    disabled: pane.content.busy
                    onClicked: pane.content.showMountPoint()
                }

                GhostButton {
                    title: "Close and lock"
                    systemImage: "eject.fill"
                    disabled: pane.content.busy
                    onClicked: pane.vm.performClose()
                }
            }
        }
    }
}
