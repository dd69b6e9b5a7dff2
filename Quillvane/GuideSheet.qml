import QtQuick
import QtQuick.Layouts
import Quillvane

// What the program does, mode by mode.
Sheet {
    id: guide

    required property SystemWords words

    readonly property var rows: [
        {
            symbol: "lock.fill",
            title: "Lock",
            text: "Turn an existing folder into a protected item, in place. It becomes “<name>.quillvane”. The original folder is deleted only after the data has been copied in and verified."
        },
        {
            symbol: "folder",
            title: "Open",
            text: "Unlock an item with your password (or recovery key) and mount it as a working folder. Work on the files normally, then eject it to lock it again."
        },
        {
            symbol: "lock.open",
            title: "Remove",
            text: "Turn a locked item back into a normal, unprotected folder in the same place. Fully reversible. From then on, anyone with the drive can read it."
        },
        {
            symbol: "pencil",
            title: "Change",
            text: "Set a new password. Only the key is re-wrapped, so it's instant — the encrypted data isn't rewritten. Your recovery key stays the same."
        },
        {
            symbol: "wand.and.stars",
            title: "Smart Folder",
            text: "An item that looks like a normal folder. Double-click it, enter your password, and it opens in place — then re-locks itself after inactivity, screen lock, logout, or when you quit the app."
        },
        {
            symbol: "key.horizontal.fill",
            title: "Recovery key",
            text: "When you protect a folder, Quillvane shows a recovery key once. It's the only way back in if you forget your password — keep it somewhere separate from this drive."
        },
        {
            symbol: "exclamationmark.shield.fill",
            title: "Security",
            text: "Your password is never stored. If you lose BOTH your password and your recovery key, the data cannot be recovered — there is no backdoor. While an item is open, its contents are readable by any app on " + guide.words.yourComputer + "."
        }
    ]

    name: "Guide"
    firstFocus: close
    onDismissed: shown = false

    header: RowLayout {
        width: parent.width

        SheetHeader {
            Layout.fillWidth: true
            systemImage: "book.closed.fill"
            title: "Guide"
        }

        IconButton {
            id: close

            systemImage: "xmark.circle.fill"
            name: "Close"
            onClicked: guide.dismissed()
        }
    }

    ColumnLayout {
        width: parent.width
        spacing: Brand.size(14)

        BodyText {
            Layout.fillWidth: true
            text: "Quillvane puts a password on a folder that already exists — right where it is. Locked, it's an encrypted item nobody can open without the password (AES-256), even on " + guide.words.anotherComputer + ". Keep a backup of important data before you start."
        }

        Repeater {
            model: guide.rows

            RowLayout {
                id: row

                required property var modelData

                Layout.fillWidth: true
                spacing: Brand.size(12)

                Symbol {
                    Layout.alignment: Qt.AlignTop
                    name: row.modelData.symbol
                    color: Brand.accent
                    size: Brand.size(20)
                }

                ColumnLayout {
                    Layout.fillWidth: true
                    spacing: Brand.size(2)

                    SectionTitle {
                        text: row.modelData.title
                    }

                    BodyText {
                        Layout.fillWidth: true
                        text: row.modelData.text
                        color: Brand.textDim
                    }
                }
            }
        }
    }
}
