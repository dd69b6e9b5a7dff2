#pragma once

#include "Quillvane/OperationCancelled.h"
#include "Quillvane/VaultEngine.h"
#include "Quillvane/VaultError.h"
#include "tests/support/KeyFileReader.h"
#include "tests/support/RecordingTools.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// A folder "My Docs" to protect, with the system's tools replaced.
class LockFixture : public testing::Test {
protected:
    LockFixture() {
        std::filesystem::create_directories(docs / "inner");
        writeFile(docs / "file", "contents");
        writeFile(docs / ".hidden file", "more");
        writeFile(docs / "inner/deep", "deeper");
    }

    VaultEngine::LockResult lock(const std::string& password = "pässword") {
        return lock(docs, password, password);
    }
    VaultEngine::LockResult lock(const std::filesystem::path& source, const std::string& password,
                                 const std::string& confirmation,
                                 Filesystem filesystem = Filesystem::apfs) {
        return VaultEngine::lock(
            source, Secret(std::string_view(password)), Secret(std::string_view(confirmation)),
            filesystem,
            [this](const Progress& report) {
                reports.push_back(report);
                for (const auto& [message, action] : actions)
                    if (report.message.starts_with(message)) action();
            },
            cancellation.get());
    }
    /// The error that protecting the folder ends with.
    VaultError lockError() {
        try {
            lock();
        } catch (const VaultError& error) {
            return error;
        }
        throw std::logic_error("the folder was protected");
    }

    /// Names in the folder's parent directory.
    std::vector<std::string> names() const {
        std::vector<std::string> found;
        for (const auto& entry : std::filesystem::directory_iterator(parent.path()))
            found.push_back(entry.path().filename().string());
        std::ranges::sort(found);
        return found;
    }
    /// The working image, from the command line that made it.
    std::filesystem::path workingImage() const { return tools.calls().at(0).arguments.back(); }
    std::filesystem::path workingKeyFile() const {
        return parent / ("." + workingImage().filename().string() + ".qvkeys");
    }
    /// The image's passphrase as raw key bytes.
    std::string keyGivenToTool() const {
        std::string line = tools.calls().at(0).standardInput.value_or("");
        if (line.size() != 29 || line.back() != '\n') return "";
        line.pop_back();
        const auto bytes = KeyFileReader::base64(line);
        return {bytes.begin(), bytes.end()};
    }
    void expectUntouched() const {
        EXPECT_EQ(names(), std::vector<std::string>{"My Docs"});
        EXPECT_EQ(readFile(docs / "file"), "contents");
        EXPECT_EQ(readFile(docs / "inner/deep"), "deeper");
        EXPECT_TRUE(tools.notes().empty());
    }

    RecordingTools tools;
    TemporaryFolder parent;
    std::filesystem::path docs = parent / "My Docs";
    std::filesystem::path target = parent / "My Docs.quillvane";
    std::filesystem::path keyFile = parent / ".My Docs.quillvane.qvkeys";
    std::vector<Progress> reports;
    /// What to do when a report whose message begins so arrives.
    std::map<std::string, std::function<void()>> actions;
    std::unique_ptr<Cancellation> cancellation = std::make_unique<Cancellation>();
};
