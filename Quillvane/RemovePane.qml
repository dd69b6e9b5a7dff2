import QtQuick
import QtQuick.Layouts
import Quillvane

// Turns an item back into a folder.
ColumnLayout {
    id: pane

    required property VaultViewModel vm
    required property bool busy

    spacing: Brand.size(12)

    DropZone {
        Layout.fillWidth: true
        prompt: "Choose a locked item to turn back into a folder…"
        systemImage: "lock.open"
        isFolder: false
        url: pane.vm.removeImageURL
        enabled: !pane.busy
        onChooseRequested: pane.vm.chooseImageToRemove()
        onDroppedUrl: file => pane.vm.removeImageURL = file
    }

    UnlockFields {
        Layout.fillWidth: true
        password: pane.vm.removePassword
        useRecovery: pane.vm.removeUseRecovery
        recoveryKey: pane.vm.removeRecoveryKey
        disabled: pane.busy
        onPasswordEdited: text => pane.vm.removePassword = text
        onUseRecoveryEdited: on => pane.vm.removeUseRecovery = on
        onRecoveryKeyEdited: text => pane.vm.removeRecoveryKey = text
        onSubmitted: pane.vm.performRemove()
    }

    StatusRow {
        Layout.fillWidth: true
        systemImage: "exclamationmark.triangle.fill"
        symbolColor: Brand.error
        text: "After this finishes, anyone with the drive can read the folder."
    }

    PrimaryButton {
        Layout.fillWidth: true
        title: "Remove password"
        systemImage: "lock.open.fill"
        disabled: pane.busy
        onClicked: pane.vm.performRemove()
    }
}
