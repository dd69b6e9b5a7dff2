pragma Singleton

import QtQuick

// The five modes of the window by their numbers in the view model, and their texts.
QtObject {
    readonly property int lock: 0
    readonly property int open: 1
    readonly property int remove: 2
    readonly property int change: 3
    readonly property int smart: 4

    // %1 in a text stands for the words for the user of this computer.
    readonly property var all: [
        {
            symbol: "lock.fill",
            name: "Lock",
            title: "Lock a folder",
            subtitle: "Choose an existing folder. Quillvane protects it in the same place on the drive.",
            howItWorks: "Quillvane copies your folder into an encrypted container, verifies every file, and only then removes the original — same place, same name. You'll get a recovery key to save."
        },
        {
            symbol: "folder",
            name: "Open",
            title: "Open a protected folder",
            subtitle: "Enter the password or recovery key to mount the folder for work.",
            howItWorks: "The folder is mounted as a normal working volume. Work as usual, then eject it to lock it again. Nothing is written to disk in the clear."
        },
        {
            symbol: "lock.open",
            name: "Remove",
            title: "Remove password protection",
            subtitle: "Turn the protected item back into a normal folder in the same place.",
            howItWorks: "The contents are copied back into a normal folder and the encrypted container is deleted. Reversible — but afterwards anyone with the drive can read it."
        },
        {
            symbol: "pencil",
            name: "Change",
            title: "Change the password",
            subtitle: "Only the key wrapping changes. Your encrypted files are not copied again, and the recovery key stays the same.",
            howItWorks: "Only the small key file is re-wrapped with the new password. Your files are not re-encrypted or copied, so it's instant. The recovery key is unchanged."
        },
        {
            symbol: "wand.and.stars",
            name: "Smart",
            title: "Open as a Smart Folder",
            subtitle: "Work in place, then let Quillvane lock the folder again after inactivity, screen lock, logout, or app quit.",
            howItWorks: "The folder opens in place and re-locks itself automatically. Convenient — but while it's open, its contents are readable by any app running as %1."
        }
    ]
}
