#include "Quillvane/OpenRouter.h"

#include <QVariant>

#include <gtest/gtest.h>

namespace {

const QUrl docs("file:///home/ada/Docs.quillvane");

struct RouterTest : ::testing::Test {
    RouterTest() {
        QObject::connect(&router, &OpenRouter::pendingContainerChanged, [this] { ++signals_; });
    }

    OpenRouter router;
    int signals_ = 0;
};

TEST_F(RouterTest, BeginsWithoutAnItem) {
    EXPECT_TRUE(router.pendingContainer().isEmpty());
    EXPECT_TRUE(OpenRouter::shared().pendingContainer().isEmpty());
    EXPECT_EQ(&OpenRouter::shared(), &OpenRouter::shared());
}

TEST_F(RouterTest, TellsOfEveryItemEvenOfTheSameAgain) {
    router.setPendingContainer(docs);
    EXPECT_EQ(router.pendingContainer(), docs);
    EXPECT_EQ(signals_, 1);
    router.setPendingContainer(docs);
    EXPECT_EQ(signals_, 2);
    router.setProperty("pendingContainer", QUrl("file:///other.quillvane"));
    EXPECT_EQ(router.property("pendingContainer").toUrl(), QUrl("file:///other.quillvane"));
    EXPECT_EQ(signals_, 3);
}

TEST_F(RouterTest, KeepsAFolderBesideTheItem) {
    int told = 0;
    QObject::connect(&router, &OpenRouter::pendingFolderChanged, [&] { ++told; });
    router.setPendingFolder({});
    EXPECT_EQ(told, 0);
    router.setPendingFolder(QUrl("file:///home/ada/Docs"));
    router.setPendingFolder(QUrl("file:///home/ada/Docs"));
    EXPECT_EQ(told, 2);
    EXPECT_EQ(router.pendingFolder(), QUrl("file:///home/ada/Docs"));
    router.setPendingFolder({});
    EXPECT_EQ(told, 3);
    EXPECT_EQ(signals_, 0);
}

TEST_F(RouterTest, TellsOnceThatTheItemIsGone) {
    router.setPendingContainer(docs);
    router.setPendingContainer({});
    EXPECT_TRUE(router.pendingContainer().isEmpty());
    EXPECT_EQ(signals_, 2);
    router.setPendingContainer({});
    EXPECT_EQ(signals_, 2);
}

} // namespace
