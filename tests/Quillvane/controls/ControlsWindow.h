#pragma once

#include "Quillvane/SymbolProvider.h"

#include <QAccessible>
#include <QGuiApplication>
#include <QQmlComponent>
#include <QQmlContext>
#include <QQmlEngine>
#include <QQuickItem>
#include <QQuickView>
#include <QStringList>
#include <QTest>

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>

/// A shown window with the item that a text of QML describes. Every warning while it lives fails
/// the test.
class ControlsWindow {
public:
    explicit ControlsWindow(const QByteArray& qml) {
        previousHandler_ = qInstallMessageHandler(&gather);
        warnings().clear();
        QAccessible::setActive(true);
        QQmlEngine* engine = view_.engine();
        engine->addImportPath("qrc:/qt/qml");
        engine->addImageProvider("symbol", new SymbolProvider);
        const QUrl url("qrc:/ControlsWindow.qml");
        component_ = std::make_unique<QQmlComponent>(engine);
        component_->setData("import QtQuick\nimport QtQuick.Layouts\nimport Quillvane\n" + qml,
                            url);
        QObject* content = component_->create();
        if (content == nullptr) throw std::runtime_error(qPrintable(component_->errorString()));
        content->setParent(&view_);
        view_.setContent(url, component_.get(), content);
        view_.show();
        view_.requestActivate();
        if (!QTest::qWaitForWindowActive(&view_)) throw std::runtime_error("window not active");
    }
    ~ControlsWindow() {
        EXPECT_EQ(warnings().join('\n').toStdString(), "");
        qInstallMessageHandler(previousHandler_);
    }
    ControlsWindow(const ControlsWindow&) = delete;
    ControlsWindow& operator=(const ControlsWindow&) = delete;

    QQuickView& view() { return view_; }
    /// The object with this name, which must be there.
    QQuickItem& item(const char* objectName) const {
        auto* found = view_.rootObject()->objectName() == objectName
                          ? view_.rootObject()
                          : view_.rootObject()->findChild<QQuickItem*>(objectName);
        if (found == nullptr) throw std::runtime_error(std::string("no item ") + objectName);
        return *found;
    }
    QVariant value(const char* objectName, const char* property) const {
        return item(objectName).property(property);
    }
    std::string text(const char* objectName, const char* property = "text") const {
        return value(objectName, property).toString().toStdString();
    }
    /// A property of the root.
    std::string rootText(const char* property) const {
        return view_.rootObject()->property(property).toString().toStdString();
    }
    int rootNumber(const char* property) const {
        return view_.rootObject()->property(property).toInt();
    }
    bool set(const char* objectName, const char* property, const QVariant& value) const {
        return item(objectName).setProperty(property, value);
    }

    void press(Qt::Key key, Qt::KeyboardModifiers modifiers = Qt::NoModifier) {
        QTest::keyClick(&view_, key, modifiers);
    }
    void type(const char* characters) {
        for (; *characters != '\0'; ++characters) QTest::keyClick(&view_, *characters);
    }
    /// In the item's middle.
    void click(QQuickItem& target) {
        const QPointF middle(target.width() / 2, target.height() / 2);
        QTest::mouseClick(&view_, Qt::LeftButton, {}, target.mapToScene(middle).toPoint());
    }
    void click(const char* objectName) { click(item(objectName)); }

    /// What assistive technology sees of the item.
    static QAccessibleInterface& accessible(QQuickItem& target) {
        auto* found = QAccessible::queryAccessibleInterface(&target);
        if (found == nullptr) throw std::runtime_error("nothing accessible");
        return *found;
    }
    static std::string accessibleName(QQuickItem& target) {
        return accessible(target).text(QAccessible::Name).toStdString();
    }
    /// What has the keyboard, as assistive technology sees it.
    QQuickItem& focused() const {
        auto* found = view_.activeFocusItem();
        if (found == nullptr) throw std::runtime_error("nothing has the keyboard");
        return *found;
    }

private:
    static QStringList& warnings() {
        static QStringList list;
        return list;
    }
    static void gather(QtMsgType type, const QMessageLogContext&, const QString& message) {
        if (type != QtDebugMsg && type != QtInfoMsg) warnings() << message;
    }

    QtMessageHandler previousHandler_ = nullptr;
    std::unique_ptr<QQmlComponent> component_;
    QQuickView view_;
};
