#pragma once

#include "Quillvane/InterruptedWork.h"
#include "Quillvane/KeyStore.h"
#include "Quillvane/VaultKeys.h"
#include "tests/support/RecordingTools.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdlib>
#include <sys/stat.h>

/// States as interrupted operations leave them, with a volume that a folder plays.
class InterruptedFixture : public testing::Test {
protected:
    InterruptedFixture() {
        std::filesystem::create_directories(docs / "inner");
        writeFile(docs / "file", "contents");
        writeFile(docs / "inner/deep", "deeper");
        copyInto(volume);
    }

    /// What the copy tool makes of the folder.
    void copyInto(const std::filesystem::path& place) const { copy(docs, place); }
    static void copy(const std::filesystem::path& from, const std::filesystem::path& to) {
        const std::string command = "mkdir -p '" + to.string() + "' && cp -a '" + from.string() +
                                    "/.' '" + to.string() + "'";
        if (std::system(command.c_str()) != 0) throw std::runtime_error("no copy");
    }
    static std::uint64_t inodeOf(const std::filesystem::path& path) {
        struct stat status {};
        ::lstat(path.c_str(), &status);
        return status.st_ino;
    }
    OperationNote begin(OperationNote::Operation operation) const {
        OperationNote::Contents contents;
        contents.operation = operation;
        contents.directory = parent.path();
        contents.folder = "Docs";
        contents.item = "Docs.quillvane";
        if (operation == OperationNote::Operation::protect) contents.image = image.filename();
        return OperationNote::begin(std::move(contents));
    }
    void writeKeyFile(const std::filesystem::path& container) const {
        KeyStore::write(VaultKeys::seal(vaultKey, Secret(std::string_view("right"))), container);
    }

    void protectUntilCopying() const {
        begin(OperationNote::Operation::protect);
        writeFile(image, "image");
    }
    void protectUntilCopied() const {
        protectUntilCopying();
        writeKeyFile(image);
    }
    void protectUntilDeleting() const {
        auto note = begin(OperationNote::Operation::protect);
        writeFile(image, "image");
        writeKeyFile(image);
        note.reach(OperationNote::Step::deleting, inodeOf(image));
    }
    void protectUntilDeleted() const {
        protectUntilDeleting();
        std::filesystem::remove_all(docs);
    }
    void protectUntilNamed() const {
        protectUntilDeleted();
        writeFile(KeyStore::path(item), readFile(KeyStore::path(image)));
        std::filesystem::rename(image, item);
    }
    /// With the folder "Docs" as the new one, whatever is in it.
    void removeUntilMade(bool copied) {
        writeFile(item, "image");
        writeKeyFile(item);
        auto note = begin(OperationNote::Operation::remove);
        note.reach(OperationNote::Step::made, inodeOf(docs));
        if (copied) note.reach(OperationNote::Step::copied);
    }

    InterruptedWork::Found found() const {
        const auto all = InterruptedWork::findIn(parent.path());
        if (all.size() != 1) throw std::logic_error(std::to_string(all.size()) + " were found");
        return all[0];
    }
    std::optional<Credential> password(const char* text = "right") const {
        return Credential::password(Secret(std::string_view(text)));
    }
    InterruptedWork::Outcome finish(const std::optional<Credential>& credential = std::nullopt) {
        return InterruptedWork::finish(found(), credential, [](const Progress&) {});
    }
    InterruptedWork::Outcome undo(const std::optional<Credential>& credential = std::nullopt) {
        return InterruptedWork::undo(found(), credential, [](const Progress&) {});
    }
    template <typename End> static std::string refusal(End end) {
        try {
            end();
        } catch (const InterruptedWorkError& error) {
            return error.what();
        }
        return "done";
    }

    std::vector<std::string> names() const {
        std::vector<std::string> list;
        for (const auto& entry : std::filesystem::directory_iterator(parent.path()))
            list.push_back(entry.path().filename().string());
        std::ranges::sort(list);
        return list;
    }
    void expectOnlyFolder() const {
        EXPECT_THAT(names(), testing::ElementsAre("Docs"));
        EXPECT_EQ(readFile(docs / "file"), "contents");
        EXPECT_EQ(readFile(docs / "inner/deep"), "deeper");
        EXPECT_TRUE(tools.notes().empty());
    }
    void expectOnlyItem() const {
        EXPECT_THAT(names(), testing::ElementsAre(".Docs.quillvane.qvkeys", "Docs.quillvane"));
        EXPECT_EQ(readFile(item), "image");
        EXPECT_TRUE(tools.notes().empty());
    }

    RecordingTools tools;
    TemporaryFolder parent;
    std::filesystem::path docs = parent / "Docs";
    std::filesystem::path item = parent / "Docs.quillvane";
    std::filesystem::path image =
        parent / ".Quillvane-11111111-2222-4333-8444-555555555555.sparseimage";
    std::filesystem::path volume = tools.mountPoint();
    Secret vaultKey = Secret(std::string_view("twenty bytes of key!"));
};
