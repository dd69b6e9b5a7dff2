#include "ControlsWindow.h"

namespace {

QStringList actions(ControlsWindow& window, const char* name) {
    return ControlsWindow::accessible(window.item(name)).actionInterface()->actionNames();
}

void act(ControlsWindow& window, const char* name, const QString& action) {
    ControlsWindow::accessible(window.item(name)).actionInterface()->doAction(action);
}

/// All that assistive technology sees below an item, a line each: the role's number and the name.
std::string tree(QAccessibleInterface& top, int depth = 0) {
    std::string lines;
    for (int i = 0; i < top.childCount(); ++i) {
        QAccessibleInterface* const child = top.child(i);
        if (child == nullptr || child->state().invisible) continue;
        EXPECT_EQ(child->parent(), &top) << child->text(QAccessible::Name).toStdString();
        EXPECT_EQ(top.indexOfChild(child), i);
        lines += std::string(static_cast<std::size_t>(depth), ' ') +
                 qPrintable(qAccessibleRoleString(child->role()));
        lines +=
            " " + child->text(QAccessible::Name).toStdString() + "\n" + tree(*child, depth + 1);
    }
    return lines;
}

std::string tree(ControlsWindow& window) {
    return tree(*QAccessible::queryAccessibleInterface(&window.view()));
}

const QString press = QAccessibleActionInterface::pressAction();
const QString toggle = QAccessibleActionInterface::toggleAction();
const QString focus = QAccessibleActionInterface::setFocusAction();

constexpr auto everything = R"(
    Column {
        property int presses: 0
        property bool ticked: false
        PrimaryButton { objectName: "primary"; title: "Lock"; onClicked: ++parent.presses }
        GhostButton { objectName: "ghost"; title: "Guide"; onClicked: ++parent.presses }
        IconButton {
            objectName: "icon"; name: "Close"; systemImage: "xmark"; onClicked: ++parent.presses
        }
        NavigationRow {
            objectName: "row"; title: "Open"; systemImage: "folder"; onClicked: ++parent.presses
        }
        LinkText {
            objectName: "link"; text: "Terms"; address: ""
            onClicked: ++parent.presses
        }
        DropZone {
            objectName: "zone"; prompt: "Choose…"; systemImage: "folder"
            onChooseRequested: ++parent.presses
        }
        CheckToggle {
            objectName: "toggle"; text: "I agree"; checked: parent.ticked
            onToggled: parent.ticked = checked
        }
        MinutesPicker { objectName: "picker"; minutes: 5 }
    })";

TEST(AccessTest, everyControlHasItsRoleAndName) {
    ControlsWindow window(everything);
    const auto expectIs = [&window](const char* item, QAccessible::Role role, const char* name) {
        EXPECT_EQ(ControlsWindow::accessible(window.item(item)).role(), role) << item;
        EXPECT_EQ(ControlsWindow::accessibleName(window.item(item)), name);
    };
    expectIs("primary", QAccessible::Button, "Lock");
    expectIs("ghost", QAccessible::Button, "Guide");
    expectIs("icon", QAccessible::Button, "Close");
    expectIs("row", QAccessible::PageTab, "Open");
    expectIs("link", QAccessible::Link, "Terms");
    expectIs("zone", QAccessible::Button, "Choose…");
    expectIs("toggle", QAccessible::CheckBox, "I agree");
    expectIs("picker", QAccessible::ComboBox, "Auto-close after");
}

TEST(AccessTest, theRoleOutlastsTheToolkits) {
    ControlsWindow window(everything);
    // As the toolkit's controls do when assistive technology comes.
    for (const auto* name : {"row", "link"})
        for (QObject* const child : window.item(name).QObject::children())
            if (child->inherits("QQuickAccessibleAttached"))
                child->setProperty("role", QAccessible::Button);
    EXPECT_EQ(ControlsWindow::accessible(window.item("row")).role(), QAccessible::PageTab);
    EXPECT_EQ(ControlsWindow::accessible(window.item("link")).role(), QAccessible::Link);
}

