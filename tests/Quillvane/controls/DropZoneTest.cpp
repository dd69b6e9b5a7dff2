#include "ControlsWindow.h"

#include "ManualTasks.h"
#include "Quillvane/FileUrl.h"
#include "Quillvane/ItemDetail.h"
#include "tests/support/TemporaryFolder.h"

#include <QDragEnterEvent>
#include <QDropEvent>
#include <QMimeData>

namespace fs = std::filesystem;

namespace {

constexpr auto zone = R"(
    DropZone {
        objectName: "zone"
        width: 320
        property url stored
        property int choices: 0
        prompt: "Choose the folder to protect…"; systemImage: "folder.badge.plus"
        isFolder: true
        url: stored
        onDroppedUrl: file => stored = file
        onChooseRequested: ++choices
    })";

class DropZoneTest : public testing::Test {
protected:
    DropZoneTest() {
        ItemDetail::setTasks(tasks_);
        window_ = std::make_unique<ControlsWindow>(zone);
        fs::create_directory(directory_ / "Docs");
        fs::create_directory(directory_ / "More");
        writeFile(directory_ / "note.txt", "x");
        writeFile(directory_ / "Docs.quillvane", "x");
    }
    QUrl url(const char* name) const { return fileUrl(directory_ / name); }
    QUrl stored() const { return window_->value("zone", "stored").toUrl(); }
    bool targeted() const { return window_->value("zone", "targeted").toBool(); }

    bool enter(const QMimeData& data) {
        QDragEnterEvent event(middle(), Qt::CopyAction | Qt::MoveAction, &data, Qt::LeftButton, {});
        QCoreApplication::sendEvent(&window_->view(), &event);
        return event.isAccepted();
    }
    /// A whole drag over the zone with a drop at its end; whether that was taken, as a copy.
    bool drop(const QList<QUrl>& urls) {
        QMimeData data;
        data.setUrls(urls);
        enter(data);
        QDragMoveEvent move(middle(), Qt::CopyAction | Qt::MoveAction, &data, Qt::LeftButton, {});
        QCoreApplication::sendEvent(&window_->view(), &move);
        QDropEvent event(middle(), Qt::CopyAction | Qt::MoveAction, &data, Qt::LeftButton, {});
        event.setDropAction(Qt::MoveAction);
        QCoreApplication::sendEvent(&window_->view(), &event);
        return event.isAccepted() && event.dropAction() == Qt::CopyAction;
    }

    TemporaryFolder directory_;
    ManualTasks tasks_;
    std::unique_ptr<ControlsWindow> window_;

private:
    QPoint middle() const { return {160, 30}; }
};

TEST_F(DropZoneTest, takesTheFirstFolderThatIsDropped) {
    EXPECT_TRUE(drop({url("note.txt"), url("Docs"), url("More")}));
    EXPECT_EQ(stored(), url("Docs"));
    EXPECT_TRUE(drop({url("More")}));
    EXPECT_EQ(window_->value("zone", "url").toUrl(), url("More")) << "the binding has lasted";
}

TEST_F(DropZoneTest, refusesWhatDoesNotFit) {
    EXPECT_TRUE(drop({url("Docs")}));
    EXPECT_FALSE(drop({url("note.txt")}));
    EXPECT_FALSE(drop({url("Docs.quillvane")}));
    EXPECT_EQ(stored(), url("Docs"));
    window_->set("zone", "isFolder", false);
    EXPECT_FALSE(drop({url("More")}));
    EXPECT_EQ(stored(), url("Docs"));
    EXPECT_TRUE(drop({url("More"), url("Docs.quillvane")}));
    EXPECT_EQ(stored(), url("Docs.quillvane"));
}

TEST_F(DropZoneTest, keepsNamesThatAreNotText) {
    const fs::path path = directory_ / "\xff\xfe";
    fs::create_directory(path);
    EXPECT_TRUE(drop({fileUrl(path)}));
    EXPECT_EQ(filePath(stored()), path);
}

TEST_F(DropZoneTest, targetedFollowsTheDrag) {
    QMimeData data;
    data.setUrls({url("Docs")});
    EXPECT_TRUE(enter(data));
    EXPECT_TRUE(targeted());
    QDragLeaveEvent leave;
    QCoreApplication::sendEvent(&window_->view(), &leave);
    EXPECT_FALSE(targeted());
    EXPECT_TRUE(drop({url("Docs")}));
    EXPECT_FALSE(targeted());
    QMimeData text;
    text.setText("no file");
    enter(text);
    EXPECT_FALSE(targeted());
}

TEST_F(DropZoneTest, doesNothingWhenDisabled) {
    window_->set("zone", "enabled", false);
    EXPECT_FALSE(drop({url("Docs")}));
    window_->click("zone");
    EXPECT_TRUE(stored().isEmpty());
    EXPECT_EQ(window_->rootNumber("choices"), 0);
}

TEST_F(DropZoneTest, aClickOrAKeyAsksForAChoice) {
    window_->click("zone");
    window_->press(Qt::Key_Tab);
    window_->press(Qt::Key_Space);
    window_->press(Qt::Key_Return);
    EXPECT_EQ(window_->rootNumber("choices"), 3);
}

TEST_F(DropZoneTest, tellsWhatIsChosen) {
    EXPECT_EQ(window_->accessibleName(window_->item("zone")), "Choose the folder to protect…");
    EXPECT_EQ(window_->accessible(window_->item("zone")).role(), QAccessible::Button);
    EXPECT_EQ(window_->text("zone", "detail"), "");
    drop({url("Docs")});
    EXPECT_EQ(window_->text("zone", "detail"), "Calculating…");
    tasks_.finish();
    EXPECT_EQ(window_->text("zone", "detail"), "0 files · Zero KB");
    EXPECT_EQ(window_->accessibleName(window_->item("zone")), "Docs");
    EXPECT_EQ(window_->accessible(window_->item("zone")).text(QAccessible::Description),
              QString::fromStdString(directory_.path().string()) + ", 0 files · Zero KB");
    window_->set("zone", "stored", QUrl());
    EXPECT_EQ(window_->text("zone", "detail"), "");
    EXPECT_EQ(window_->accessibleName(window_->item("zone")), "Choose the folder to protect…");
}

} // namespace
