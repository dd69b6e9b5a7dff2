#pragma once

#include "Quillvane/KeyStore.h"
#include "Quillvane/SecretText.h"
#include "Quillvane/VaultKeys.h"
#include "Quillvane/VaultViewModel.h"
#include "tests/support/FakePanels.h"
#include "tests/support/FakeTasks.h"
#include "tests/support/QtPrinting.h"
#include "tests/support/RecordingTools.h"

#include <QSignalSpy>

#include <gtest/gtest.h>

#include <memory>
#include <utility>
#include <vector>

/// A window's model with stand-ins for the tools, and a folder and an item to work on. The item has
/// no key file, so any password reaches the disk-image tool as it stands.
class VaultViewModelFixture : public testing::Test {
protected:
    VaultViewModelFixture() {
        std::filesystem::create_directory(docs);
        writeFile(docs / "file", "contents");
        writeFile(item, "image");
        std::filesystem::create_directory(std::filesystem::path(tools.mountPoint()) / "inner");
        QObject::connect(model.get(), &VaultViewModel::stateChanged, [this] {
            const bool isNew = shown.empty() || shown.back() != status();
            if (isNew && !model->statusMessage.isEmpty()) shown.push_back(status());
        });
    }

    /// Fraction (-1 for none) and step.
    using Status = std::pair<double, QString>;
    Status status() const {
        return {model->property("progressFraction").toDouble(), model->statusMessage};
    }
    /// The texts that every ending wipes.
    static constexpr QString VaultViewModel::*wiped[] = {
        &VaultViewModel::lockPassword,          &VaultViewModel::lockConfirm,
        &VaultViewModel::openPassword,          &VaultViewModel::openRecoveryKey,
        &VaultViewModel::removePassword,        &VaultViewModel::removeRecoveryKey,
        &VaultViewModel::changeCurrentPassword, &VaultViewModel::changeRecoveryKey,
        &VaultViewModel::changeNewPassword,     &VaultViewModel::changeNewConfirm,
        &VaultViewModel::smartActivatePassword, &VaultViewModel::smartActivateRecoveryKey};

    void fillSecrets() {
        for (const auto text : wiped) (*model).*text = "secret";
        model->smartCreatePassword = model->smartCreateConfirm = "creation";
    }
    void expectWiped() const {
        for (const auto text : wiped) EXPECT_EQ((*model).*text, "");
        EXPECT_EQ(model->smartCreatePassword, "creation");
        EXPECT_EQ(model->smartCreateConfirm, "creation");
    }
    void expectIdle(const QString& error, const QString& success) const {
        EXPECT_FALSE(model->isBusy);
        EXPECT_FALSE(model->progressFraction.has_value());
        EXPECT_EQ(model->errorMessage, error);
        EXPECT_EQ(model->successMessage, success);
    }
    void expectError(const QString& text) const {
        expectIdle(text, "");
        EXPECT_EQ(model->statusMessage, "");
        expectWiped();
    }
    void refusePassphrase() {
        tools.play("hdiutil", "attach", "echo Authentication error >&2; exit 1");
    }
    void open() {
        model->openImageURL = itemURL;
        model->openPassword = "secret";
        model->performOpen();
        tasks.finish();
        ASSERT_EQ(model->errorMessage, "");
    }
    void seal(const char* password) {
        KeyStore::write(
            VaultKeys::seal(Secret(std::string_view("twenty bytes of key!")), Secret(password)),
            item);
    }
    bool unseals(const char* password) const {
        const auto credential = Credential::password(Secret(std::string_view(password)));
        return VaultEngine::vaultKey(item, credential).text() == "twenty bytes of key!";
    }

    RecordingTools tools;
    TemporaryFolder parent;
    std::filesystem::path docs = parent / "My Docs";
    std::filesystem::path item = parent / "Item.quillvane";
    QUrl docsURL = QUrl::fromLocalFile(QString::fromStdString(docs.string()));
    QUrl itemURL = QUrl::fromLocalFile(QString::fromStdString(item.string()));
    FakeTasks tasks;
    FakePanels panels;
    std::unique_ptr<VaultViewModel> model = std::make_unique<VaultViewModel>(tasks, panels);
    /// What has been shown so far, where there was a step.
    std::vector<Status> shown;
};
