// The bytes of the journal, as e2fsprogs reads them.

#include "RecordingDisk.h"

#include "linux/hdiutil/Journal.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <numeric>
#include <sstream>
#include <system_error>

namespace {

using Block = std::vector<std::byte>;
constexpr std::size_t blockSize = Journal::blockSize;
/// Blocks far behind everything that mke2fs uses.
constexpr std::uint64_t someBlock = 5000;

class JournalTest : public testing::TestWithParam<const char*> {
protected:
    void SetUp() override {
        const auto plain = image();
        std::istringstream numbers(debug("blocks <8>").output);
        for (std::uint64_t block = 0; numbers >> block;) blocks.push_back(block);
        ASSERT_EQ(blocks.size(), Journal::fewestBlocks);
        journal = std::make_unique<Journal>(disk, blocks, isWide());
    }

    static bool isWide() { return std::string(GetParam()).empty(); }
    std::filesystem::path image() { return images.write(disk.after(disk.events())); }
    Outcome debug(const std::string& request) {
        return runCommand("/usr/sbin/debugfs -R '" + request + "' " + image().string() +
                          " 2>/dev/null");
    }
    static Block blockOf(int value) { return Block(blockSize, static_cast<std::byte>(value)); }
    void commit(const std::vector<std::pair<std::uint64_t, Block>>& changed,
                const std::vector<std::uint64_t>& revoked = {}) {
        std::vector<Journal::Change> changes;
        changes.reserve(changed.size());
        for (const auto& [block, contents] : changed) changes.push_back({block, contents.data()});
        journal->commit(changes, revoked);
    }
    /// The disk after e2fsck has replayed.
    Block replayed() {
        const std::string file = image().string();
        // What Transactions sees to.
        EXPECT_EQ(runCommand("/usr/sbin/debugfs -w -R 'feature needs_recovery' " + file).status, 0);
        const Outcome outcome = runCommand("/usr/sbin/e2fsck -p " + file);
        EXPECT_EQ(outcome.output.find("JBD2"), std::string::npos) << outcome.output;
        EXPECT_NE(outcome.output.find("recovering journal"), std::string::npos);
        EXPECT_EQ(runCommand("/usr/sbin/e2fsck -fn " + file).status, 0);
        return PlainImages::read(file);
    }
    static Block at(const Block& content, std::uint64_t block) {
        const auto from = content.begin() + static_cast<std::ptrdiff_t>(block * blockSize);
        return {from, from + blockSize};
    }

