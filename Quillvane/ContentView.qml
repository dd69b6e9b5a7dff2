import QtQuick
import QtQuick.Layouts
import Quillvane

// The main window: sidebar, workspace and inspector over a status bar, and the sheets.
FocusScope {
    id: view

    required property VaultViewModel vm
    required property SmartFolderManager smart
    required property OpenRouter openRouter
    required property ContentModel content
    required property SystemWords words

    // Sheets keep the window beneath from being used.
    readonly property bool sheetShown: guide.shown || about.shown || interrupted

    // These come by themselves, before a sheet that the user asked for.
    readonly property bool interrupted: recoveryKey.shown || itemOpened.shown || interruptedWork.shown

    // Not before the terms are accepted, which is when this is made.
    Component.onCompleted: content.interrupted.look()

    ColumnLayout {
        id: main

        // What had the keys before a sheet came, and gets them back.
        property Item last: null
        readonly property Item focused: Window.activeFocusItem

        function holds(item: Item): bool {
            for (let above = item; above; above = above.parent) {
                if (above === main)
                    return true;
            }
            return false;
        }

        anchors.fill: parent
        spacing: 0
        enabled: !view.sheetShown
        onFocusedChanged: {
            if (enabled && holds(focused))
                last = focused;
        }
        onEnabledChanged: {
            if (!enabled)
                return;
            const usable = holds(last) && last.enabled && last.visible;
            (usable ? last : sidebar).forceActiveFocus(Qt.TabFocusReason);
        }

        RowLayout {
            Layout.fillWidth: true
            Layout.fillHeight: true
            spacing: 0

            Sidebar {
                id: sidebar

                Layout.preferredWidth: 198
                Layout.fillHeight: true
                focus: true
                mode: view.vm.mode
                onSelected: mode => view.content.selectMode(mode)
            }

            Hairline {
                vertical: true
            }

            Workspace {
                Layout.fillWidth: true
                Layout.fillHeight: true
                vm: view.vm
                smart: view.smart
                content: view.content
                words: view.words
                onGuideRequested: guide.open()
                onAboutRequested: about.open()
            }

            Hairline {
                vertical: true
            }

            Inspector {
                Layout.preferredWidth: 240
                Layout.fillHeight: true
                mode: view.vm.mode
                words: view.words
            }
        }

        Hairline {}

        StatusBar {
            Layout.fillWidth: true
            busy: view.content.busy
            cancellable: view.content.cancellable
            committed: view.content.committed
            fraction: view.content.progressFraction
            message: view.content.statusMessage
            encryption: view.words.encryption
            driveName: view.content.driveName
            onCancelled: view.content.cancel()
            onKeysLost: {
                if (main.enabled)
                    sidebar.forceActiveFocus(Qt.TabFocusReason);
            }
        }
    }

    Repeater {
        model: Modes.all.length

        Item {
            id: mode

            required property int index

            Shortcut {
                sequence: "Ctrl+" + (mode.index + 1)
                enabled: !view.sheetShown // qmllint disable unqualified
                onActivated: view.content.selectMode(mode.index) // qmllint disable unqualified
            }
        }
    }

    GuideSheet {
        id: guide
        anchors.fill: parent
        enabled: shown && !view.interrupted
        words: view.words
    }

    AboutSheet {
        id: about
        anchors.fill: parent
        enabled: shown && !view.interrupted
        version: view.content.appVersion
        technology: view.words.technology
    }

    InterruptedSheet {
        id: interruptedWork
        anchors.fill: parent
        findings: view.content.interrupted
        // What the user has begun goes on before.
        shown: findings.any && !view.vm.isBusy && !view.smart.isBusy
        enabled: shown && !itemOpened.shown && !recoveryKey.shown
    }

    ItemOpenedSheet {
        id: itemOpened
        anchors.fill: parent
        content: view.content
        shown: view.content.pendingName !== ""
        enabled: shown && !recoveryKey.shown
    }

    RecoveryKeySheet {
        id: recoveryKey
        anchors.fill: parent
        content: view.content
        recoveryKey: view.vm.recoveryKeyToShow
    }
}
