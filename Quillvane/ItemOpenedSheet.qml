import QtQuick
import QtQuick.Layouts
import Quillvane

// Asks for the password of an item that was opened from the file manager.
Sheet {
    id: sheet

    required property ContentModel content

    name: "Open protected folder"
    sheetWidth: 400
    firstFocus: unlock.firstField
    onDismissed: content.cancelDoubleClickOpen()

    header: SheetHeader {
        width: parent.width
        systemImage: "lock.shield.fill"
        title: "Open protected folder"
    }

    ColumnLayout {
        width: parent.width
        spacing: Brand.size(14)

        StatusRow {
            Layout.fillWidth: true
            systemImage: "folder.fill"
            symbolColor: Brand.accent
            text: sheet.content.pendingName
        }

        BodyText {
            Layout.fillWidth: true
            text: "It will open in place and close by itself after inactivity, screen lock, or logout."
            color: Brand.textDim
        }

        UnlockFields {
            id: unlock

            Layout.fillWidth: true
            password: sheet.content.doubleClickPassword
            useRecovery: sheet.content.doubleClickUseRecovery
            recoveryKey: sheet.content.doubleClickRecoveryKey
            disabled: sheet.content.busy
            onPasswordEdited: text => sheet.content.doubleClickPassword = text
            onUseRecoveryEdited: on => sheet.content.doubleClickUseRecovery = on
            onRecoveryKeyEdited: text => sheet.content.doubleClickRecoveryKey = text
            onSubmitted: sheet.content.confirmDoubleClickOpen()
        }

        RowLayout {
            Layout.fillWidth: true
            spacing: Brand.size(8)

            GhostButton {
                Layout.preferredWidth: Brand.size(140)
                Layout.preferredHeight: Brand.controlHeight
                title: "Cancel"
                systemImage: "xmark"
                onClicked: sheet.content.cancelDoubleClickOpen()
            }

            PrimaryButton {
                Layout.fillWidth: true
                title: "Open"
                systemImage: "lock.open.fill"
                disabled: sheet.content.busy
                onClicked: sheet.content.confirmDoubleClickOpen()
            }
        }
    }
}
