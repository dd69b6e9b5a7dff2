import QtQuick
import QtQuick.Controls.Basic
import Quillvane

// A line of text to type; a secure one is masked until its eye is pressed.
//
// A binding of `text` lasts: `edited` tells what the user made of it.
FocusScope {
    id: root

    enum Kind { Plain, Secure }

    property int kind: QVField.Plain
    property string placeholder
    property alias text: field.text
    property bool mono: false
    property bool reveal: false
    readonly property bool focused: field.activeFocus
    // What is typed into; the focus of the whole may be on its eye.
    readonly property Item line: field
    readonly property bool secure: kind === QVField.Secure

    signal edited(string newText)
    signal submitted

    implicitWidth: Brand.size(240)
    implicitHeight: Math.max(Brand.controlHeight, field.implicitHeight)
    opacity: enabled ? 1 : Brand.disabledOpacity

    TextField {
        id: field

        anchors.fill: parent
        focus: true
        leftPadding: Brand.spacing
        rightPadding: root.secure ? eye.width + Brand.size(4) : Brand.spacing
        verticalAlignment: TextInput.AlignVCenter
        font.pixelSize: Brand.bodySize
        font.family: root.mono ? SystemFonts.fixed : SystemFonts.family
        color: Brand.text
        placeholderText: root.placeholder
        placeholderTextColor: Brand.textDim
        selectionColor: Brand.accent
        selectedTextColor: Brand.bg
        echoMode: root.secure && !root.reveal ? TextInput.Password : TextInput.Normal
        passwordCharacter: "•"
        passwordMaskDelay: 0
        inputMethodHints: Qt.ImhSensitiveData | Qt.ImhNoPredictiveText | Qt.ImhNoAutoUppercase
                          | (root.secure ? Qt.ImhHiddenText : Qt.ImhNone)
        // Selecting with the mouse also copies, on systems that paste with its middle button.
        selectByMouse: false
        Accessible.name: root.placeholder
        Keys.onPressed: event => {
            // The history holds what was typed: a secure field gives nothing of it back.
            const back = root.secure && (event.matches(StandardKey.Undo)
                                         || event.matches(StandardKey.Redo));
            const cut = event.matches(StandardKey.Cut);
            const copy = cut || event.matches(StandardKey.Copy);
            if (copy && echoMode === TextInput.Normal && selectedText !== "") {
                SecretClipboard.copy(selectedText);
                if (cut) {
                    remove(selectionStart, selectionEnd);
                    root.edited(text);
                }
            }
            event.accepted = back || copy;
        }

        background: Rectangle {
            radius: Brand.radius
            color: Brand.field
            border.width: field.activeFocus ? 2 : 1
            border.color: field.activeFocus ? Brand.accent
                                            : field.hovered ? Brand.textDim : Brand.border
        }
        onTextEdited: {
            // What is pasted may end a line: that would be part of the password, unseen.
            const ends = /[\n\v\f\r\u0085\u2028\u2029]/g;
            if (ends.test(text)) { // else nothing makes a copy, which nobody could wipe
                const line = text.replace(ends, "");
                // Not by assigning it: the binding is to last.
                remove(0, length);
                insert(0, line);
            }
            root.edited(text);
        }
        onTextChanged: if (text === "") root.reveal = false
        onAccepted: root.submitted()
    }

    AbstractButton {
        id: eye

        anchors.right: parent.right
        anchors.verticalCenter: parent.verticalCenter
        anchors.rightMargin: Brand.size(3)
        width: Brand.size(28)
        height: Brand.size(28)
        visible: root.secure
        hoverEnabled: true
        focusPolicy: Qt.TabFocus
        text: root.reveal ? "Hide password" : "Show password"
        Accessible.role: Accessible.Button
        Accessible.name: text
        Accessible.description: root.placeholder
        Accessible.onPressAction: clicked()
        Keys.onReturnPressed: clicked()
        Keys.onEnterPressed: clicked()
        onClicked: root.reveal = !root.reveal

        contentItem: Symbol {
            name: root.reveal ? "eye.slash" : "eye"
            color: eye.hovered || eye.down ? Brand.text : Brand.textDim
        }
        background: Item {
            FocusRing {
                visible: eye.visualFocus
                anchors.margins: 2
                radius: Brand.radiusSmall
            }
        }
        HelpTip {
            objectName: "help"
            visible: eye.hovered || eye.visualFocus
            text: eye.text
        }
    }
}
