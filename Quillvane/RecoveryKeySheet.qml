import QtQuick
import QtQuick.Layouts
import Quillvane

// Shows a recovery key once; it stays until the user says that it is saved.
Sheet {
    id: sheet

    required property ContentModel content
    required property string recoveryKey

    name: "Save your recovery key now"
    shown: recoveryKey !== ""
    dismissible: false
    // Not a button: a second Return would press it.
    firstFocus: key

    header: SheetHeader {
        width: parent.width
        systemImage: "key.horizontal.fill"
        title: "Save your recovery key now"
    }

    ColumnLayout {
        width: parent.width
        spacing: Brand.size(14)

        BodyText {
            Layout.fillWidth: true
            text: "Quillvane shows this key once. Store it somewhere separate from this drive."
        }

        Rectangle {
            Layout.fillWidth: true
            implicitHeight: key.implicitHeight + 2 * Brand.size(12)
            radius: Brand.size(8)
            color: Brand.field
            border.width: key.activeFocus ? 2 : 1
            border.color: key.activeFocus ? Brand.accent : Brand.border

            TextEdit {
                id: key

                anchors.left: parent.left
                anchors.right: parent.right
                anchors.verticalCenter: parent.verticalCenter
                anchors.margins: Brand.size(12)
                text: sheet.recoveryKey
                color: Brand.text
                selectionColor: Brand.accent
                selectedTextColor: Brand.bg
                font.family: SystemFonts.fixed
                font.pixelSize: Brand.size(15)
                horizontalAlignment: TextEdit.AlignHCenter
                wrapMode: TextEdit.Wrap
                readOnly: true
                selectByMouse: true
                activeFocusOnTab: true
                Keys.onPressed: event => {
                    // As the button does it, which marks it as a secret.
                    event.accepted = event.matches(StandardKey.Copy);
                    if (event.accepted)
                        sheet.content.copyRecoveryKey();
                }
                Accessible.role: Accessible.EditableText
                Accessible.name: "Recovery key"
                Accessible.readOnly: true
            }
        }

        Flow {
            Layout.fillWidth: true
            spacing: Brand.size(8)

            GhostButton {
                title: sheet.content.copied ? "Copied" : "Copy key"
                systemImage: sheet.content.copied ? "checkmark" : "doc.on.doc"
                onClicked: sheet.content.copyRecoveryKey()
            }

            GhostButton {
                title: "Save as text file"
                systemImage: "square.and.arrow.down"
                onClicked: sheet.content.saveRecoveryKey()
            }
        }

        CheckToggle {
            Layout.fillWidth: true
            text: "I saved my recovery key"
            checked: sheet.content.recoverySaved
            onToggled: sheet.content.recoverySaved = checked
        }

        PrimaryButton {
            Layout.alignment: Qt.AlignHCenter
            Layout.preferredWidth: Brand.size(150)
            title: "Continue"
            systemImage: "checkmark"
            disabled: !sheet.content.recoverySaved
            onClicked: sheet.content.continueAfterRecoveryKey()
        }
    }
}
