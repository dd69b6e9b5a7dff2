import QtQuick
import QtQuick.Layouts
import Quillvane

// Protects a folder.
ColumnLayout {
    id: pane

    required property VaultViewModel vm
    required property bool busy

    spacing: Brand.size(12)

    DropZone {
        Layout.fillWidth: true
        prompt: "Choose the folder to protect…"
        systemImage: "folder.badge.plus"
        isFolder: true
        url: pane.vm.lockFolderURL
        enabled: !pane.busy
        onChooseRequested: pane.vm.chooseFolderToLock()
        onDroppedUrl: file => pane.vm.lockFolderURL = file
    }

    QVField {
        Layout.fillWidth: true
        kind: QVField.Secure
        placeholder: "Password"
        text: pane.vm.lockPassword
        enabled: !pane.busy
        onEdited: text => pane.vm.lockPassword = text
        onSubmitted: pane.vm.performLock()
    }

    QVField {
        Layout.fillWidth: true
        kind: QVField.Secure
        placeholder: "Repeat password"
        text: pane.vm.lockConfirm
        enabled: !pane.busy
        onEdited: text => pane.vm.lockConfirm = text
        onSubmitted: pane.vm.performLock()
    }

    PrimaryButton {
        Layout.fillWidth: true
        title: "Lock with password"
        systemImage: "lock.fill"
        disabled: pane.busy
        onClicked: pane.vm.performLock()
    }
}
