import QtQuick

// The application's icon; a shield where it cannot be loaded.
Item {
    id: icon

    property int size: 52

    implicitWidth: size
    implicitHeight: size
    Accessible.ignored: true

    Image {
        id: image

        anchors.fill: parent
        source: "qrc:/quillvane/AppIcon.svg"
        sourceSize.width: icon.size
        sourceSize.height: icon.size
        smooth: true
    }

    Symbol {
        anchors.centerIn: parent
        visible: image.status === Image.Error
        name: "lock.shield.fill"
        color: Brand.accent
        size: icon.size * 0.8
    }
}
