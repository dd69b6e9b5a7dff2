#include "Quillvane/OperationCancelled.h"
#include "Quillvane/VaultEngine.h"
#include "Quillvane/VaultError.h"
#include "tests/support/RecordingTools.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

namespace fs = std::filesystem;
using namespace VaultEngine;
using namespace std::chrono_literals;

TEST(Tallies, CountRegularFilesAndTheirSizes) {
    const TemporaryFolder folder;
    fs::create_directories(folder / "a/b/empty");
    writeFile(folder / "one", "1");
    writeFile(folder / "a/.two", "22");
    writeFile(folder / "a/b/three", "333");
    fs::create_symlink(folder / "one", folder / "a/link");
    fs::create_directory_symlink(folder / "a", folder / "a/b/loop");
    EXPECT_EQ(tallies(folder.path()).count, 3);
    EXPECT_EQ(tallies(folder.path()).bytes, 6);
}

TEST(Tallies, OfOneFileAndOfNothing) {
    const TemporaryFolder folder;
    writeFile(folder / "file", "12345");
    EXPECT_EQ(tallies(folder / "file").count, 1);
    EXPECT_EQ(tallies(folder / "file").bytes, 5);
    EXPECT_EQ(tallies(folder / "missing").count, 0);
    fs::create_directory(folder / "empty");
    EXPECT_EQ(tallies(folder / "empty").bytes, 0);
}

TEST(Tallies, StopWhenAsked) {
    const TemporaryFolder folder;
    fs::create_directory(folder / "empty");
    Cancellation cancellation;
    EXPECT_EQ(tallies(folder.path(), &cancellation).count, 0);
    cancellation.request();
    EXPECT_THROW(tallies(folder.path(), &cancellation), OperationCancelled);
}

TEST(VerifyTopLevel, NeedsEveryEntryAndNothingMore) {
    const TemporaryFolder folder;
    for (const char* name : {"source/a", "source/.b", "source/c", "dest/a", "dest/.b", "dest/more"})
        fs::create_directories(folder / name);
    EXPECT_EQ(verifyTopLevel(folder / "source", folder / "dest", true), "Missing: \"c\".");
    fs::create_symlink("nowhere", folder / "dest/c");
    EXPECT_FALSE(verifyTopLevel(folder / "source", folder / "dest", true).has_value());
}

TEST(VerifyTopLevel, SkipsTheVolumesOwnNamesWhenAsked) {
    const TemporaryFolder folder;
    fs::create_directories(folder / "dest");
    const std::set<std::string> names{".Trashes",
                                      ".fseventsd",
                                      ".Spotlight-V100",
                                      ".DS_Store",
                                      ".DocumentRevisions-V100",
                                      ".TemporaryItems",
                                      ".apdisk",
                                      ".VolumeIcon.icns",
                                      ".metadata_never_index"};
    EXPECT_EQ(systemVolumeItems(), names);
    for (const std::string& name : names) {
        fs::create_directories(folder / "source" / name);
        EXPECT_EQ(verifyTopLevel(folder / "source", folder / "dest", false),
                  "Missing: \"" + name + "\".");
        EXPECT_FALSE(verifyTopLevel(folder / "source", folder / "dest", true).has_value());
        fs::remove(folder / "source" / name);
    }
}

TEST(VerifyTopLevel, TellsWhatCannotBeListed) {
    const TemporaryFolder folder;
    EXPECT_EQ(verifyTopLevel(folder / "missing", folder.path(), true),
              "Couldn't read the folder: No such file or directory");
}

/// Two trees, and a copy tool that compares nothing.
class VerifyCopy : public testing::Test {
protected:
    VerifyCopy() {
        Platform::Tools own = Platform::tools();
        own.dittoCompares = false;
        Platform::setTools(own);
        for (const fs::path& tree : {source, dest}) {
            fs::create_directories(tree / "inner");
            writeFile(tree / "inner/file", "contents");
            fs::last_write_time(tree / "inner/file", fs::file_time_type{});
        }
    }

    RecordingTools tools;
    TemporaryFolder folder;
    fs::path source = folder / "source";
    fs::path dest = folder / "dest";
};

TEST_F(VerifyCopy, ComparesEverythingBelowTheTop) {
    EXPECT_EQ(verifyCopy(source, dest), std::nullopt);
    writeFile(dest / "inner/file", "Contents");
    fs::last_write_time(dest / "inner/file", fs::file_time_type{});
    EXPECT_EQ(verifyCopy(source, dest), "Not the same in the copy: \"inner/file\".");
    fs::permissions(source, fs::perms::owner_all);
    EXPECT_EQ(verifyCopy(source, dest), "Not the same in the copy: \"inner/file\".");
    fs::remove_all(dest / "inner");
    EXPECT_EQ(verifyCopy(source, dest), "Missing: \"inner\".");
}

TEST_F(VerifyCopy, AsksNothingOfTheRootButItsEntries) {
    fs::permissions(source, fs::perms::owner_all);
    EXPECT_EQ(verifyCopy(source, dest), std::nullopt);
}

TEST_F(VerifyCopy, BelievesAToolThatComparesItself) {
    writeFile(dest / "inner/file", "Contents");
    const RecordingTools others;
    EXPECT_EQ(verifyCopy(source, dest), std::nullopt);
}

TEST_F(VerifyCopy, EndsOnRequest) {
    Cancellation cancellation;
    cancellation.request();
    EXPECT_THROW(verifyCopy(source, dest, &cancellation), OperationCancelled);
}

