#include "tests/Quillvane/window/ContentModelFixture.h"

namespace {

/// A folder that the file manager wants protected.
class ContentFolderTest : public ContentModelFixture {
protected:
    void expectChosen(const QUrl& folder) const {
        EXPECT_EQ(model->mode, Mode::lock);
        EXPECT_EQ(model->lockFolderURL, folder);
        EXPECT_TRUE(router.pendingFolder().isEmpty());
    }
};

TEST_F(ContentFolderTest, IsChosenInItsMode) {
    content.selectMode(Mode::change);
    const QSignalSpy told(model.get(), &VaultViewModel::formChanged);
    router.setPendingFolder(docsURL);
    expectChosen(docsURL);
    EXPECT_GE(told.count(), 1);
}

TEST_F(ContentFolderTest, TakesTheFormersPlace) {
    model->lockFolderURL = QUrl("file:///former");
    model->lockPassword = "typed";
    router.setPendingFolder(docsURL);
    expectChosen(docsURL);
    EXPECT_EQ(model->lockPassword, "typed");
}

TEST_F(ContentFolderTest, MayHaveComeBeforeTheWindow) {
    router.setPendingFolder(itemURL);
    EXPECT_TRUE(model->lockFolderURL.isEmpty());
    router.blockSignals(true);
    router.setPendingFolder(docsURL);
    router.blockSignals(false);
    const ContentModel later(*model, smart, interrupted, router, panels, tasks);
    expectChosen(docsURL);
}

TEST_F(ContentFolderTest, IsNoFileAndNothingThatIsMissing) {
    model->lockFolderURL = docsURL;
    model->mode = Mode::open;
    for (const QUrl& other : {itemURL, QUrl(docsURL.toString() + "/missing"), QUrl("sftp://a/b")}) {
        router.setPendingFolder(other);
        EXPECT_TRUE(router.pendingFolder().isEmpty());
        EXPECT_EQ(model->lockFolderURL, docsURL);
        EXPECT_EQ(model->mode, Mode::open);
    }
}

TEST_F(ContentFolderTest, WaitsForTheEndOfAnOperation) {
    content.selectMode(Mode::open);
    model->openImageURL = itemURL;
    model->openPassword = "secret";
    model->performOpen();
    router.setPendingFolder(QUrl("file:///an/earlier/wish"));
    router.setPendingFolder(docsURL);
    EXPECT_EQ(model->mode, Mode::open);
    EXPECT_TRUE(model->lockFolderURL.isEmpty());
    tasks.finish();
    expectChosen(docsURL);
    EXPECT_NE(content.successMessage(), "") << "the operation's result is told";
}

TEST_F(ContentFolderTest, WaitsForTheEndOfAProtection) {
    model->lockFolderURL = docsURL;
    model->lockPassword = model->lockConfirm = "secret";
    model->performLock();
    const std::filesystem::path other = parent / "Other";
    std::filesystem::create_directory(other);
    const QUrl otherURL = QUrl::fromLocalFile(QString::fromStdString(other.string()));
    router.setPendingFolder(otherURL);
    EXPECT_EQ(model->lockFolderURL, docsURL);
    tasks.finish();
    expectChosen(otherURL);
    EXPECT_NE(model->recoveryKeyToShow, "");
}

TEST_F(ContentFolderTest, WaitsForASmartFolder) {
    model->smartActivateURL = itemURL;
    content.activateSmartFolder();
    router.setPendingFolder(docsURL);
    EXPECT_TRUE(model->lockFolderURL.isEmpty());
    tasks.finish();
    expectChosen(docsURL);
}

} // namespace
