import QtQuick
import QtQuick.Layouts

// A titled part of the Smart pane.
Surface {
    id: section

    required property string title
    required property string systemImage
    default property alias rows: column.data

    name: title

    ColumnLayout {
        id: column

        width: parent.width
        spacing: Brand.size(10)

        RowLayout {
            Layout.fillWidth: true
            spacing: Brand.size(8)

            Symbol {
                name: section.systemImage
                color: Brand.accent
                size: Brand.size(18)
            }

            Text {
                Layout.fillWidth: true
                text: section.title
                color: Brand.text
                font.pixelSize: Brand.size(14)
                font.weight: Font.DemiBold
                wrapMode: Text.Wrap
                Accessible.role: Accessible.Heading
                Accessible.name: text
            }
        }
    }
}
