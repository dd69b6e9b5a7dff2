#include "ControlsWindow.h"

namespace {

constexpr auto buttons = R"(
    Column {
        property int primary: 0
        property int ghost: 0
        PrimaryButton {
            objectName: "primary"; focus: true; title: "Lock with password"
            systemImage: "lock.fill"; onClicked: ++parent.primary
        }
        GhostButton {
            objectName: "ghost"; title: "Guide"; systemImage: "questionmark.circle"
            onClicked: ++parent.ghost
        }
    })";

TEST(ButtonsTest, reactToMouseAndKeyboard) {
    ControlsWindow window(buttons);
    window.click("primary");
    EXPECT_EQ(window.rootNumber("primary"), 1);
    window.item("primary").forceActiveFocus(Qt::TabFocusReason);
    for (const auto key : {Qt::Key_Space, Qt::Key_Return, Qt::Key_Enter}) window.press(key);
    EXPECT_EQ(window.rootNumber("primary"), 4);
    window.press(Qt::Key_Tab);
    EXPECT_EQ(window.focused().objectName(), "ghost");
    for (const auto key : {Qt::Key_Space, Qt::Key_Return, Qt::Key_Enter}) window.press(key);
    window.click("ghost");
    EXPECT_EQ(window.rootNumber("ghost"), 4);
    EXPECT_EQ(window.rootNumber("primary"), 4);
}

TEST(ButtonsTest, doNotReactWhenDisabled) {
    ControlsWindow window(buttons);
    for (const auto* name : {"primary", "ghost"}) {
        window.item(name).forceActiveFocus(Qt::TabFocusReason);
        window.set(name, "disabled", true);
        window.click(name);
        window.press(Qt::Key_Return);
        window.press(Qt::Key_Space);
        EXPECT_EQ(window.rootNumber(name), 0) << name;
        window.accessible(window.item(name))
            .actionInterface()
            ->doAction(QAccessibleActionInterface::pressAction());
        window.set(name, "disabled", false);
        window.click(name);
        EXPECT_EQ(window.rootNumber(name), 1) << name;
    }
}

TEST(ButtonsTest, areKnownToAssistiveTechnology) {
    ControlsWindow window(buttons);
    auto& primary = window.accessible(window.item("primary"));
    EXPECT_EQ(primary.role(), QAccessible::Button);
    EXPECT_EQ(window.accessibleName(window.item("primary")), "Lock with password");
    EXPECT_EQ(window.accessibleName(window.item("ghost")), "Guide");
    ASSERT_NE(primary.actionInterface(), nullptr);
    primary.actionInterface()->doAction(QAccessibleActionInterface::pressAction());
    EXPECT_EQ(window.rootNumber("primary"), 1);
}

TEST(ButtonsTest, destructiveOnesAreDrawnInTheColourOfErrors) {
    ControlsWindow window(R"(
        Row {
            GhostButton { objectName: "plain"; title: "Cancel" }
            GhostButton { objectName: "bad"; title: "Delete"; role: GhostButton.Destructive }
        })");
    EXPECT_EQ(window.value("plain", "colour").value<QColor>(), QColor("#E9ECF5"));
    EXPECT_EQ(window.value("bad", "colour").value<QColor>(), QColor("#FF6B6B"));
}

TEST(ButtonsTest, growWithTheirTitles) {
    ControlsWindow window(R"(
        Row {
            PrimaryButton { objectName: "short"; title: "Open" }
            PrimaryButton { objectName: "long"; title: "Open in place"; systemImage: "folder.fill" }
        })");
    EXPECT_GT(window.item("long").implicitWidth(), window.item("short").implicitWidth() + 20);
}

TEST(CheckToggleTest, isTickedByMouseKeyboardAndAssistiveTechnology) {
    ControlsWindow window(R"(
        Item {
            width: 300; height: 60
            property bool agreed: false
            CheckToggle {
                objectName: "toggle"; text: "I agree"; checked: parent.agreed
                onToggled: parent.agreed = checked
            }
        })");
    QQuickItem& root = *window.view().rootObject();
    auto& toggle = window.accessible(window.item("toggle"));
    EXPECT_EQ(toggle.role(), QAccessible::CheckBox);
    EXPECT_EQ(window.accessibleName(window.item("toggle")), "I agree");
    window.click("toggle");
    EXPECT_TRUE(root.property("agreed").toBool());
    EXPECT_TRUE(toggle.state().checked);
    window.item("toggle").forceActiveFocus(Qt::TabFocusReason);
    window.press(Qt::Key_Space);
    EXPECT_FALSE(root.property("agreed").toBool());
    window.press(Qt::Key_Space);
    EXPECT_TRUE(root.property("agreed").toBool());
    toggle.actionInterface()->doAction(QAccessibleActionInterface::toggleAction());
    EXPECT_FALSE(root.property("agreed").toBool());
    // The binding has outlived all this.
    root.setProperty("agreed", true);
    EXPECT_TRUE(window.value("toggle", "checked").toBool());
}

} // namespace
