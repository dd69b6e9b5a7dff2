#include "Quillvane/FileUrl.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string pathOf(const char* url) {
    return filePath(QUrl::fromEncoded(url, QUrl::StrictMode)).string();
}

TEST(FileUrl, KeepsEveryByteOfAName) {
    // Every pair of bytes but those with a NUL or a slash, valid UTF-8 or not.
    for (int first = 1; first < 256; ++first) {
        for (int second = 1; second < 256; ++second) {
            if (first == '/' || second == '/') continue;
            const std::string path = {
                '/', 't', '/', static_cast<char>(first), static_cast<char>(second), '.', 'q'};
            const QUrl url = fileUrl(path);
            ASSERT_EQ(filePath(url).string(), path) << first << " " << second;
            const QByteArray encoded = url.toEncoded();
            ASSERT_EQ(filePath(QUrl::fromEncoded(encoded, QUrl::StrictMode)).string(), path)
                << first << " " << second;
        }
    }
}

TEST(FileUrl, KeepsUnusualPaths) {
    for (const std::string path :
         {"/", "//two/slashes", "/a//b/", "/a/../b/.", "/\xed\xa0\x80", "/\xef\xbf\xbf",
          "/\xc0\xaf", "/\xf4\x90\x80\x80", "/\xc2\xa0 \xe2\x80\xae", "/100%/%41?#[x]\\;&"})
        EXPECT_EQ(filePath(fileUrl(path)).string(), path);
}

TEST(FileUrl, MakesPathsAbsolute) {
    EXPECT_EQ(filePath(fileUrl("Docs.quillvane")),
              std::filesystem::current_path() / "Docs.quillvane");
}

TEST(FileUrl, UnderstandsTheWaysToWriteALocalFile) {
    EXPECT_EQ(pathOf("file:///home/ada/a%20b"), "/home/ada/a b");
    EXPECT_EQ(pathOf("file:/home/ada"), "/home/ada");
    EXPECT_EQ(pathOf("FILE://LocalHost/home/ada"), "/home/ada");
    EXPECT_EQ(pathOf("file:///home/n\xc3\xa4\xef\xac\x81"), "/home/n\xc3\xa4\xef\xac\x81");
}

TEST(FileUrl, LeavesOutWhatIsNoLocalFile) {
    for (const char* url : {"",
                            "/home/ada",
                            "file:",
                            "file://",
                            "file:relative",
                            "file:./relative",
                            "file://other.example/home",
                            "file://ada@localhost/home",
                            "file://localhost:80/home",
                            "http://localhost/home",
                            "smb:///home",
                            "file:///a?query",
                            "file:///a#fragment",
                            "file:///a%00b",
                            "file:///a%2fb",
                            "file:///a%2Fb",
                            "file:///a%zz",
                            "file:///a%4",
                            "file:///a b",
                            "file:///a\nb",
                            "file:///a<b",
                            "%",
                            "file",
                            ":",
                            "://",
                            "file://[x"})
        EXPECT_EQ(pathOf(url), "") << url;
}

} // namespace