TEST(AccessTest, everyControlHasOneActionAndTakesTheFocus) {
    ControlsWindow window(everything);
    for (const auto* name : {"primary", "ghost", "icon", "row", "zone", "link", "picker"})
        EXPECT_EQ(actions(window, name), QStringList({press, focus})) << name;
    EXPECT_EQ(actions(window, "toggle"), QStringList({toggle, focus}));
    int presses = 0;
    for (const auto* name : {"primary", "ghost", "icon", "row", "zone", "link"}) {
        act(window, name, press);
        EXPECT_EQ(window.rootNumber("presses"), ++presses) << name;
    }
    for (const auto* name :
         {"primary", "ghost", "icon", "row", "zone", "link", "toggle", "picker"}) {
        EXPECT_TRUE(ControlsWindow::accessible(window.item(name)).state().focusable) << name;
        act(window, name, focus);
        EXPECT_EQ(&window.focused(), &window.item(name));
        EXPECT_TRUE(ControlsWindow::accessible(window.item(name)).state().focused) << name;
    }
}

TEST(AccessTest, theTabKeyReachesEveryControl) {
    ControlsWindow window(everything);
    for (const auto* name :
         {"primary", "ghost", "icon", "row", "link", "zone", "toggle", "picker"}) {
        window.press(Qt::Key_Tab);
        EXPECT_EQ(window.focused().objectName(), name);
        EXPECT_TRUE(window.value(name, "visualFocus").toBool()) << name;
    }
}

TEST(AccessTest, whatIsDisabledIsSaidToBe) {
    ControlsWindow window(everything);
    QQuickItem& all = *window.view().rootObject();
    for (const auto* name : {"primary", "row", "zone", "toggle", "picker"}) {
        auto& control = ControlsWindow::accessible(window.item(name));
        all.setEnabled(true);
        EXPECT_FALSE(control.state().disabled) << name;
        all.setEnabled(false);
        EXPECT_TRUE(control.state().disabled) << name;
        EXPECT_FALSE(control.state().focusable) << name;
        EXPECT_FALSE(control.state().invisible) << name;
        for (const QString& action : actions(window, name))
            control.actionInterface()->doAction(action);
    }
    EXPECT_EQ(window.rootNumber("presses"), 0);
    EXPECT_EQ(window.rootText("ticked"), "false");
}

TEST(AccessTest, theCurrentRowIsSelected) {
    ControlsWindow window(everything);
    auto& row = ControlsWindow::accessible(window.item("row"));
    EXPECT_TRUE(row.state().selectable);
    EXPECT_FALSE(row.state().selected);
    window.set("row", "selected", true);
    EXPECT_TRUE(row.state().selected);
}

TEST(AccessTest, thePickerTellsItsChoiceAndOpensItsList) {
    ControlsWindow window(everything);
    auto& picker = ControlsWindow::accessible(window.item("picker"));
    EXPECT_EQ(picker.text(QAccessible::Description), QString("5 min"));
    window.set("picker", "minutes", 15);
    EXPECT_EQ(picker.text(QAccessible::Description), QString("15 min"));
    act(window, "picker", press);
    EXPECT_TRUE(
        QTest::qWaitFor([&window] { return tree(window).find("30 min") != std::string::npos; }));
}

TEST(AccessTest, textsAreThereOnceAndTakeNoFocus) {
    ControlsWindow window(R"(
        ColumnLayout {
            SectionTitle { objectName: "title"; text: "Title" }
            BodyText { objectName: "body"; text: "Body" }
            StatusRow { systemImage: "folder"; text: "Row" }
            StatusArea { errorMessage: "Failed"; wasCancelled: false; successMessage: "" }
            StatusBar {
                busy: false; cancellable: false; committed: false; fraction: -1; message: ""
                encryption: "AES-256"; driveName: ""; implicitWidth: 400
            }
        })");
    EXPECT_EQ(tree(window), "Heading Title\nStaticText Body\nStaticText Row\nPane Messages\n"
                            " AlertMessage Failed\nStatusBar Ready\n StaticText AES-256\n");
    for (const auto* name : {"title", "body"}) {
        EXPECT_FALSE(ControlsWindow::accessible(window.item(name)).state().focusable);
        EXPECT_EQ(actions(window, name), QStringList());
    }
}

