import QtQuick
import QtQuick.Layouts

// The password of an item, or its recovery key instead.
//
// Bindings of the three values last: the signals tell what the user made of them.
ColumnLayout {
    id: root

    // What they unlock, where that is not plain from what they are in.
    property string name: ""
    property alias password: passwordField.text
    property alias useRecovery: toggle.checked
    property alias recoveryKey: recoveryKeyField.text
    property bool disabled: false
    // Where typing begins.
    readonly property Item firstField: useRecovery ? recoveryKeyField.line : passwordField.line

    signal passwordEdited(string newText)
    signal useRecoveryEdited(bool newValue)
    signal recoveryKeyEdited(string newText)
    signal submitted

    enabled: !disabled
    spacing: Brand.size(8)
    Accessible.role: Accessible.Grouping
    Accessible.name: name
    Accessible.ignored: name === ""

    QVField {
        id: passwordField

        Layout.fillWidth: true
        kind: QVField.Secure
        placeholder: "Password"
        visible: !root.useRecovery
        onEdited: newText => root.passwordEdited(newText)
        onSubmitted: root.submitted()
    }
    QVField {
        id: recoveryKeyField

        Layout.fillWidth: true
        kind: QVField.Plain
        mono: true
        placeholder: "Recovery key (XXXX-XXXX-…)"
        visible: root.useRecovery
        onEdited: newText => root.recoveryKeyEdited(newText)
        onSubmitted: root.submitted()
    }
    CheckToggle {
        id: toggle

        Layout.fillWidth: true
        text: "Use recovery key instead"
        font.pixelSize: Brand.footnoteSize
        onToggled: root.useRecoveryEdited(checked)
    }
}
