import QtQuick
import QtQuick.Layouts

// What came of the last operation. A long message scrolls: the pane above it stays usable.
ScrollPane {
    id: area

    required property string errorMessage
    // The error is what the user asked for.
    required property bool wasCancelled
    required property string successMessage

    visible: errorMessage !== "" || successMessage !== ""
    implicitHeight: Math.min(contentHeight, Brand.size(120))
    name: "Messages"
    onErrorMessageChanged: contentY = 0
    onSuccessMessageChanged: contentY = 0

    ColumnLayout {
        width: parent.width
        spacing: Brand.size(8)

        StatusRow {
            Layout.fillWidth: true
            visible: area.errorMessage !== ""
            alert: true
            systemImage: area.wasCancelled ? "info.circle" : "exclamationmark.triangle.fill"
            symbolColor: area.wasCancelled ? Brand.textDim : Brand.error
            text: area.errorMessage
        }

        StatusRow {
            Layout.fillWidth: true
            visible: area.successMessage !== ""
            alert: true
            systemImage: "checkmark.circle.fill"
            symbolColor: Brand.accent
            text: area.successMessage
        }
    }
}
