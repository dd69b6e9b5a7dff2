import QtQuick
import QtQuick.Layouts
import Quillvane

// The terms of use, shown until they are accepted.
FocusScope {
    id: gate

    required property url address
    required property SystemWords words
    property bool agreed: false

    signal accepted

    readonly property var points: [
        {
            symbol: "doc.text.fill",
            text: "Quillvane is licensed to you, not sold. By using it you agree to these terms and to the End User License Agreement at " + gate.address + ". If you do not agree, do not use Quillvane."
        },
        {
            symbol: "xmark.shield.fill",
            text: "NO WARRANTY. Quillvane is provided “AS IS” and “AS AVAILABLE”, without warranties of any kind, whether express or implied, including any implied warranties of merchantability, fitness for a particular purpose, title, non-infringement, reliability, availability, or accuracy."
        },
        {
            symbol: "hand.raised.fill",
            text: "USE AT YOUR OWN RISK. You alone are responsible for how you use Quillvane and for keeping independent, separate backups of your data before and while using it. Encryption carries inherent risk."
        },
        {
            symbol: "key.horizontal.fill",
            text: "DATA MAY BE LOST. The developer is not responsible for any loss, corruption, or inaccessibility of data. If you lose BOTH your password and your recovery key, your data is permanently unrecoverable — no one, including the developer, can recover it. There is no backdoor."
        },
        {
            symbol: "eye.trianglebadge.exclamationmark",
            text: "While a folder is open, its contents are readable by apps running as " + gate.words.yourAccount + "."
        },
        {
            symbol: "exclamationmark.triangle.fill",
            text: "LIMITATION OF LIABILITY. To the maximum extent permitted by applicable law, the developer shall not be liable for any direct, indirect, incidental, special, consequential, exemplary, or punitive damages, nor for any loss of data, profits, revenue, goodwill, or business, arising out of or related to your use of or inability to use Quillvane, even if advised of the possibility. The developer's total aggregate liability shall not exceed the amount you actually paid for the software (if any)."
        },
        {
            symbol: "checkmark.seal.fill",
            text: "Nothing in these terms limits rights that mandatory law gives you, as a consumer or otherwise. They are governed by the law of the maker's country. Should a provision be unenforceable, the rest remains in effect."
        }
    ]

    ColumnLayout {
        anchors.fill: parent
        anchors.margins: Brand.size(28)
        spacing: Brand.size(12)

        Symbol {
            Layout.alignment: Qt.AlignHCenter
            name: "hand.raised.fill"
            color: Brand.accent
            size: Brand.size(38)
        }

        Text {
            Layout.fillWidth: true
            horizontalAlignment: Text.AlignHCenter
            text: "Before you use Quillvane"
            color: Brand.text
            font.pixelSize: Brand.size(22)
            font.weight: Font.DemiBold
            wrapMode: Text.Wrap
            Accessible.role: Accessible.Heading
            Accessible.name: text
        }

        Text {
            Layout.fillWidth: true
            horizontalAlignment: Text.AlignHCenter
            text: "Please read and accept the following."
            color: Brand.textDim
            font.pixelSize: Brand.bodySize
            wrapMode: Text.Wrap
            Accessible.role: Accessible.StaticText
            Accessible.name: text
        }

        Surface {
            Layout.fillWidth: true
            Layout.fillHeight: true

            ScrollPane {
                anchors.fill: parent
                name: "Terms of use"

                ColumnLayout {
                    width: parent.width
                    spacing: Brand.size(12)

                    Repeater {
                        model: gate.points

                        RowLayout {
                            id: point

                            required property var modelData

                            Layout.fillWidth: true
                            spacing: Brand.size(10)

                            Item {
                                Layout.alignment: Qt.AlignTop
                                Layout.preferredWidth: Brand.size(24)
                                Layout.preferredHeight: Brand.size(20)

                                Symbol {
                                    anchors.centerIn: parent
                                    name: point.modelData.symbol
                                    color: Brand.accent
                                    size: Brand.size(16)
                                }
                            }

                            BodyText {
                                Layout.fillWidth: true
                                text: point.modelData.text
                            }
                        }
                    }
                }
            }
        }

        LinkText {
            Layout.alignment: Qt.AlignHCenter
            text: "Read the full Terms of Use & EULA"
            address: gate.address
        }

        CheckToggle {
            Layout.fillWidth: true
            focus: true
            text: "I have read, understood, and accept the Terms of Use and the End User License Agreement."
            checked: gate.agreed
            onToggled: gate.agreed = checked
        }

        PrimaryButton {
            Layout.fillWidth: true
            title: "Agree and continue"
            systemImage: "checkmark"
            disabled: !gate.agreed
            onClicked: gate.accepted()
        }

        Text {
            Layout.fillWidth: true
            horizontalAlignment: Text.AlignHCenter
            text: "© 2026 The Quillvane developers"
            color: Brand.textDim
            font.pixelSize: Brand.footnoteSize
            elide: Text.ElideRight
            Accessible.role: Accessible.StaticText
            Accessible.name: text
        }
    }
}
