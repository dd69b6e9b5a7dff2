import QtQuick
import QtQuick.Layouts
import Quillvane

// Makes Smart Folders, opens them in place, and lists those that are open.
ColumnLayout {
    id: pane

    required property VaultViewModel vm
    required property SmartFolderManager smart
    required property ContentModel content
    required property SystemWords words

    spacing: Brand.size(14)

    SmartSection {
        Layout.fillWidth: true
        title: "Create a Smart Folder"
        systemImage: "folder.badge.gearshape"

        DropZone {
            Layout.fillWidth: true
            prompt: "Choose a folder to make smart…"
            systemImage: "folder.badge.plus"
            isFolder: true
            url: pane.vm.smartCreateFolderURL
            enabled: !pane.content.busy
            onChooseRequested: pane.vm.chooseSmartCreateFolder()
            onDroppedUrl: file => pane.vm.smartCreateFolderURL = file
        }

        QVField {
            Layout.fillWidth: true
            kind: QVField.Secure
            placeholder: "Password"
            text: pane.vm.smartCreatePassword
            enabled: !pane.content.busy
            onEdited: text => pane.vm.smartCreatePassword = text
            onSubmitted: pane.content.createSmartFolder()
        }

        QVField {
            Layout.fillWidth: true
            kind: QVField.Secure
            placeholder: "Repeat password"
            text: pane.vm.smartCreateConfirm
            enabled: !pane.content.busy
            onEdited: text => pane.vm.smartCreateConfirm = text
            onSubmitted: pane.content.createSmartFolder()
        }

        PrimaryButton {
            Layout.fillWidth: true
            title: "Create Smart Folder"
            systemImage: "wand.and.stars"
            disabled: pane.content.busy
            onClicked: pane.content.createSmartFolder()
        }
    }

    SmartSection {
        Layout.fillWidth: true
        title: "Open in place"
        systemImage: "arrow.up.forward.app"

        DropZone {
            Layout.fillWidth: true
            prompt: "Choose a Smart Folder…"
            systemImage: "lock.fill"
            isFolder: false
            url: pane.vm.smartActivateURL
            enabled: !pane.content.busy
            onChooseRequested: pane.vm.chooseSmartActivateImage()
            onDroppedUrl: file => pane.vm.smartActivateURL = file
        }

        UnlockFields {
            Layout.fillWidth: true
            password: pane.vm.smartActivatePassword
            useRecovery: pane.vm.smartActivateUseRecovery
            recoveryKey: pane.vm.smartActivateRecoveryKey
            disabled: pane.content.busy
            onPasswordEdited: text => pane.vm.smartActivatePassword = text
            onUseRecoveryEdited: on => pane.vm.smartActivateUseRecovery = on
            onRecoveryKeyEdited: text => pane.vm.smartActivateRecoveryKey = text
            onSubmitted: pane.content.activateSmartFolder()
        }

        PrimaryButton {
            Layout.fillWidth: true
            title: "Open in place"
            systemImage: "folder.fill"
            disabled: pane.content.busy
            onClicked: pane.content.activateSmartFolder()
        }
    }

    SmartSection {
        Layout.fillWidth: true
        title: "Open Smart Folders"
        systemImage: "folder.fill"

        BodyText {
            Layout.fillWidth: true
            visible: folders.count === 0
            text: "None is open."
            color: Brand.textDim
        }

        Repeater {
            id: folders

            model: pane.smart.active

            SmartFolderRow {
                required property string folderId

                Layout.fillWidth: true
                disabled: pane.content.busy // qmllint disable unqualified
                onShowRequested: pane.content.showSmartFolder(folderId) // qmllint disable unqualified
                onCloseRequested: pane.content.closeSmartFolder(folderId) // qmllint disable unqualified
            }
        }

        RowLayout {
            Layout.fillWidth: true
            spacing: Brand.size(10)

            BodyText {
                Layout.fillWidth: true
                text: "Auto-close after"
            }

            MinutesPicker {
                minutes: pane.smart.timeoutMinutes
                onPicked: minutes => pane.smart.timeoutMinutes = minutes
            }
        }
    }

    StatusRow {
        Layout.fillWidth: true
        systemImage: "exclamationmark.triangle.fill"
        symbolColor: Brand.error
        text: "While a Smart Folder is open, its contents are readable by processes running as " + pane.words.thisUser + "."
    }
}
