#include "ControlsWindow.h"
#include "Quillvane/SecretText.h"

#include <QClipboard>
#include <QFontInfo>
#include <QGuiApplication>
#include <QInputMethodEvent>
#include <QMimeData>

namespace {

constexpr int normalEcho = 0;
constexpr int passwordEcho = 2;

/// A field bound to a value elsewhere, as the forms bind theirs.
constexpr auto secureField = R"(
    Item {
        id: form
        width: 300; height: 60
        property string password
        property int submissions: 0
        QVField {
            objectName: "field"; focus: true; width: 280
            kind: QVField.Secure; placeholder: "Password"
            text: form.password
            onEdited: newText => form.password = newText
            onSubmitted: ++form.submissions
        }
    })";

/// The part of a field into which is typed.
QQuickItem& input(ControlsWindow& window, const char* field = "field") {
    for (QQuickItem* child : window.item(field).childItems())
        if (child->property("echoMode").isValid()) return *child;
    throw std::runtime_error("no input");
}
/// The button that reveals a secure field's text.
QQuickItem& eye(ControlsWindow& window, const char* field = "field") {
    for (QQuickItem* child : window.item(field).childItems())
        if (child->property("down").isValid()) return *child;
    throw std::runtime_error("no eye");
}
int echo(ControlsWindow& window, const char* field = "field") {
    return input(window, field).property("echoMode").toInt();
}
std::string shown(ControlsWindow& window) {
    return input(window).property("displayText").toString().toStdString();
}

TEST(FieldTest, whatIsTypedReachesTheFormAndTheOtherWayRound) {
    ControlsWindow window(secureField);
    window.type("secret");
    EXPECT_EQ(window.rootText("password"), "secret");
    window.view().rootObject()->setProperty("password", "other");
    EXPECT_EQ(window.text("field"), "other");
    window.type("!");
    EXPECT_EQ(window.rootText("password"), "other!");
    window.view().rootObject()->setProperty("password", "");
    EXPECT_EQ(window.text("field"), "") << "wiping works after typing, too";
}

TEST(FieldTest, aPastedLineEndIsNoPartOfAPassword) {
    ControlsWindow window(secureField);
    for (const char* pasted : {"pass\n", " \r\nword\u2028", "\n"}) {
        QGuiApplication::clipboard()->setText(pasted);
        window.press(Qt::Key_V, Qt::ControlModifier);
    }
    EXPECT_EQ(window.rootText("password"), "pass word");
    EXPECT_EQ(window.text("field"), "pass word");
    window.view().rootObject()->setProperty("password", "");
    EXPECT_EQ(window.text("field"), "") << "the binding lasts";
}

TEST(FieldTest, whatIsCopiedIsMarkedAndStays) {
    ControlsWindow window(R"(
        Item {
            id: form
            width: 300; height: 60
            property string key
            QVField {
                objectName: "field"; focus: true; width: 280
                text: form.key
                onEdited: newText => form.key = newText
            }
        })");
    window.type("ABCD");
    window.press(Qt::Key_A, Qt::ControlModifier);
    window.press(Qt::Key_C, Qt::ControlModifier);
    QString typed = window.view().rootObject()->property("key").toString();
    wipeText(typed);
    const QMimeData& copied = *QGuiApplication::clipboard()->mimeData();
    EXPECT_EQ(copied.text(), "ABCD");
    EXPECT_EQ(copied.data("x-kde-passwordManagerHint"), "secret");
    window.view().rootObject()->setProperty("key", "EFGH");
    window.press(Qt::Key_A, Qt::ControlModifier);
    window.press(Qt::Key_X, Qt::ControlModifier);
    EXPECT_EQ(QGuiApplication::clipboard()->text(), "EFGH");
    EXPECT_EQ(window.rootText("key"), "");
}

TEST(FieldTest, nothingIsCopiedFromAMaskedField) {
    ControlsWindow window(secureField);
    QGuiApplication::clipboard()->setText("before");
    window.type("secret");
    for (const auto key : {Qt::Key_A, Qt::Key_C, Qt::Key_X}) window.press(key, Qt::ControlModifier);
    EXPECT_EQ(QGuiApplication::clipboard()->text(), "before");
    EXPECT_EQ(window.rootText("password"), "secret");
}

TEST(FieldTest, returnSubmits) {
    ControlsWindow window(secureField);
    window.press(Qt::Key_Return);
    window.type("a");
    window.press(Qt::Key_Enter);
    EXPECT_EQ(window.rootNumber("submissions"), 2);
    window.press(Qt::Key_Space);
    EXPECT_EQ(window.rootNumber("submissions"), 2);
}

TEST(FieldTest, theEyeShowsTheTextAndMasksItAgain) {
    ControlsWindow window(secureField);
    window.type("secret");
    EXPECT_EQ(echo(window), passwordEcho);
    EXPECT_EQ(shown(window).find_first_of("secrt"), std::string::npos);
    EXPECT_EQ(window.accessibleName(eye(window)), "Show password");
    window.click(eye(window));
    EXPECT_EQ(echo(window), normalEcho);
    EXPECT_EQ(shown(window), "secret");
    EXPECT_EQ(window.accessibleName(eye(window)), "Hide password");
    window.type("s");
    EXPECT_EQ(window.rootText("password"), "secrets") << "the field has kept the keyboard";
    window.click(eye(window));
    EXPECT_EQ(echo(window), passwordEcho);
    EXPECT_EQ(window.rootText("password"), "secrets");
}

