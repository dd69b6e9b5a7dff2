#include "Quillvane/SmartFolderStore.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using ::testing::ElementsAre;
using Record = SmartFolderStore::Record;

class SmartFolderStoreTest : public ::testing::Test {
protected:
    TemporaryFolder folder;
    SmartFolderStore::OpenPreferences openPreferences = [this] {
        return std::make_unique<QSettings>(QString::fromStdString((folder / "p.conf").string()),
                                           QSettings::IniFormat);
    };
    SmartFolderStore store{openPreferences, folder.path()};
};

TEST_F(SmartFolderStoreTest, KeepsEveryPathAsItIs) {
    const Record odd{"ä \n%\"=;\\@", "/a/ä \n%\"=;\\@.quillvane", "/a/ä \n%\"=;\\@"};
    const Record bytes{"\xff\xfe", "/\xff\xfe.quillvane", "/\xff\xfe"};
    const Record at{"@Variant(x)", "@", "/@"};
    ASSERT_TRUE(store.write({odd, bytes, at}, {}));
    EXPECT_THAT(*SmartFolderStore(openPreferences, folder.path()).read(),
                ElementsAre(odd, bytes, at));
}

TEST_F(SmartFolderStoreTest, IsReadableForPeople) {
    ASSERT_TRUE(store.write({{"My Docs", "/home/a/My Docs.quillvane", "/home/a/My Docs"}}, {}));
    EXPECT_EQ(readFile(folder / "p.conf"), "[quillvane.smartActive.v1]\n"
                                           "1\\container=/home/a/My Docs.quillvane\n"
                                           "1\\mountPath=/home/a/My Docs\n"
                                           "1\\name=My Docs\n"
                                           "size=1\n");
}

TEST_F(SmartFolderStoreTest, AnEmptyListIsAList) {
    EXPECT_FALSE(store.read());
    ASSERT_TRUE(store.write({}, {}));
    ASSERT_TRUE(store.read());
    EXPECT_TRUE(store.read()->empty());
}

TEST_F(SmartFolderStoreTest, ADamagedSizeDoesNoHarm) {
    for (const char* size : {"2000000000", "-1", "x", ""}) {
        writeFile(folder / "p.conf",
                  "[quillvane.smartActive.v1]\n1\\name=a\nsize=" + std::string(size) + "\n");
        const auto records = store.read();
        EXPECT_TRUE(!records || records->empty()) << size;
    }
}

TEST_F(SmartFolderStoreTest, OthersRecordsStay) {
    const Record mine{"a", "/a.quillvane", "/a"};
    const Record others{"b", "/b.quillvane", "/b"};
    ASSERT_TRUE(store.write({mine, others}, {}));
    ASSERT_TRUE(store.write({}, {"/a"}));
    EXPECT_THAT(*store.read(), ElementsAre(others));
}

TEST_F(SmartFolderStoreTest, AClaimEndsWithItsProcess) {
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        static_cast<void>(store.claim("/a"));
        [[maybe_unused]] const ssize_t written = ::write(ready[1], "x", 1);
        ::pause();
        ::_exit(0);
    }
    char byte = 0;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1);
    EXPECT_TRUE(store.claimedElsewhere("/a"));
    EXPECT_FALSE(store.claimedElsewhere("/b"));
    EXPECT_FALSE(store.claim("/a")) << "a claim is not taken away";
    EXPECT_TRUE(store.claimedElsewhere("/a"));
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    EXPECT_FALSE(store.claimedElsewhere("/a"));
    EXPECT_TRUE(store.claim("/a"));
    EXPECT_FALSE(store.claimedElsewhere("/a")) << "our own";
    EXPECT_TRUE(SmartFolderStore(openPreferences, folder.path()).claimedElsewhere("/a"));
    store.release("/a");
    EXPECT_FALSE(SmartFolderStore(openPreferences, folder.path()).claimedElsewhere("/a"));
    ::close(ready[0]);
    ::close(ready[1]);
}

TEST_F(SmartFolderStoreTest, ALockFileThatIsThereMeansNothing) {
    ASSERT_TRUE(store.claim("/a"));
    store.release("/a");
    for (const auto& file : std::filesystem::directory_iterator(folder.path()))
        if (file.path().extension() == ".lock") writeFile(file.path(), "torn");
    EXPECT_FALSE(store.claimedElsewhere("/a"));
    EXPECT_TRUE(store.claim("/a"));
}

TEST_F(SmartFolderStoreTest, ATornLockOfThePreferencesIsNotWaitedForLong) {
    ASSERT_TRUE(store.write({{"a", "/a.quillvane", "/a"}}, {}));
    writeFile(folder / "p.conf.lock", "");
    EXPECT_EQ(store.read()->size(), 1U);
    EXPECT_FALSE(std::filesystem::exists(folder / "p.conf.lock"));
}

TEST_F(SmartFolderStoreTest, WritersTakeTurns) {
    constexpr int writers = 4;
    constexpr int rounds = 10;
    for (int writer = 0; writer < writers; ++writer) {
        if (::fork() != 0) continue;
        std::set<std::string> managed;
        std::vector<Record> own;
        for (int round = 0; round < rounds; ++round) {
            const std::string path = "/" + std::to_string(writer) + "-" + std::to_string(round);
            own.push_back({"n", path + ".quillvane", path});
            managed.insert(path);
            if (!store.write(own, managed)) ::_exit(1);
        }
        ::_exit(0);
    }
    for (int writer = 0; writer < writers; ++writer) {
        int status = 0;
        ::wait(&status);
        EXPECT_EQ(status, 0);
    }
    EXPECT_EQ(store.read()->size(), static_cast<std::size_t>(writers * rounds));
}

TEST_F(SmartFolderStoreTest, WithoutAPlaceForLocksNothingIsClaimed) {
    SmartFolderStore homeless(openPreferences, folder / "missing");
    EXPECT_TRUE(homeless.claim("/a"));
    EXPECT_FALSE(homeless.claimedElsewhere("/a"));
    EXPECT_TRUE(homeless.write({{"a", "/a.quillvane", "/a"}}, {}));
}

} // namespace
