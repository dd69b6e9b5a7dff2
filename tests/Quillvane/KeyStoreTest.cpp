#include "Quillvane/KeyStore.h"
#include "Quillvane/Platform.h"
#include "tests/support/OrdinaryUser.h"
#include "tests/support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

KeyMetadata record(const std::string& salt) {
    KeyMetadata metadata;
    metadata.salt = salt;
    return metadata;
}

std::size_t entries(const fs::path& folder) {
    return static_cast<std::size_t>(
        std::distance(fs::directory_iterator(folder), fs::directory_iterator()));
}

TEST(KeyStore, NamesTheKeyFileAfterTheItem) {
    EXPECT_EQ(KeyStore::path("/a/Photos.quillvane"), "/a/.Photos.quillvane.qvkeys");
    EXPECT_EQ(KeyStore::path("/a/Été à Rome.quillvane"), "/a/.Été à Rome.quillvane.qvkeys");
    EXPECT_EQ(KeyStore::path("Photos.quillvane"), ".Photos.quillvane.qvkeys");
}

TEST(KeyStore, ReplacesTheFileWholeAndLeavesNothingElse) {
    const TemporaryFolder folder;
    const fs::path item = folder / "My Photos é.quillvane";
    KeyStore::write(record("first"), item);
    KeyStore::write(record("second"), item);
    EXPECT_EQ(KeyStore::read(item), record("second").encode());
    EXPECT_EQ(readFile(folder / ".My Photos é.quillvane.qvkeys"), record("second").encode());
    EXPECT_EQ(entries(folder.path()), 1U);
    EXPECT_TRUE(Platform::isHidden(KeyStore::path(item)));
}

TEST(KeyStore, RemovesWhatAKilledProgramLeftBesideIt) {
    const TemporaryFolder folder;
    writeFile(folder / ".quillvane-0123456789abcdef.tmp", "half a fi");
    KeyStore::write(record(""), folder / "a");
    EXPECT_EQ(entries(folder.path()), 1U);
}

TEST(KeyStore, IsForItsOwnerOnly) {
    const TemporaryFolder folder;
    KeyStore::write(record(""), folder / "a");
    struct stat status {};
    ASSERT_EQ(::stat((folder / ".a.qvkeys").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST(KeyStore, HoldsTheLongestNamesThatFit) {
    const TemporaryFolder folder;
    const fs::path item = folder / std::string(255 - 8, 'n');
    KeyStore::write(record("s"), item);
    EXPECT_TRUE(KeyStore::read(item).has_value());
    EXPECT_THROW(KeyStore::write(record("s"), folder / std::string(255 - 7, 'n')),
                 std::system_error);
    EXPECT_EQ(entries(folder.path()), 1U);
}

TEST(KeyStore, FailsWithoutATraceWhenTheNameIsTaken) {
    const TemporaryFolder folder;
    fs::create_directories(folder / ".a.qvkeys/inside");
    EXPECT_THROW(KeyStore::write(record(""), folder / "a"), std::system_error);
    EXPECT_EQ(entries(folder.path()), 1U);
}

TEST(KeyStore, FailsWithoutATraceWhereNothingMayBeWritten) {
    const TemporaryFolder folder;
    EXPECT_TRUE(asOrdinaryUser(folder.path(), [&] {
        KeyStore::write(record("old"), folder / "a");
        fs::permissions(folder.path(), fs::perms::owner_read | fs::perms::owner_exec);
        bool refused = false;
        try {
            KeyStore::write(record("new"), folder / "a");
        } catch (const std::system_error& error) {
            refused = error.code() == std::errc::permission_denied;
        }
        fs::permissions(folder.path(), fs::perms::owner_all);
        return refused && KeyStore::read(folder / "a") == record("old").encode() &&
               entries(folder.path()) == 1;
    }));
}

TEST(KeyStore, ReadsRegularFilesOfSaneSizeOnly) {
    const TemporaryFolder folder;
    EXPECT_FALSE(KeyStore::read(folder / "missing").has_value());

    ASSERT_EQ(::mkfifo((folder / ".fifo.qvkeys").c_str(), 0600), 0);
    EXPECT_FALSE(KeyStore::read(folder / "fifo").has_value())
        << "and it does not wait for a writer";

    fs::create_directory(folder / ".folder.qvkeys");
    EXPECT_FALSE(KeyStore::read(folder / "folder").has_value());

    writeFile(folder / ".huge.qvkeys", "");
    fs::resize_file(folder / ".huge.qvkeys", 1 << 30);
    EXPECT_FALSE(KeyStore::read(folder / "huge").has_value());
}

TEST(KeyStore, FollowsLinksToTheUsersOwnFilesOnly) {
    const TemporaryFolder folder;
    const TemporaryFolder elsewhere;
    writeFile(elsewhere / "own", "text");
    fs::create_symlink(elsewhere / "own", folder / ".item.qvkeys");
    EXPECT_EQ(KeyStore::read(folder / "item"), "text");
    KeyStore::write(record("new"), folder / "item");
    EXPECT_EQ(readFile(elsewhere / "own"), "text") << "it was written through";
    EXPECT_EQ(KeyStore::read(folder / "item"), record("new").encode());

    if (::geteuid() != 0) GTEST_SKIP() << "needs root, to give a file away";
    fs::remove(folder / ".item.qvkeys");
    fs::create_symlink(elsewhere / "own", folder / ".item.qvkeys");
    ASSERT_EQ(::chown((elsewhere / "own").c_str(), 65534, 65534), 0);
    EXPECT_FALSE(KeyStore::read(folder / "item").has_value());
    fs::rename(elsewhere / "own", folder / ".item.qvkeys");
    EXPECT_EQ(KeyStore::read(folder / "item"), "text") << "another user's item, perhaps";
}

TEST(KeyStore, SetsAsideWhatItCannotRead) {
    const TemporaryFolder folder;
    EXPECT_TRUE(asOrdinaryUser(folder.path(), [&] {
        writeFile(folder / ".a.qvkeys", record("former").encode());
        fs::permissions(folder / ".a.qvkeys", fs::perms::none);
        const auto former = KeyStore::setAsideFormer(folder / "a", record("new"));
        return former == folder / ".a.qvkeys.old" && !fs::exists(folder / ".a.qvkeys");
    }));
    writeFile(folder / ".b.qvkeys", "no key file");
    EXPECT_FALSE(KeyStore::setAsideFormer(folder / "b", record("new")));
    EXPECT_FALSE(KeyStore::setAsideFormer(folder / "c", record("new")));
}

TEST(KeyStore, RemovesAndIgnoresWhatIsNotThere) {
    const TemporaryFolder folder;
    KeyStore::write(record(""), folder / "a");
    KeyStore::remove(folder / "a");
    KeyStore::remove(folder / "a");
    EXPECT_EQ(entries(folder.path()), 0U);
    KeyStore::setHidden(folder / "a", true);
    EXPECT_EQ(entries(folder.path()), 0U);
}

} // namespace