TEST(FieldTest, theEyeIsNextInTheTabOrder) {
    ControlsWindow window(secureField);
    EXPECT_EQ(&window.focused(), &input(window));
    window.press(Qt::Key_Tab);
    EXPECT_EQ(&window.focused(), &eye(window));
    window.press(Qt::Key_Space);
    EXPECT_EQ(echo(window), normalEcho);
    window.press(Qt::Key_Return);
    EXPECT_EQ(echo(window), passwordEcho);
    window.press(Qt::Key_Backtab, Qt::ShiftModifier);
    EXPECT_EQ(&window.focused(), &input(window));
}

TEST(FieldTest, theEyesHelpFollowsItsState) {
    ControlsWindow window(secureField);
    auto* tip = eye(window).findChild<QObject*>("help");
    ASSERT_NE(tip, nullptr);
    EXPECT_FALSE(tip->property("visible").toBool());
    EXPECT_EQ(tip->property("text").toString(), QString("Show password"));
    window.press(Qt::Key_Tab);
    EXPECT_TRUE(QTest::qWaitFor([tip] { return tip->property("visible").toBool(); }));
    window.press(Qt::Key_Space);
    EXPECT_EQ(tip->property("text").toString(), QString("Hide password"));
}

TEST(FieldTest, anEmptiedFieldIsMaskedAgain) {
    ControlsWindow window(secureField);
    window.type("secret");
    window.click(eye(window));
    window.view().rootObject()->setProperty("password", "");
    EXPECT_EQ(echo(window), passwordEcho);
    window.type("a");
    EXPECT_EQ(echo(window), passwordEcho);
    window.click(eye(window));
    window.press(Qt::Key_Backspace);
    EXPECT_EQ(echo(window), passwordEcho);
}

TEST(FieldTest, aSecureFieldGivesNothingBack) {
    ControlsWindow window(secureField);
    window.type("secret");
    window.click(eye(window));
    window.press(Qt::Key_A, Qt::ControlModifier);
    window.type("x");
    window.press(Qt::Key_Z, Qt::ControlModifier);
    EXPECT_EQ(window.text("field"), "x");
    window.press(Qt::Key_Z, Qt::ControlModifier | Qt::ShiftModifier);
    EXPECT_EQ(window.text("field"), "x");
}

TEST(FieldTest, inputMethodsAreToldThatItIsSecret) {
    ControlsWindow window(secureField);
    QInputMethodQueryEvent query(Qt::ImHints);
    QCoreApplication::sendEvent(&input(window), &query);
    const auto hints = Qt::InputMethodHints(query.value(Qt::ImHints).toInt());
    EXPECT_TRUE(hints.testFlag(Qt::ImhHiddenText));
    EXPECT_TRUE(hints.testFlag(Qt::ImhSensitiveData));
    EXPECT_TRUE(hints.testFlag(Qt::ImhNoPredictiveText));
    EXPECT_EQ(input(window).property("passwordMaskDelay").toInt(), 0);
}

TEST(FieldTest, isKnownToAssistiveTechnology) {
    ControlsWindow window(secureField);
    window.type("secret");
    auto& field = window.accessible(input(window));
    EXPECT_EQ(field.role(), QAccessible::EditableText);
    EXPECT_EQ(field.text(QAccessible::Name).toStdString(), "Password");
    EXPECT_TRUE(field.state().passwordEdit);
    EXPECT_TRUE(field.state().focused);
    EXPECT_EQ(window.accessible(eye(window)).role(), QAccessible::Button);
}

TEST(FieldTest, assistiveTechnologyReadsTheMask) {
    ControlsWindow window(secureField);
    window.type("secret");
    auto& field = window.accessible(input(window));
    ASSERT_NE(field.textInterface(), nullptr);
    EXPECT_EQ(field.text(QAccessible::Value), QString("••••••"));
    EXPECT_EQ(field.textInterface()->text(1, 3), QString("••"));
    EXPECT_EQ(field.textInterface()->characterCount(), 6);
    EXPECT_EQ(field.textInterface()->cursorPosition(), 6);
    window.click(eye(window));
    EXPECT_EQ(field.text(QAccessible::Value), QString("secret"));
    EXPECT_FALSE(field.state().passwordEdit);
}

TEST(FieldTest, assistiveTechnologyMovesTheKeyboard) {
    ControlsWindow window(secureField);
    window.press(Qt::Key_Tab);
    auto& field = window.accessible(input(window));
    ASSERT_NE(field.actionInterface(), nullptr);
    EXPECT_EQ(field.actionInterface()->actionNames(),
              QStringList{QAccessibleActionInterface::setFocusAction()});
    field.actionInterface()->doAction(QAccessibleActionInterface::setFocusAction());
    EXPECT_EQ(&window.focused(), &input(window));
}

