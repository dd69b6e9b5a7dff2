import QtQuick

// A paragraph of the interface.
Text {
    color: Brand.text
    font.pixelSize: Brand.bodySize
    lineHeight: 1.15
    textFormat: Text.PlainText
    wrapMode: Text.Wrap
    Accessible.role: Accessible.StaticText
    Accessible.name: text
}
