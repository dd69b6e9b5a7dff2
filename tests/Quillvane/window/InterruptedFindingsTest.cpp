#include "Quillvane/InterruptedFindings.h"
#include "tests/Quillvane/InterruptedFixture.h"
#include "tests/support/FakeTasks.h"
#include "tests/support/QtPrinting.h"

#include <QCoreApplication>
#include <QSignalSpy>

namespace {

namespace fs = std::filesystem;
using Operation = OperationNote::Operation;
using testing::ElementsAre;

class InterruptedFindingsTest : public InterruptedFixture {
protected:
    InterruptedFindingsTest() {
        QObject::connect(
            &findings, &InterruptedFindings::ended,
            [this](const InterruptedFindings::Ending& ending) { endings.push_back(ending); });
    }
    void look() {
        findings.look();
        looking.finish();
    }
    void lookBeside(const fs::path& subject) {
        findings.lookBeside(subject);
        looking.finish();
    }
    void type(const char* secret) {
        findings.password = secret;
        findings.recoveryKey = "of no use";
    }
    void expectWiped() const { EXPECT_EQ(findings.password + findings.recoveryKey, ""); }
    void expectNone() const {
        EXPECT_FALSE(findings.any());
        EXPECT_EQ(findings.text() + findings.finishLabel() + findings.undoLabel() +
                      findings.hint() + findings.errorMessage(),
                  "");
        EXPECT_FALSE(findings.needsSecret() || findings.isChoice() || findings.isBusy());
        expectWiped();
    }