TEST(FieldTest, assistiveTechnologyFindsItsWayInTheText) {
    ControlsWindow window(R"(
        QVField { objectName: "field"; width: 280; focus: true; text: "ABCD" })");
    auto& field = window.accessible(input(window));
    auto& text = *field.textInterface();
    text.setCursorPosition(2);
    EXPECT_EQ(text.cursorPosition(), 2);
    EXPECT_EQ(text.selectionCount(), 0);
    text.addSelection(1, 3);
    int start = 0;
    int end = 0;
    text.selection(0, &start, &end);
    EXPECT_EQ(start, 1);
    EXPECT_EQ(end, 3);
    text.removeSelection(0);
    EXPECT_EQ(text.selectionCount(), 0);
    EXPECT_TRUE(field.rect().contains(text.characterRect(1).center()));
    EXPECT_LT(text.characterRect(1).left(), text.characterRect(2).left());
    EXPECT_EQ(text.offsetAtPoint(text.characterRect(2).center() + QPoint(2, 0)), 2);
    EXPECT_EQ(text.offsetAtPoint(field.rect().bottomRight()), -1);
    ASSERT_NE(field.parent(), nullptr);
    EXPECT_GE(field.parent()->indexOfChild(&field), 0) << "known from both sides";
    window.set("field", "enabled", false);
    EXPECT_TRUE(field.state().disabled);
}

TEST(FieldTest, aPlainFieldHasNoEye) {
    ControlsWindow window(R"qml(
        QVField {
            objectName: "field"; width: 280; focus: true
            placeholder: "Recovery key (XXXX-XXXX-…)"; mono: true
        })qml");
    EXPECT_FALSE(eye(window).isVisible());
    window.type("ABCD");
    EXPECT_EQ(shown(window), "ABCD");
    const auto font = input(window).property("font").value<QFont>();
    EXPECT_TRUE(QFontInfo(font).fixedPitch());
    EXPECT_FALSE(window.accessible(input(window)).state().passwordEdit);
}

constexpr auto unlockFields = R"(
    UnlockFields {
        id: fields
        objectName: "fields"
        width: 300
        property string storedPassword: "old"
        property string storedKey
        property bool storedChoice: false
        property int submissions: 0
        password: storedPassword; onPasswordEdited: newText => storedPassword = newText
        useRecovery: storedChoice; onUseRecoveryEdited: newValue => storedChoice = newValue
        recoveryKey: storedKey; onRecoveryKeyEdited: newText => storedKey = newText
        onSubmitted: ++submissions
    })";

TEST(UnlockFieldsTest, keepPasswordAndRecoveryKeyApart) {
    ControlsWindow window(unlockFields);
    window.press(Qt::Key_Tab);
    EXPECT_EQ(window.accessibleName(window.focused()), "Password");
    window.type("er");
    window.press(Qt::Key_Return);
    EXPECT_EQ(window.rootText("storedPassword"), "older");
    window.press(Qt::Key_Tab);
    EXPECT_EQ(window.accessibleName(window.focused()), "Show password");
    window.press(Qt::Key_Tab);
    EXPECT_EQ(window.accessibleName(window.focused()), "Use recovery key instead");
    window.press(Qt::Key_Space);
    EXPECT_EQ(window.rootText("storedChoice"), "true");
    window.press(Qt::Key_Backtab, Qt::ShiftModifier);
    EXPECT_EQ(window.accessibleName(window.focused()), "Recovery key (XXXX-XXXX-…)");
    window.type("AB-CD");
    window.press(Qt::Key_Return);
    EXPECT_EQ(window.rootText("storedKey"), "AB-CD");
    EXPECT_EQ(window.rootText("storedPassword"), "older");
    EXPECT_EQ(window.rootNumber("submissions"), 2);
}

TEST(UnlockFieldsTest, followTheFormAfterEditing) {
    ControlsWindow window(unlockFields);
    window.press(Qt::Key_Tab);
    window.type("er");
    QQuickItem& root = *window.view().rootObject();
    root.setProperty("storedPassword", "");
    root.setProperty("storedChoice", true);
    root.setProperty("storedKey", "WXYZ");
    EXPECT_EQ(window.text("fields", "password"), "");
    EXPECT_EQ(window.text("fields", "recoveryKey"), "WXYZ");
    EXPECT_TRUE(window.value("fields", "useRecovery").toBool());
}

TEST(UnlockFieldsTest, doNothingWhenDisabled) {
    ControlsWindow window(unlockFields);
    window.press(Qt::Key_Tab);
    window.set("fields", "disabled", true);
    window.type("er");
    window.press(Qt::Key_Return);
    for (QQuickItem* child : window.item("fields").childItems()) window.click(*child);
    window.type("er");
    EXPECT_EQ(window.rootText("storedPassword"), "old");
    EXPECT_EQ(window.rootText("storedChoice"), "false");
    EXPECT_EQ(window.rootNumber("submissions"), 0);
}

} // namespace