    RecordingDisk disk{24, std::string("-J size=4 ") + GetParam()};
    PlainImages images;
    std::vector<std::uint64_t> blocks;
    std::unique_ptr<Journal> journal;
};

TEST_P(JournalTest, IsReadByOthers) {
    journal->start();
    commit({{someBlock, blockOf(1)}, {someBlock + 1, blockOf(2)}});
    commit({{someBlock + 2, blockOf(3)}}, {someBlock, 700});
    const std::string log = debug("logdump -a").output;
    EXPECT_NE(log.find("Journal starts at block 1, transaction 1"), std::string::npos) << log;
    EXPECT_NE(log.find("FS block 5001 logged at journal block 3"), std::string::npos) << log;
    EXPECT_NE(log.find("sequence 2, type 2 (commit block)"), std::string::npos) << log;
    EXPECT_NE(log.find("Revoke FS block 700"), std::string::npos) << log;
    EXPECT_NE(log.find("end of journal"), std::string::npos) << log;
}

TEST_P(JournalTest, IsReplayed) {
    journal->start();
    commit({{someBlock, blockOf(1)}, {someBlock + 1, blockOf(1)}});
    commit({{someBlock + 1, blockOf(2)}});
    const Block content = replayed();
    EXPECT_EQ(at(content, someBlock), blockOf(1));
    EXPECT_EQ(at(content, someBlock + 1), blockOf(2));
}

TEST_P(JournalTest, ABlockThatLooksLikeItsOwnComesBackWhole) {
    Block tricky = blockOf(5);
    const JournalFormat::Big32 magic = JournalFormat::magic;
    std::memcpy(tricky.data(), &magic, sizeof magic);
    journal->start();
    commit({{someBlock, tricky}, {someBlock + 1, blockOf(6)}});
    const Block content = replayed();
    EXPECT_EQ(at(content, someBlock), tricky);
    EXPECT_EQ(at(content, someBlock + 1), blockOf(6));
}

TEST_P(JournalTest, ARevokedCopyIsNotUsedButALaterOneIs) {
    journal->start();
    commit({{someBlock, blockOf(1)}, {someBlock + 1, blockOf(1)}});
    commit({{someBlock + 2, blockOf(2)}}, {someBlock, someBlock + 1});
    commit({{someBlock + 1, blockOf(3)}});
    const Block content = replayed();
    EXPECT_EQ(at(content, someBlock), blockOf(0));
    EXPECT_EQ(at(content, someBlock + 1), blockOf(3));
}

TEST_P(JournalTest, ManyBlocksTakeSeveralDescriptors) {
    journal->start();
    std::vector<std::pair<std::uint64_t, Block>> changes;
    for (int i = 0; i < 600; ++i) changes.emplace_back(someBlock + i, blockOf(i % 251));
    std::vector<std::uint64_t> revoked(1200);
    std::iota(revoked.begin(), revoked.end(), 100'000);
    commit(changes, revoked);
    EXPECT_EQ(journal->size() - journal->room(), journal->blocksFor(600, 1200));
    const Block content = replayed();
    for (const auto& [block, expected] : changes) ASSERT_EQ(at(content, block), expected);
}

TEST_P(JournalTest, GoesRoundAndRoundAndNeverBackInItsNumbers) {
    for (int session = 0; session < 3; ++session) {
        journal = std::make_unique<Journal>(disk, blocks, isWide());
        journal->start();
        for (int i = 0; i < 40; ++i) {
            std::vector<std::pair<std::uint64_t, Block>> changes;
            for (int j = 0; j < 100; ++j) changes.emplace_back(someBlock + j, blockOf(i + session));
            if (journal->blocksFor(100, 0) > journal->room()) journal->clear();
            commit(changes);
        }
        if (session < 2) journal->stop();
    }
    EXPECT_NE(debug("logdump").output.find("transaction 1"), std::string::npos);
    EXPECT_EQ(at(replayed(), someBlock), blockOf(41));
}

TEST_P(JournalTest, ATransactionThatDoesNotFitChangesNothing) {
    journal->start();
    commit({{someBlock, blockOf(1)}});
    const std::vector<std::pair<std::uint64_t, Block>> tooMany(journal->size(),
                                                               {someBlock, blockOf(2)});
    EXPECT_THROW(commit(tooMany), std::system_error);
    commit({{someBlock + 1, blockOf(3)}});
    const Block content = replayed();
    EXPECT_EQ(at(content, someBlock), blockOf(1));
    EXPECT_EQ(at(content, someBlock + 1), blockOf(3));
}

TEST_P(JournalTest, AFailedTransactionIsFinishedBeforeTheNext) {
    for (std::size_t fault = 0; fault < 5; ++fault) {
        journal = std::make_unique<Journal>(disk, blocks, isWide());
        journal->start();
        disk.breakDown({disk.attempts() + fault, 1, EIO});
        // Two blocks, one that describes them, one that commits; two syncs.
        EXPECT_THROW(commit({{someBlock, blockOf(1)}, {someBlock + 1, blockOf(1)}}),
                     std::system_error);
        commit({{someBlock + 1, blockOf(2)}});
        const Block content = replayed();
        EXPECT_EQ(at(content, someBlock), blockOf(1));
        EXPECT_EQ(at(content, someBlock + 1), blockOf(2));
        journal->stop();
    }
}

TEST_P(JournalTest, IsRefusedWhenItMakesNoSense) {
    const auto refuses = [&](std::size_t offset, std::uint32_t value) {
        Block super(blockSize);
        disk.read(blocks.front(), super);
        const Block good = super;
        const JournalFormat::Big32 number = value;
        std::memcpy(super.data() + offset, &number, sizeof number);
        disk.write(blocks.front(), super);
        EXPECT_THROW(Journal(disk, blocks, true), JournalUnusable) << "offset " << offset;
        disk.write(blocks.front(), good);
    };
    refuses(0, 1);                                                      // no magic number
    refuses(12, 1024);                                                  // size of blocks
    refuses(16, 2000);                                                  // longer than it is
    refuses(16, 10);                                                    // far too short
    refuses(20, 0);                                                     // begins with itself
    refuses(28, 1);                                                     // not replayed
    refuses(offsetof(JournalFormat::Superblock, incompatible), 0x8000); // unheard of
    EXPECT_THROW(Journal(disk, {blocks.begin(), blocks.begin() + 10}, true), JournalUnusable);
    EXPECT_NO_THROW(Journal(disk, blocks, true));
}

INSTANTIATE_TEST_SUITE_P(Formats, JournalTest, testing::Values("", "-O ^64bit,^metadata_csum"));

} // namespace
