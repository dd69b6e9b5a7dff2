#pragma once

#include "Quillvane/ContentModel.h"
#include "tests/Quillvane/smart/SmartFolderFixture.h"
#include "tests/Quillvane/window/VaultViewModelFixture.h"

#include <memory>

/// A whole window without its views. Volumes are not mounted: the stand-in for the tool says that
/// they are.
class ContentModelFixture : public VaultViewModelFixture {
protected:
    using Mode = VaultViewModel::Mode;

    /// Opens the item as a Smart Folder and returns the entry's identity.
    QString openInPlace() {
        model->smartActivateURL = itemURL;
        model->smartActivatePassword = "secret";
        content.activateSmartFolder();
        tasks.finish();
        EXPECT_EQ(smart.errorMessage(), "");
        EXPECT_EQ(smart.active().size(), 1U);
        return smart.active().empty() ? QString() : QString::fromStdString(smart.active()[0].id);
    }
    void createInPlace() {
        model->smartCreateFolderURL = docsURL;
        model->smartCreatePassword = model->smartCreateConfirm = "secret";
        content.createSmartFolder();
    }
    void failSmartFolder() {
        model->smartActivateURL = QUrl::fromLocalFile("/nowhere/None.quillvane");
        content.activateSmartFolder();
        tasks.finish();
        EXPECT_NE(smart.errorMessage(), "");
    }
    /// What the tool was given as passphrases so far.
    std::vector<std::string> passphrases() const {
        std::vector<std::string> result;
        for (const auto& call : tools.calls())
            if (call.standardInput) result.push_back(*call.standardInput);
        return result;
    }

    FakeEvents events;
    FakeClock clock;
    OpenRouter router;
    QString preferences = QString::fromStdString((parent / "preferences.conf").string());
    SmartFolderStore store{
        [this] { return std::make_unique<QSettings>(preferences, QSettings::IniFormat); },
        parent.path()};
    SmartFolderManager smart{events, tasks, clock, store};
    FakeTasks looking;
    InterruptedFindings interrupted{looking, tasks};
    ContentModel content{*model, smart, interrupted, router, panels, tasks};
};
