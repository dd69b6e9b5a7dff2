import QtQuick
import QtQuick.Layouts
import Quillvane

// Every control in every state that can be given to it.
Rectangle {
    id: gallery

    // A folder and an item that exist.
    property url folder
    property url item

    width: 900
    height: 700
    color: Brand.bg

    ColumnLayout {
        anchors.fill: parent
        anchors.margins: Brand.spacingLarge
        spacing: Brand.spacingLarge

        RowLayout {
            spacing: Brand.spacing

            PrimaryButton { title: "Lock with password"; systemImage: "lock.fill" }
            PrimaryButton {
                objectName: "focusedPrimary"
                title: "Open in place"
                systemImage: "folder.fill"
            }
            PrimaryButton { title: "Continue"; systemImage: "checkmark"; disabled: true }
            GhostButton { title: "Guide"; systemImage: "questionmark.circle" }
            GhostButton {
                title: "Delete"
                systemImage: "xmark"
                role: GhostButton.Destructive
            }
            GhostButton { title: "Close now"; systemImage: "eject.fill"; disabled: true }
        }
        RowLayout {
            spacing: Brand.spacingLarge

            Surface {
                Layout.fillWidth: true
                Layout.fillHeight: true

                ColumnLayout {
                    anchors.fill: parent
                    spacing: Brand.spacing

                    QVField {
                        Layout.fillWidth: true
                        kind: QVField.Secure
                        placeholder: "Password"
                    }
                    QVField {
                        Layout.fillWidth: true
                        kind: QVField.Secure
                        placeholder: "Repeat password"
                        text: "correct horse"
                    }
                    QVField {
                        Layout.fillWidth: true
                        kind: QVField.Secure
                        text: "correct horse"
                        reveal: true
                    }
                    QVField {
                        Layout.fillWidth: true
                        kind: QVField.Secure
                        text: "correct horse battery staple, which is longer than the field is"
                        reveal: true
                    }
                    QVField { Layout.fillWidth: true; placeholder: "Plain"; enabled: false }
                }
            }
            Surface {
                Layout.fillWidth: true
                Layout.fillHeight: true

                ColumnLayout {
                    anchors.fill: parent
                    spacing: Brand.spacing

                    UnlockFields { Layout.fillWidth: true }
                    UnlockFields {
                        Layout.fillWidth: true
                        useRecovery: true
                        recoveryKey: "ABCD-EFGH-IJKL-MNOP"
                    }
                    UnlockFields { Layout.fillWidth: true; disabled: true; password: "secret" }
                }
            }
        }
        GridLayout {
            columns: 2
            columnSpacing: Brand.spacingLarge
            rowSpacing: Brand.spacing

            DropZone {
                Layout.fillWidth: true
                isFolder: true
                prompt: "Choose the folder to protect…"
                systemImage: "folder.badge.plus"
            }
            DropZone {
                objectName: "target"
                Layout.fillWidth: true
                prompt: "Choose a locked item to open…"
                systemImage: "lock.fill"
            }
            DropZone {
                Layout.fillWidth: true
                isFolder: true
                systemImage: "folder.badge.plus"
                url: gallery.folder
            }
            DropZone { Layout.fillWidth: true; systemImage: "lock.fill"; url: gallery.item }
            DropZone {
                Layout.fillWidth: true
                enabled: false
                prompt: "Choose a locked item…"
                systemImage: "pencil"
            }
            CheckToggle {
                Layout.fillWidth: true
                checked: true
                text: "I have read, understood, and accept the Terms of Use and the End User License Agreement."
            }
        }
        Item { Layout.fillHeight: true }
    }
}
