#include "Quillvane/ItemDetail.h"

#include "ManualTasks.h"
#include "Quillvane/FileUrl.h"
#include "Quillvane/OperationCancelled.h"
#include "Quillvane/ThreadPriority.h"
#include "tests/support/TemporaryFolder.h"

#include <QDir>

#include <gtest/gtest.h>

#include <memory>
#include <sys/resource.h>
#include <thread>

namespace fs = std::filesystem;

namespace {

class ItemDetailTest : public testing::Test {
protected:
    ItemDetailTest() {
        ItemDetail::setTasks(tasks_);
        QObject::connect(detail_.get(), &ItemDetail::textChanged, [this] { ++changes_; });
    }
    /// A folder with so many files of 600 bytes.
    QUrl folder(const std::string& name, int files) {
        fs::create_directories(directory_ / name / "inner");
        for (int i = 0; i < files; ++i)
            writeFile(directory_ / name / "inner" / std::to_string(i), std::string(600, 'x'));
        return fileUrl(directory_ / name);
    }
    std::string text() const { return detail_->text().toStdString(); }

    TemporaryFolder directory_;
    ManualTasks tasks_;
    std::unique_ptr<ItemDetail> detail_ = std::make_unique<ItemDetail>();
    int changes_ = 0;
};

TEST_F(ItemDetailTest, countsAFolder) {
    EXPECT_EQ(text(), "");
    detail_->setIsFolder(true);
    detail_->setUrl(folder("Docs", 2));
    EXPECT_EQ(text(), "Calculating…");
    const int before = changes_;
    tasks_.run(0);
    EXPECT_EQ(text(), "2 files · 1.2 KB");
    EXPECT_EQ(changes_, before + 1);
}

TEST_F(ItemDetailTest, countsOneFileAndNone) {
    detail_->setIsFolder(true);
    detail_->setUrl(folder("Empty", 0));
    tasks_.run(0);
    EXPECT_EQ(text(), "0 files · Zero KB");
    detail_->setUrl(folder("One", 1));
    tasks_.run(0);
    EXPECT_EQ(text(), "1 files · 600 bytes");
}

TEST_F(ItemDetailTest, tellsTheSizeOfAnItemAlone) {
    writeFile(directory_ / "Docs.quillvane", std::string(2500, 'x'));
    detail_->setUrl(fileUrl(directory_ / "Docs.quillvane"));
    EXPECT_EQ(text(), "Calculating…");
    tasks_.run(0);
    EXPECT_EQ(text(), "2.5 KB");
}

TEST_F(ItemDetailTest, onlyTheLatestUrlCounts) {
    detail_->setIsFolder(true);
    detail_->setUrl(folder("Old", 3));
    detail_->setUrl(folder("New", 1));
    ASSERT_EQ(tasks_.waiting(), 2U);
    tasks_.run(1);
    EXPECT_EQ(text(), "1 files · 600 bytes");
    tasks_.run(0);
    EXPECT_EQ(text(), "1 files · 600 bytes");
}

TEST_F(ItemDetailTest, anOlderCountThatEndsFirstIsDropped) {
    detail_->setIsFolder(true);
    detail_->setUrl(folder("Old", 3));
    detail_->setUrl(folder("New", 1));
    tasks_.run(0);
    EXPECT_EQ(text(), "Calculating…");
}

TEST_F(ItemDetailTest, aCountThatNobodyWaitsForStops) {
    const auto ended = [this] {
        if (const std::exception_ptr error = tasks_.run(0)) std::rethrow_exception(error);
    };
    detail_->setUrl(folder("Docs", 1));
    detail_->setUrl(folder("More", 1));
    EXPECT_THROW(ended(), OperationCancelled);
    EXPECT_EQ(text(), "Calculating…");
    detail_.reset();
    EXPECT_THROW(ended(), OperationCancelled);
}

TEST_F(ItemDetailTest, withoutAUrlThereIsNothingToTell) {
    detail_->setUrl(folder("Docs", 1));
    detail_->setUrl(QUrl());
    EXPECT_EQ(text(), "");
    EXPECT_EQ(detail_->name(), "");
    EXPECT_EQ(detail_->location(), "");
    tasks_.run(0);
    EXPECT_EQ(text(), "");
}

TEST_F(ItemDetailTest, theSameUrlIsNotCountedAgain) {
    detail_->setUrl(folder("Docs", 1));
    detail_->setUrl(fileUrl(directory_ / "Docs"));
    EXPECT_EQ(tasks_.waiting(), 1U);
}

TEST_F(ItemDetailTest, mayEndBeforeItsCount) {
    detail_->setUrl(folder("Docs", 1));
    detail_.reset();
    tasks_.run(0);
}

TEST_F(ItemDetailTest, aCountThatFailsTellsNothing) {
    struct FailingTasks final : BackgroundTasks {
        void start(Work, Ending ending) override { ending_ = std::move(ending); }
        void post(std::function<void()>) override {}
        void finish() override {
            ending_(std::make_exception_ptr(std::runtime_error("no memory")));
        }
        Ending ending_;
    } failing;
    ItemDetail::setTasks(failing);
    detail_->setUrl(folder("Docs", 1));
    EXPECT_EQ(text(), "Calculating…");
    failing.finish();
    EXPECT_EQ(text(), "");
}

TEST_F(ItemDetailTest, namesTheItemAndItsPlace) {
    detail_->setUrl(QUrl("file:///srv/data/My%20Docs/"));
    EXPECT_EQ(detail_->name(), QString("My Docs"));
    EXPECT_EQ(detail_->location(), QString("/srv/data"));
    detail_->setUrl(QUrl::fromLocalFile(QDir::homePath() + "/Work/Docs"));
    EXPECT_EQ(detail_->location(), QString("~/Work"));
    detail_->setUrl(QUrl::fromLocalFile(QDir::homePath() + "/Docs"));
    EXPECT_EQ(detail_->location(), QString("~"));
    detail_->setUrl(QUrl::fromLocalFile(QDir::homePath() + "er/Docs"));
    EXPECT_EQ(detail_->location(), QDir::homePath() + "er");
    detail_->setUrl(QUrl("file:///"));
    EXPECT_EQ(detail_->name(), QString("/"));
}

TEST(ThreadPriorityTest, lowersTheCallingThreadAlone) {
    const int before = ::getpriority(PRIO_PROCESS, 0);
    int lowered = before;
    std::thread([&lowered] {
        useUtilityPriority();
        lowered = ::getpriority(PRIO_PROCESS, 0);
    }).join();
    EXPECT_EQ(lowered, std::max(before, 10));
    EXPECT_EQ(::getpriority(PRIO_PROCESS, 0), before);
}

} // namespace
