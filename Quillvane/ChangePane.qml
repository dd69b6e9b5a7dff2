import QtQuick
import QtQuick.Layouts
import Quillvane

// Changes an item's password.
ColumnLayout {
    id: pane

    required property VaultViewModel vm
    required property bool busy

    spacing: Brand.size(12)

    DropZone {
        Layout.fillWidth: true
        prompt: "Choose a locked item…"
        systemImage: "pencil"
        isFolder: false
        url: pane.vm.changeImageURL
        enabled: !pane.busy
        onChooseRequested: pane.vm.chooseImageToChange()
        onDroppedUrl: file => pane.vm.changeImageURL = file
    }

    BodyText {
        Layout.fillWidth: true
        text: "Current password or recovery key"
        color: Brand.textDim
    }

    UnlockFields {
        Layout.fillWidth: true
        name: "Current password or recovery key"
        password: pane.vm.changeCurrentPassword
        useRecovery: pane.vm.changeUseRecovery
        recoveryKey: pane.vm.changeRecoveryKey
        disabled: pane.busy
        onPasswordEdited: text => pane.vm.changeCurrentPassword = text
        onUseRecoveryEdited: on => pane.vm.changeUseRecovery = on
        onRecoveryKeyEdited: text => pane.vm.changeRecoveryKey = text
        onSubmitted: pane.vm.performChangePassword()
    }

    QVField {
        Layout.fillWidth: true
        kind: QVField.Secure
        placeholder: "New password"
        text: pane.vm.changeNewPassword
        enabled: !pane.busy
        onEdited: text => pane.vm.changeNewPassword = text
        onSubmitted: pane.vm.performChangePassword()
    }

    QVField {
        Layout.fillWidth: true
        kind: QVField.Secure
        placeholder: "Repeat new password"
        text: pane.vm.changeNewConfirm
        enabled: !pane.busy
        onEdited: text => pane.vm.changeNewConfirm = text
        onSubmitted: pane.vm.performChangePassword()
    }

    StatusRow {
        Layout.fillWidth: true
        systemImage: "info.circle"
        symbolColor: Brand.textDim
        text: "The folder stays protected during this change. Your recovery key does not change."
    }

    PrimaryButton {
        Layout.fillWidth: true
        title: "Change password"
        systemImage: "key.fill"
        disabled: pane.busy
        onClicked: pane.vm.performChangePassword()
    }
}
