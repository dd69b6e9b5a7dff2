import QtQuick
import QtQuick.Layouts

// The brand and the way to the five modes.
FocusScope {
    id: sidebar

    required property int mode

    signal selected(int mode)

    ColumnLayout {
        anchors.fill: parent
        anchors.margins: Brand.size(12)
        spacing: Brand.size(4)

        RowLayout {
            Layout.fillWidth: true
            Layout.bottomMargin: Brand.size(14)
            Layout.topMargin: Brand.size(4)
            spacing: Brand.size(10)

            BrandIcon {
                size: 52
            }

            ColumnLayout {
                Layout.fillWidth: true
                spacing: Brand.size(2)

                Text {
                    Layout.fillWidth: true
                    text: "Quillvane"
                    color: Brand.text
                    font.pixelSize: Brand.size(17)
                    font.weight: Font.DemiBold
                    elide: Text.ElideRight
                    Accessible.role: Accessible.StaticText
                    Accessible.name: text
                }

                Text {
                    Layout.fillWidth: true
                    text: "Protected locally"
                    color: Brand.textDim
                    font.pixelSize: Brand.footnoteSize
                    elide: Text.ElideRight
                    Accessible.role: Accessible.StaticText
                    Accessible.name: text
                }
            }
        }

        ColumnLayout {
            Layout.fillWidth: true
            spacing: Brand.size(4)
            Accessible.role: Accessible.PageTabList
            Accessible.name: "Modes"

            Repeater {
                model: Modes.all

                NavigationRow {
                    required property var modelData
                    required property int index

                    Layout.fillWidth: true
                    focus: index === sidebar.mode // qmllint disable unqualified
                    title: modelData.name
                    systemImage: modelData.symbol
                    selected: index === sidebar.mode // qmllint disable unqualified
                    onClicked: sidebar.selected(index) // qmllint disable unqualified
                }
            }
        }

        Item {
            Layout.fillHeight: true
        }
    }
}
