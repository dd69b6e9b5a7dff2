#include "Quillvane/AppDelegate.h"

#include "Quillvane/FileUrl.h"
#include "Quillvane/OpenRouter.h"

#include <QCoreApplication>
#include <QFileOpenEvent>

#include <gtest/gtest.h>

#include <string>

namespace {

struct AppDelegateTest : ::testing::Test {
    AppDelegateTest() {
        QObject::connect(&router, &OpenRouter::pendingContainerChanged, &delegate,
                         [this] { ++assignments; });
    }
    ~AppDelegateTest() override { router.setPendingContainer({}); }

    /// What waits after the event loop has taken one request.
    std::string pendingAfter(const QList<QUrl>& urls) {
        router.setPendingContainer({});
        assignments = 0;
        delegate.open(urls);
        EXPECT_EQ(assignments, 0) << "not from the event loop";
        QCoreApplication::processEvents();
        return filePath(router.pendingContainer()).string();
    }
    std::string pendingAfter(const std::string& path) { return pendingAfter({fileUrl(path)}); }

    OpenRouter& router = OpenRouter::shared();
    AppDelegate delegate;
    int assignments = 0;
};

/// Goes through the event loop until nothing is left to do: each step is posted by the one before.
void settle() {
    for (int pass = 0; pass < 5; ++pass) QCoreApplication::processEvents();
}

void postOpenEvent(const std::string& path) {
    QCoreApplication::postEvent(QCoreApplication::instance(), new QFileOpenEvent(fileUrl(path)));
}

TEST_F(AppDelegateTest, HandsOverAnItem) {
    EXPECT_EQ(pendingAfter("/home/ada/Docs.quillvane"), "/home/ada/Docs.quillvane");
    EXPECT_EQ(assignments, 1);
}

TEST_F(AppDelegateTest, TellsAnItemByItsExtension) {
    for (const std::string item :
         {"/Docs.QUILLVANE", "/Docs.QuillVane", "/a.b.quillvane", "/.hidden.quillvane",
          "/ .quillvane", "/\xff\xfe.quillvane", "/n\xc3\xa4\nme %?#.quillvane", "/a.quillvane/"})
        EXPECT_EQ(pendingAfter(item), item);
    for (const std::string other :
         {"/Docs", "/Docs.txt", "/.quillvane", "/Docs.quillvane.txt", "/Docs.quillvanes",
          "/Docs.quillvane ", "/quillvane", "/Docs.quillvane/file", "/Docs.quillvane/.", "/",
          "/Docs.quillvane\xff", "/Docs.qu\xc3\x8dllvane"})
        EXPECT_EQ(pendingAfter(other), "") << other;
    EXPECT_EQ(assignments, 0);
}

TEST_F(AppDelegateTest, IgnoresWhatIsNoLocalFile) {
    EXPECT_EQ(pendingAfter({QUrl("smb://host/Docs.quillvane"), QUrl("Docs.quillvane"), QUrl(),
                            QUrl("file://other.example/Docs.quillvane")}),
              "");
    EXPECT_EQ(pendingAfter(QList<QUrl>()), "");
}

TEST_F(AppDelegateTest, TakesTheFirstItemOfARequest) {
    EXPECT_EQ(pendingAfter({fileUrl("/notes.txt"), fileUrl("/First.quillvane"),
                            fileUrl("/Second.quillvane")}),
              "/First.quillvane");
    EXPECT_EQ(assignments, 1);
}

TEST_F(AppDelegateTest, ALaterItemTakesTheFormersPlace) {
    pendingAfter("/First.quillvane");
    delegate.open({fileUrl("/Second.quillvane")});
    delegate.open({fileUrl("/notes.txt")});
    QCoreApplication::processEvents();
    EXPECT_EQ(filePath(router.pendingContainer()), "/Second.quillvane");
    EXPECT_EQ(assignments, 2);
}

TEST_F(AppDelegateTest, TakesOpenEventsThatComeTogetherAsOneRequest) {
    postOpenEvent("/notes.txt");
    postOpenEvent("/First.quillvane");
    postOpenEvent("/Second.quillvane");
    settle();
    EXPECT_EQ(filePath(router.pendingContainer()), "/First.quillvane");
    EXPECT_EQ(assignments, 1);

    postOpenEvent("/Third.quillvane");
    settle();
    EXPECT_EQ(filePath(router.pendingContainer()), "/Third.quillvane");
    EXPECT_EQ(assignments, 2);
}

} // namespace
