#pragma once

#include "Quillvane/Preferences.h"
#include "Quillvane/SmartFolderManager.h"
#include "Quillvane/SystemEvents.h"
#include "Quillvane/VaultEngine.h"
#include "Quillvane/VaultError.h"
#include "tests/support/FakeTasks.h"
#include "tests/support/RecordingTools.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sched.h>
#include <sys/mount.h>

/// Events that happen when the test says so.
class FakeEvents : public SystemEvents {
public:
    void readyForPowerOff() override { ++readyCalls; }
    int readyCalls = 0;
};

/// A clock that the test sets, with a timer that it fires.
class FakeClock : public Clock {
public:
    Time now() const override { return time; }
    void repeat(std::chrono::seconds every, std::function<void()> function) override {
        interval = every;
        tick = std::move(function);
    }
    void advance(std::chrono::seconds seconds) { time += seconds; }

    Time time{std::chrono::hours(400'000)};
    std::chrono::seconds interval{0};
    std::function<void()> tick;
};

/// A manager with items whose volumes are played by small file systems in memory: mounting and
/// unmounting are real, so "busy" and "gone" are too. Items without a key file open with their
/// password as it stands.
class SmartFolderFixture : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        // What a failed test leaves mounted ends with the process.
        mayMount = ::unshare(CLONE_NEWNS) == 0 &&
                   ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    }

    void SetUp() override {
        if (!mayMount) GTEST_SKIP() << "mounting is not permitted here";
        tools.play("hdiutil", "attach", "mount -t tmpfs none \"$7\"");
        tools.play("hdiutil", "detach", "umount \"$2\"");
        start();
    }
    void TearDown() override {
        for (const auto& place : mountPlaces) ::umount2(place.c_str(), MNT_DETACH);
    }

    /// A new run of the program on the same preferences.
    void start() {
        manager.reset();
        store.reset();
        tasks.started.clear();
        store =
            std::make_unique<SmartFolderStore>(preferencesIn("preferences.conf"), folder.path());
        manager = std::make_unique<SmartFolderManager>(events, tasks, clock, *store);
    }
    SmartFolderStore::OpenPreferences preferencesIn(const std::filesystem::path& name) const {
        const QString file = QString::fromStdString((folder / name).string());
        return [file] { return std::make_unique<QSettings>(file, QSettings::IniFormat); };
    }
    void tick() {
        clock.tick();
        tasks.finish();
    }

    std::filesystem::path makeItem(const std::string& name, const std::string& in = "") {
        const auto directory = folder / in;
        std::filesystem::create_directories(directory);
        auto item = directory / (name + ".quillvane");
        writeFile(item, "image");
        mountPlaces.push_back(directory / name);
        return item;
    }
    static Credential password() { return Credential::password(Secret("secret")); }

    /// Opens the item and returns its folder.
    std::filesystem::path open(const std::filesystem::path& item) {
        manager->activate(item, password());
        tasks.finish();
        EXPECT_EQ(manager->errorMessage(), "");
        return std::filesystem::path(item).replace_extension();
    }
    SmartFolderManager::Active entry(const std::string& name) const {
        for (const auto& candidate : manager->active())
            if (candidate.name == name) return candidate;
        throw std::runtime_error(name + " is not open");
    }
    std::vector<std::string> names() const {
        std::vector<std::string> result;
        for (const auto& each : manager->active()) result.push_back(each.name);
        return result;
    }
    std::vector<std::string> persistedNames() {
        std::vector<std::string> result;
        const auto records = store->read();
        if (!records) return {"nothing"};
        for (const auto& each : *records) result.push_back(each.name);
        return result;
    }
    int count(const std::string& beginning) const {
        int found = 0;
        for (const std::string& line : tools.commandLines()) found += line.starts_with(beginning);
        return found;
    }
    static bool isOpen(const std::filesystem::path& place) {
        return VaultEngine::isMounted(place.string());
    }

    static inline bool mayMount = false;
    TemporaryFolder folder;
    RecordingTools tools;
    FakeEvents events;
    FakeClock clock;
    FakeTasks tasks;
    std::vector<std::filesystem::path> mountPlaces;
    std::unique_ptr<SmartFolderStore> store;
    std::unique_ptr<SmartFolderManager> manager;
};
