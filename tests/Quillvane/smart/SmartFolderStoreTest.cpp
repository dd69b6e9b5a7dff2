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
    QSettings preferences{QString::fromStdString((folder / "p.conf").string()),
                          QSettings::IniFormat};
    SmartFolderStore store{preferences, folder.path()};
};

TEST_F(SmartFolderStoreTest, KeepsEveryPathAsItIs) {
    const Record odd{"ä \n%\"=;\\@", "/a/ä \n%\"=;\\@.quillvane", "/a/ä \n%\"=;\\@"};
    const Record bytes{"\xff\xfe", "/\xff\xfe.quillvane", "/\xff\xfe"};
    const Record at{"@Variant(x)", "@", "/@"};
    ASSERT_TRUE(store.write({odd, bytes, at}, {}));
    QSettings again(preferences.fileName(), QSettings::IniFormat);
    EXPECT_THAT(*SmartFolderStore(again, folder.path()).read(), ElementsAre(odd, bytes, at));
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
        QSettings damaged(preferences.fileName(), QSettings::IniFormat);
        const auto records = SmartFolderStore(damaged, folder.path()).read();
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
        store.claim("/a");
        [[maybe_unused]] const ssize_t written = ::write(ready[1], "x", 1);
        ::pause();
        ::_exit(0);
    }
    char byte = 0;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1);
    EXPECT_TRUE(store.claimedElsewhere("/a"));
    EXPECT_FALSE(store.claimedElsewhere("/b"));
    store.claim("/a");
    EXPECT_TRUE(store.claimedElsewhere("/a")) << "a claim is not taken away";
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    EXPECT_FALSE(store.claimedElsewhere("/a"));
    store.claim("/a");
    EXPECT_FALSE(store.claimedElsewhere("/a")) << "our own";
    ::close(ready[0]);
    ::close(ready[1]);
}

TEST_F(SmartFolderStoreTest, WithoutAPlaceForLocksNothingIsClaimed) {
    SmartFolderStore homeless(preferences, folder / "missing");
    homeless.claim("/a");
    EXPECT_FALSE(homeless.claimedElsewhere("/a"));
    EXPECT_TRUE(homeless.write({{"a", "/a.quillvane", "/a"}}, {}));
}

} // namespace