TEST(AccessTest, progressHasItsValue) {
    ControlsWindow window(R"(ProgressMark { objectName: "mark"; fraction: -1 })");
    auto& mark = ControlsWindow::accessible(window.item("mark"));
    EXPECT_EQ(mark.role(), QAccessible::ProgressBar);
    EXPECT_EQ(mark.valueInterface(), nullptr) << "not known";
    window.set("mark", "fraction", 0.25);
    ASSERT_NE(mark.valueInterface(), nullptr);
    EXPECT_EQ(mark.valueInterface()->currentValue().toDouble(), 25);
    EXPECT_EQ(mark.valueInterface()->minimumValue().toDouble(), 0);
    EXPECT_EQ(mark.valueInterface()->maximumValue().toDouble(), 100);
}

TEST(AccessTest, namedGroupsTellFieldsApart) {
    ControlsWindow window(R"(
        Column {
            width: 300
            Surface { QVField { placeholder: "Name" } }
            Surface { name: "Create"; QVField { kind: QVField.Secure; placeholder: "Password" } }
            UnlockFields { name: "Current password" }
        })");
    EXPECT_EQ(tree(window), "EditableText Name\n"
                            "Grouping Create\n EditableText Password\n Button Show password\n"
                            "Grouping Current password\n EditableText Password\n"
                            " Button Show password\n CheckBox Use recovery key instead\n");
}

TEST(AccessTest, theEyeTellsWhoseItIs) {
    ControlsWindow window(R"(QVField { kind: QVField.Secure; placeholder: "Repeat password" })");
    window.press(Qt::Key_Tab);
    window.press(Qt::Key_Tab);
    EXPECT_EQ(ControlsWindow::accessibleName(window.focused()), "Show password");
    EXPECT_EQ(ControlsWindow::accessible(window.focused()).text(QAccessible::Description),
              QString("Repeat password"));
}

constexpr auto scrolling = R"(
    ScrollPane {
        objectName: "pane"; name: "Text"; width: 200; height: 100
        Rectangle { width: 100; height: 300 }
    })";

TEST(AccessTest, aPaneThatScrollsIsReachedAndMarkedAndItsBarIsNot) {
    ControlsWindow window(scrolling);
    EXPECT_EQ(tree(window), "Pane Text\n");
    const QImage before = window.view().grabWindow();
    window.press(Qt::Key_Tab);
    EXPECT_EQ(window.focused().objectName(), "pane");
    EXPECT_NE(window.view().grabWindow(), before) << "the focus can be seen";
    window.press(Qt::Key_Down);
    EXPECT_GT(window.rootNumber("contentY"), 0);
    window.press(Qt::Key_Tab);
    EXPECT_EQ(window.focused().objectName(), "pane");
}

constexpr auto sheet = R"(
    Item {
        width: 600; height: 400
        Column {
            enabled: !sheet.shown
            PrimaryButton { objectName: "behind"; title: "Behind" }
            BodyText { text: "Text behind" }
        }
        Sheet {
            id: sheet
            objectName: "sheet"; name: "Guide"; anchors.fill: parent; firstFocus: inside
            PrimaryButton { id: inside; objectName: "inside"; title: "Inside" }
        }
    })";

TEST(AccessTest, aSheetKeepsAllBehindItOutOfReach) {
    ControlsWindow window(sheet);
    EXPECT_EQ(tree(window), "Button Behind\nStaticText Text behind\n");
    window.set("sheet", "shown", true);
    EXPECT_EQ(tree(window), "Dialog Guide\n Pane \n  Button Inside\n");
    EXPECT_TRUE(ControlsWindow::accessible(window.item("sheet")).state().modal);
    auto& behind = ControlsWindow::accessible(window.item("behind"));
    EXPECT_TRUE(behind.state().disabled);
    EXPECT_FALSE(behind.state().focusable);
    behind.actionInterface()->doAction(focus);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(window.focused().objectName(), "inside");
        window.press(Qt::Key_Tab);
    }
    window.set("sheet", "shown", false);
    EXPECT_EQ(tree(window), "Button Behind\nStaticText Text behind\n");
}

} // namespace
