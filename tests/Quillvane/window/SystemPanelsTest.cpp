#include "Quillvane/SystemPanels.h"
#include "tests/support/QtPrinting.h"
#include "tests/support/TemporaryFolder.h"

#include <QApplication>
#include <QWindow>

#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

namespace {

/// Qt's own panels, which are used where the desktop has none.
class SystemPanelsTest : public testing::Test {
protected:
    SystemPanelsTest() { panels.setWindow(&window); }

    static std::vector<QFileDialog*> shown() {
        std::vector<QFileDialog*> found;
        for (QWidget* const widget : QApplication::topLevelWidgets())
            if (auto* const panel = qobject_cast<QFileDialog*>(widget))
                if (panel->isVisible()) found.push_back(panel);
        return found;
    }
    QFileDialog& only() {
        const auto all = shown();
        if (all.size() != 1) throw std::runtime_error("there is not one panel");
        return *all.front();
    }
    FilePanels::Chosen remember() {
        return [this](const QUrl& url) { chosen.push_back(url); };
    }
    static void settle() {
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QCoreApplication::processEvents();
    }

    TemporaryFolder folder;
    QString path = QString::fromStdString(folder.path().string());
    QWindow window;
    SystemPanels panels;
    std::vector<QUrl> chosen;
};

TEST_F(SystemPanelsTest, AFolderIsChosen) {
    panels.chooseFolder("Choose the folder to protect", remember());
    QFileDialog& panel = only();
    EXPECT_EQ(panel.windowTitle(), "Choose the folder to protect");
    EXPECT_EQ(panel.fileMode(), QFileDialog::Directory);
    EXPECT_TRUE(panel.testOption(QFileDialog::ReadOnly)) << "no way to make a folder";
    EXPECT_EQ(panel.acceptMode(), QFileDialog::AcceptOpen);
    panel.setDirectory(path);
    panel.selectFile(path);
    static_cast<QDialog&>(panel).done(QDialog::Accepted);
    EXPECT_EQ(chosen, std::vector{QUrl::fromLocalFile(path)});
}

TEST_F(SystemPanelsTest, AnItemIsChosen) {
    writeFile(folder / "Item.quillvane", "image");
    panels.chooseItem("Choose a locked item", remember());
    QFileDialog& panel = only();
    EXPECT_EQ(panel.fileMode(), QFileDialog::ExistingFile) << "one alone, and no folder";
    EXPECT_TRUE(panel.nameFilters().first().contains("*.quillvane"));
    panel.setDirectory(path);
    panel.selectFile("Item.quillvane");
    static_cast<QDialog&>(panel).done(QDialog::Accepted);
    EXPECT_EQ(chosen, std::vector{QUrl::fromLocalFile(path + "/Item.quillvane")});
}

TEST_F(SystemPanelsTest, APlaceForATextFileIsChosen) {
    panels.chooseTextFileToSave("Save recovery key", "Key.txt", remember());
    QFileDialog& panel = only();
    EXPECT_EQ(panel.acceptMode(), QFileDialog::AcceptSave);
    EXPECT_EQ(panel.defaultSuffix(), "txt");
    EXPECT_TRUE(panel.selectedUrls().first().path().endsWith("/Key.txt"));
}

TEST_F(SystemPanelsTest, ACancelledPanelChoosesNothing) {
    panels.chooseFolder("title", remember());
    only().reject();
    settle();
    EXPECT_TRUE(chosen.empty());
    EXPECT_TRUE(shown().empty());
    panels.chooseFolder("again", remember());
    EXPECT_EQ(only().windowTitle(), "again");
}

TEST_F(SystemPanelsTest, OneIsOpenAtATime) {
    panels.chooseFolder("first", remember());
    panels.chooseItem("second", remember());
    EXPECT_EQ(only().windowTitle(), "first");
}

TEST_F(SystemPanelsTest, TheWindowWaitsForIt) {
    panels.chooseFolder("title", remember());
    const QWindow* const itsWindow = only().windowHandle();
    ASSERT_NE(itsWindow, nullptr);
    EXPECT_EQ(itsWindow->transientParent(), &window);
    EXPECT_EQ(only().windowModality(), Qt::ApplicationModal);
}

TEST_F(SystemPanelsTest, PanelsEndWithTheWindow) {
    {
        SystemPanels others;
        others.chooseFolder("title", remember());
        EXPECT_EQ(shown().size(), 1U);
    }
    EXPECT_TRUE(shown().empty());
}

} // namespace
