import QtQuick
import QtQuick.Layouts
import Quillvane

// Tells what was interrupted, and ends it as the user chooses.
Sheet {
    id: sheet

    required property InterruptedFindings findings

    readonly property string symbol: !findings.isChoice ? "checkmark" : findings.isProtection ? "lock.fill" : "lock.open.fill"

    // It can be typed into.
    readonly property bool asks: findings.needsSecret && !findings.isBusy
    readonly property string told: findings.text

    onAsksChanged: changing.restart()
    onToldChanged: changing.restart()

    function takeKeys() {
        if (enabled)
            firstFocus.forceActiveFocus(Qt.TabFocusReason);
    }

    name: "An operation was interrupted"
    dismissible: !findings.isBusy
    // Not a button: a Return that was meant for something else would press it.
    firstFocus: asks ? fields.firstField : nothing
    onDismissed: findings.later()

    // Fires once all that has changed together is there.
    Timer {
        id: changing
        interval: 0
        onTriggered: sheet.takeKeys()
    }

    header: [
        SheetHeader {
            width: parent.width
            systemImage: "exclamationmark.triangle.fill"
            title: sheet.name
        },
        Item {
            id: nothing
        }
    ]

    ColumnLayout {
        width: parent.width
        spacing: Brand.size(14)

        BodyText {
            Layout.fillWidth: true
            text: sheet.findings.text
            Accessible.role: Accessible.AlertMessage
        }

        StatusRow {
            Layout.fillWidth: true
            visible: text !== "" && !sheet.findings.isBusy
            alert: true
            systemImage: sheet.findings.wasCancelled ? "info.circle" : "exclamationmark.triangle.fill"
            symbolColor: sheet.findings.wasCancelled ? Brand.textDim : Brand.error
            text: sheet.findings.errorMessage
        }

        UnlockFields {
            id: fields

            Layout.fillWidth: true
            visible: sheet.asks
            password: sheet.findings.password
            useRecovery: sheet.findings.useRecovery
            recoveryKey: sheet.findings.recoveryKey
            onPasswordEdited: text => sheet.findings.password = text
            onUseRecoveryEdited: on => sheet.findings.useRecovery = on
            onRecoveryKeyEdited: text => sheet.findings.recoveryKey = text
            onSubmitted: sheet.findings.submit()
        }

        BodyText {
            Layout.fillWidth: true
            visible: text !== "" && !sheet.findings.isBusy
            text: sheet.findings.hint
            color: Brand.textDim
        }

        RowLayout {
            Layout.fillWidth: true
            visible: sheet.findings.isBusy
            spacing: Brand.size(8)

            ProgressMark {
                fraction: sheet.findings.progressFraction
            }

            FootnoteText {
                Layout.fillWidth: true
                text: sheet.findings.statusMessage
            }

            CancelChoice {
                cancellable: sheet.findings.cancellable
                committed: sheet.findings.committed
                onCancelled: sheet.findings.cancel()
                onKeysLost: sheet.takeKeys()
            }
        }

        PrimaryButton {
            Layout.fillWidth: true
            visible: !sheet.findings.isBusy
            title: sheet.findings.finishLabel
            systemImage: sheet.symbol
            onClicked: sheet.findings.finish()
        }

        RowLayout {
            Layout.fillWidth: true
            visible: sheet.findings.isChoice && !sheet.findings.isBusy
            spacing: Brand.size(8)

            GhostButton {
                Layout.fillWidth: true
                Layout.preferredHeight: Brand.controlHeight
                visible: title !== ""
                title: sheet.findings.undoLabel
                systemImage: sheet.findings.isProtection ? "folder.fill" : "lock.fill"
                onClicked: sheet.findings.undo()
            }

            GhostButton {
                Layout.preferredWidth: Brand.size(140)
                Layout.preferredHeight: Brand.controlHeight
                title: "Later"
                systemImage: "xmark"
                onClicked: sheet.findings.later()
            }
        }
    }
}
