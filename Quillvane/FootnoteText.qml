import QtQuick

// One small line.
Text {
    color: Brand.textDim
    font.pixelSize: Brand.footnoteSize
    textFormat: Text.PlainText
    elide: Text.ElideRight
    maximumLineCount: 1
    Accessible.role: Accessible.StaticText
    Accessible.name: text
}