    FakeTasks looking;
    FakeTasks tasks;
    InterruptedFindings findings{looking, tasks};
    std::vector<InterruptedFindings::Ending> endings;
};

// Looking

TEST_F(InterruptedFindingsTest, NothingIsThereAtFirst) {
    expectNone();
    look();
    expectNone();
    findings.finish();
    findings.undo();
    findings.submit();
    findings.later();
    findings.cancel();
    EXPECT_TRUE(tasks.started.empty());
}

TEST_F(InterruptedFindingsTest, LooksInTheBackground) {
    protectUntilCopied();
    const QSignalSpy told(&findings, &InterruptedFindings::changed);
    findings.look();
    EXPECT_FALSE(findings.any());
    looking.finish();
    EXPECT_EQ(told.count(), 1);
    EXPECT_EQ(findings.text().toStdString(),
              "Protecting \"Docs\" in " + parent.path().string() +
                  " was interrupted. The folder was whole then, and so was its encrypted copy.");
    EXPECT_EQ(findings.finishLabel(), "Finish protecting");
    EXPECT_EQ(findings.undoLabel(), "Keep the folder");
    EXPECT_TRUE(findings.isProtection());
    EXPECT_TRUE(findings.isChoice());
    EXPECT_TRUE(findings.needsSecret());
    EXPECT_EQ(findings.hint(), "");
}

TEST_F(InterruptedFindingsTest, TheOtherButtonMayNeedTheSecret) {
    protectUntilDeleted();
    look();
    EXPECT_TRUE(findings.isProtection());
    EXPECT_TRUE(findings.needsSecret());
    EXPECT_EQ(findings.hint(), "“Finish protecting” needs no password.");
    findings.submit(); // the field is not for finishing
    EXPECT_TRUE(tasks.started.empty());
}

TEST_F(InterruptedFindingsTest, WhatNeedsNoSecretAsksForNone) {
    protectUntilCopying();
    look();
    EXPECT_FALSE(findings.needsSecret());
    EXPECT_EQ(findings.hint(), "");
}

TEST_F(InterruptedFindingsTest, ASearchThatFailsFindsNothing) {
    removeUntilMade(/*copied=*/true);
    findings.look();
    looking.started.front().work = [] { throw std::runtime_error("no list of mounts"); };
    looking.finish();
    expectNone();
    look();
    EXPECT_TRUE(findings.any()) << "the next one finds it";
}

TEST_F(InterruptedFindingsTest, EachIsToldOnce) {
    protectUntilCopied();
    look();
    look();
    findings.later();
    expectNone();
    look();
    lookBeside(parent / "Other");
    expectNone();
    EXPECT_EQ(tools.notes().size(), 1U) << "the next start tells it again";
}

TEST_F(InterruptedFindingsTest, WhatStandsInTheWayIsToldAgain) {
    protectUntilDeleting();
    look();
    findings.later();
    lookBeside(docs);
    EXPECT_TRUE(findings.any());
    findings.later();
    lookBeside(fs::path(docs.string() + "/"));
    EXPECT_TRUE(findings.any());
    findings.later();
    lookBeside(item);
    EXPECT_TRUE(findings.any());
}

TEST_F(InterruptedFindingsTest, AnImageWithoutANoteIsOnlyTold) {
    writeFile(image, "image");
    lookBeside(docs);
    ASSERT_TRUE(findings.any());
    EXPECT_EQ(findings.finishLabel(), "OK");
    EXPECT_FALSE(findings.isChoice());
    findings.finish();
    expectNone();
    EXPECT_TRUE(tasks.started.empty());
    EXPECT_TRUE(fs::exists(image));
    EXPECT_TRUE(endings.empty());
    lookBeside(docs);
    expectNone();
}

// Ending

TEST_F(InterruptedFindingsTest, FinishesWithThePassword) {
    protectUntilCopied();
    look();
    type("right");
    findings.submit();
    EXPECT_TRUE(findings.isBusy());
    EXPECT_TRUE(findings.cancellable());
    EXPECT_EQ(findings.statusMessage(), "Preparing…");
    EXPECT_LT(findings.progressFraction(), 0);
    QStringList steps;
    QObject::connect(&findings, &InterruptedFindings::changed,
                     [&] { steps.append(findings.statusMessage()); });
    tasks.finish();
    EXPECT_TRUE(steps.contains("Deleting the original folder…"));
    expectNone();
    ASSERT_EQ(endings.size(), 1U);
    EXPECT_TRUE(endings[0].finished);
    EXPECT_EQ(endings[0].outcome.result, item);
    expectOnlyItem();
}

TEST_F(InterruptedFindingsTest, FinishesWithTheRecoveryKey) {
    protectUntilCopied();
    look();
    findings.useRecovery = true;
    findings.recoveryKey = "OR3WK3TUPEQGE6LUMVZSA33GEBVWK6JB";
    findings.finish();
    tasks.finish();
    ASSERT_EQ(endings.size(), 1U) << findings.errorMessage().toStdString();
    EXPECT_FALSE(findings.useRecovery) << "the next one has its own";
    expectWiped();
}

TEST_F(InterruptedFindingsTest, UndoesWithoutASecret) {
    fs::remove_all(docs);
    fs::create_directory(docs);
    removeUntilMade(/*copied=*/false);
    look();
    EXPECT_FALSE(findings.isProtection());
    EXPECT_EQ(findings.hint(), "“Delete the incomplete folder” needs no password.");
    type("not even right");
    findings.undo();
    tasks.finish();
    expectNone();
    ASSERT_EQ(endings.size(), 1U);
    EXPECT_FALSE(endings[0].finished);
    expectOnlyItem();
}

TEST_F(InterruptedFindingsTest, ASecretThatIsNeededIsAskedForAtOnce) {
    protectUntilDeleted();
    look();
    findings.undo();
    EXPECT_EQ(findings.errorMessage(), "Password can't be empty.");
    findings.useRecovery = true;
    findings.undo();
    EXPECT_EQ(findings.errorMessage(), "Invalid recovery key. Check that you typed it correctly.");
    EXPECT_TRUE(tasks.started.empty());
    EXPECT_TRUE(fs::exists(image)) << "nothing has begun";
    findings.finish();
    EXPECT_EQ(findings.errorMessage(), "");
}

TEST_F(InterruptedFindingsTest, AFailureKeepsItForAnotherTry) {
    protectUntilCopied();
    look();
    type("wrong");
    findings.finish();
    tasks.finish();
    EXPECT_EQ(findings.errorMessage(), "Wrong password.");
    EXPECT_FALSE(findings.wasCancelled());
    EXPECT_FALSE(findings.isBusy());
    EXPECT_TRUE(findings.any());
    expectWiped();
    type("right");
    findings.finish();
    EXPECT_EQ(findings.errorMessage(), "");
    tasks.finish();
    EXPECT_EQ(endings.size(), 1U);
}

TEST_F(InterruptedFindingsTest, AFailureIsToldAsItStandsNow) {
    protectUntilCopied();
    look();
    type("right");
    tasks.beforeWork = [this] { writeFile(docs / "new", "came later"); };
    findings.finish();
    tasks.finish();
    EXPECT_TRUE(findings.errorMessage().startsWith("\"Docs\" holds what is not so in the "
                                                   "encrypted copy: \"new\"."))
        << findings.errorMessage().toStdString();
    tasks.beforeWork = nullptr;
    fs::remove(docs / "new");
    fs::create_directory(item); // takes the place, so that the last step fails
    type("right");
    findings.finish();
    tasks.finish();
    EXPECT_NE(findings.errorMessage(), "");
    EXPECT_TRUE(findings.text().contains("at its last step")) << findings.text().toStdString();
    fs::remove(item);
    findings.finish();
    tasks.finish();
    expectNone();
    expectOnlyItem();
}

TEST_F(InterruptedFindingsTest, WhatIsGoneMeanwhileIsNotTriedAgain) {
    protectUntilCopied();
    look();
    undo(password()); // in another program
    const QSignalSpy failed(&findings, &InterruptedFindings::failed);
    type("right");
    findings.finish();
    tasks.finish();
    expectNone();
    ASSERT_EQ(failed.count(), 1);
    EXPECT_TRUE(failed[0][0].toString().startsWith("Another program is at work on it."));
    expectOnlyFolder();
}

TEST_F(InterruptedFindingsTest, IsCancelled) {
    protectUntilCopied();
    look();
    type("right");
    findings.finish();
    tasks.beforeWork = [this] {
        findings.later(); // not while it runs
        findings.undo();
        findings.cancel();
        EXPECT_EQ(findings.statusMessage(), "Cancelling…");
        EXPECT_FALSE(findings.cancellable());
    };
    tasks.finish();
    EXPECT_TRUE(findings.wasCancelled());
    EXPECT_EQ(findings.errorMessage(), "Cancelled. Nothing was changed.");
    EXPECT_TRUE(findings.any());
    expectWiped();
    EXPECT_TRUE(fs::exists(docs / "file"));
    EXPECT_TRUE(fs::exists(image));
}

TEST_F(InterruptedFindingsTest, IsCancelledWhenTheProgramEnds) {
    protectUntilCopied();
    look();
    type("right");
    findings.finish();
    QMetaObject::invokeMethod(QCoreApplication::instance(), "aboutToQuit");
    tasks.finish();
    EXPECT_TRUE(findings.wasCancelled());
    EXPECT_TRUE(fs::exists(docs / "file"));
}

TEST_F(InterruptedFindingsTest, OneComesAfterTheOther) {
    protectUntilCopied();
    removeUntilMade(/*copied=*/true);
    look();
    const bool protectionFirst = findings.isProtection();
    type("half a password");
    const QSignalSpy fields(&findings, &InterruptedFindings::fieldsChanged);
    findings.later();
    EXPECT_GE(fields.count(), 1);
    ASSERT_TRUE(findings.any());
    EXPECT_NE(findings.isProtection(), protectionFirst);
    expectWiped();
    findings.later();
    expectNone();
}

} // namespace
