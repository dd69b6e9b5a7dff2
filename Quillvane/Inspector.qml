import QtQuick
import QtQuick.Layouts
import Quillvane

// The right edge: what the mode does, and what protects the user.
Item {
    id: inspector

    required property int mode
    required property SystemWords words

    ScrollPane {
        anchors.fill: parent
        anchors.margins: Brand.size(16)
        name: "How it works"

        ColumnLayout {
            width: parent.width
            spacing: Brand.size(10)

            SectionTitle {
                text: "How it works"
            }

            BodyText {
                Layout.fillWidth: true
                text: Modes.all[inspector.mode].howItWorks.replace("%1", inspector.words.thisUser)
                color: Brand.textDim
            }

            SectionTitle {
                Layout.topMargin: Brand.size(10)
                text: "Security summary"
            }

            Repeater {
                model: [
                    {
                        symbol: "lock.shield.fill",
                        text: inspector.words.encryption
                    },
                    {
                        symbol: "desktopcomputer",
                        text: "Local only"
                    },
                    {
                        symbol: "key.fill",
                        text: "Password never stored"
                    },
                    {
                        symbol: "folder",
                        text: "Files stay in place"
                    }
                ]

                StatusRow {
                    required property var modelData

                    Layout.fillWidth: true
                    systemImage: modelData.symbol
                    symbolColor: Brand.accent
                    text: modelData.text
                }
            }

            StatusRow {
                Layout.fillWidth: true
                Layout.topMargin: Brand.size(10)
                systemImage: "exclamationmark.triangle.fill"
                symbolColor: Brand.error
                textColor: Brand.textDim
                text: "If you lose both your password and recovery key, the data can't be recovered. Keep a backup."
            }
        }
    }
}
