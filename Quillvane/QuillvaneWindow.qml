import QtQuick
import QtQuick.Controls.Basic
import Quillvane

// The application's one window, as large as its contents want to be.
ApplicationWindow {
    id: window

    required property VaultViewModel vm
    required property SmartFolderManager smart
    required property OpenRouter openRouter
    required property ContentModel content
    required property TermsOfUse terms
    required property SystemWords words

    title: "Quillvane"
    visible: true
    color: Brand.bg
    // It grows when the terms are accepted, and stays as the user made it where that is larger.
    width: terms.accepted ? Math.max(root.implicitWidth, before.width) : root.implicitWidth
    height: terms.accepted ? Math.max(root.implicitHeight, before.height) : root.implicitHeight
    minimumWidth: root.minimumWidth
    minimumHeight: root.minimumHeight
    font.pixelSize: Brand.bodySize

    property size before: Qt.size(0, 0)
    onWidthChanged: noteSize()
    onHeightChanged: noteSize()

    function noteSize() {
        if (!terms.accepted)
            before = Qt.size(width, height);
    }

    onClosing: close => {
        close.accepted = window.content.mayClose;
        if (close.accepted)
            return;
        refusal.text = window.content.busy ? "Quillvane can be closed as soon as this is done." : "Save your recovery key first. It is shown only now.";
        refusal.open();
    }

    RootView {
        id: root
        anchors.fill: parent
        vm: window.vm
        smart: window.smart
        openRouter: window.openRouter
        content: window.content
        terms: window.terms
        words: window.words
    }

    // Why the window stays.
    HelpTip {
        id: refusal

        parent: root
        x: (root.width - width) / 2
        y: root.height - height - Brand.size(44)
        delay: 0
        timeout: 6000
        padding: Brand.spacing
        font.pixelSize: Brand.bodySize
    }
}