TEST_F(VerifyCopy, IsAskedBeforeAnythingIsDeleted) {
    tools.play("ditto", "", "cp -a \"$1/.\" \"$2\"; echo > \"$2/inner/file\"");
    const Secret password(std::string_view("password"));
    try {
        lock(source, password, password, Filesystem::apfs, [](const Progress&) {});
        FAIL() << "it was protected";
    } catch (const VaultError& error) {
        EXPECT_STREQ(error.what(),
                     "Data verification failed. Your original folder was left untouched.\n"
                     "Not the same in the copy: \"inner/file\".");
    }
    EXPECT_EQ(readFile(source / "inner/file"), "contents");

    writeFile(folder / "Docs.quillvane", "item");
    fs::create_directories(fs::path(tools.mountPoint()) / "inner");
    writeFile(fs::path(tools.mountPoint()) / "inner/file", "contents");
    EXPECT_THROW(removePassword(folder / "Docs.quillvane",
                                Credential::password(Secret(std::string_view("password"))),
                                [](const Progress&) {}),
                 VaultError);
    EXPECT_TRUE(fs::exists(folder / "Docs.quillvane"));
    EXPECT_FALSE(fs::exists(folder / "Docs"));
}

TEST(IsDirectoryEmpty, IsTrueForEmptyDirectoriesOnly) {
    const TemporaryFolder folder;
    EXPECT_TRUE(isDirectoryEmpty(folder.path()));
    writeFile(folder / ".hidden", "");
    EXPECT_FALSE(isDirectoryEmpty(folder.path()));
    EXPECT_FALSE(isDirectoryEmpty(folder / ".hidden"));
    EXPECT_FALSE(isDirectoryEmpty(folder / "missing"));
}

TEST(Trimmed, RemovesWhiteSpaceAtBothEnds) {
    EXPECT_EQ(trimmed(" \t\r\n a  b \n\n"), "a  b");
    EXPECT_EQ(trimmed("\u00A0\u2003x\u2028\u0085\u3000"), "x");
    EXPECT_EQ(trimmed("x"), "x");
    EXPECT_EQ(trimmed("\xff \xff"), "\xff \xff");
}

TEST(Trimmed, HasATextForNothing) {
    for (const char* text : {"", " ", "\n\r\n\t", "\u00A0"})
        EXPECT_EQ(trimmed(text), "(nessun dettaglio dal sistema)");
}

TEST(DittoWithProgress, HandsOverTwoPathsAndReturnsWhateverComes) {
    RecordingTools tools;
    tools.play("ditto", "", "echo out; echo err >&2; exit 7");
    const ProcessResult result = dittoWithProgress("/from here", "/to", 10, "/", 0, [](double) {});
    EXPECT_EQ(result.exitCode, 7);
    EXPECT_EQ(result.standardOutput, "out\n");
    EXPECT_EQ(result.standardError, "err\n");
    ASSERT_EQ(tools.calls().size(), 1U);
    EXPECT_EQ(tools.calls()[0].arguments, (std::vector<std::string>{"/from here", "/to"}));
}

TEST(DittoWithProgress, ReportsUntilTheToolEndsAndNeverMoreThanNearlyAll) {
    RecordingTools tools;
    tools.play("ditto", "", "sleep 1");
    std::vector<double> fractions;
    // The volume of "/" holds far more than a byte over nothing.
    dittoWithProgress("/a", "/b", 1, "/", 0, [&](double p) { fractions.push_back(p); });
    EXPECT_GE(fractions.size(), 2U);
    EXPECT_LE(fractions.size(), 5U);
    for (const double fraction : fractions) EXPECT_EQ(fraction, 0.98);
}

TEST(DittoWithProgress, CountsWhatTheVolumeGained) {
    RecordingTools tools;
    tools.play("ditto", "", "true");
    const auto firstReport = [](std::int64_t total, const fs::path& mount, std::int64_t baseline) {
        std::vector<double> fractions;
        dittoWithProgress("/a", "/b", total, mount, baseline,
                          [&](double p) { fractions.push_back(p); });
        return fractions.at(0);
    };
    const std::int64_t used = usedBytes("/");
    EXPECT_EQ(firstReport(0, "/", 0), 0) << "nothing to copy";
    EXPECT_EQ(firstReport(100, "/", used + (1LL << 40)), 0) << "the volume shrank";
    EXPECT_EQ(firstReport(100, "/missing", 0), 0) << "nothing is known";
    EXPECT_NEAR(firstReport(used * 2, "/", 0), 0.5, 0.05);
}

TEST(DittoWithProgress, PassesLaunchFailuresOnWithoutALateReport) {
    RecordingTools tools;
    tools.uninstall("ditto");
    std::atomic<int> reports{0};
    EXPECT_THROW(dittoWithProgress("/a", "/b", 1, "/", 0, [&](double) { ++reports; }),
                 ProcessLaunchError);
    const int sofar = reports;
    std::this_thread::sleep_for(500ms);
    EXPECT_EQ(reports, sofar);
}

TEST(DittoWithProgress, EndsSoonAfterTheTool) {
    RecordingTools tools;
    tools.play("ditto", "", "true");
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 5; ++i) dittoWithProgress("/a", "/b", 1, "/", 0, [](double) {});
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1900ms)
        << "it waits out the poller's sleep";
}

} // namespace
