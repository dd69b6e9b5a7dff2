import QtQuick
import QtQuick.Layouts

// What the program is, and whose.
Sheet {
    id: about

    required property string version
    required property string technology

    name: "About Quillvane"
    sheetWidth: 380
    firstFocus: close
    onDismissed: shown = false

    ColumnLayout {
        width: parent.width
        spacing: Brand.size(10)

        BrandIcon {
            Layout.alignment: Qt.AlignHCenter
            size: Brand.size(64)
        }

        Text {
            Layout.fillWidth: true
            horizontalAlignment: Text.AlignHCenter
            text: "Quillvane"
            color: Brand.text
            font.pixelSize: Brand.size(22)
            font.weight: Font.DemiBold
            Accessible.role: Accessible.Heading
            Accessible.name: text
        }

        BodyText {
            Layout.fillWidth: true
            horizontalAlignment: Text.AlignHCenter
            text: "Version " + about.version
            color: Brand.textDim
        }

        BodyText {
            Layout.fillWidth: true
            horizontalAlignment: Text.AlignHCenter
            text: "Password-protect an existing folder. It stays right where it is."
        }

        BodyText {
            Layout.fillWidth: true
            horizontalAlignment: Text.AlignHCenter
            text: "If you lose both your password and recovery key, your data cannot be recovered. There is no backdoor."
            color: Brand.textDim
        }

        BodyText {
            Layout.fillWidth: true
            horizontalAlignment: Text.AlignHCenter
            text: about.technology
            color: Brand.textDim
        }

        BodyText {
            Layout.fillWidth: true
            horizontalAlignment: Text.AlignHCenter
            text: "© 2026 The Quillvane developers. All rights reserved."
            color: Brand.textDim
            font.pixelSize: Brand.footnoteSize
        }

        PrimaryButton {
            id: close

            Layout.alignment: Qt.AlignHCenter
            Layout.preferredWidth: Brand.size(140)
            title: "Close"
            systemImage: "checkmark"
            onClicked: about.dismissed()
        }
    }
}
