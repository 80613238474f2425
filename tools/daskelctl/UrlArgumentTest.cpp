// URL-or-PATH arguments: URLs pass exactly as typed; paths become absolute, lexically normal,
// percent-encoded file URLs, directory URLs for directories.
#include "tools/daskelctl/UrlArgument.h"

#include <filesystem>

#include <gtest/gtest.h>

namespace daskel::ctl {
namespace {

std::string urlOf(std::string_view text, const std::string& cwd = "/nonexistent/cwd") {
  auto url = urlFromArgument(text, cwd);
  EXPECT_TRUE(url) << text << ": " << (url ? "" : url.error()->description());
  return url ? url->absoluteString() : std::string();
}

TEST(UrlArgument, UrlsPassExactlyAsTyped) {
  EXPECT_EQ(urlOf("file:///srv/Report%20One.txt"), "file:///srv/Report%20One.txt");
  EXPECT_EQ(urlOf("file:///srv/a/../b/"), "file:///srv/a/../b/");
  EXPECT_EQ(urlOf("https://example.com/x?y#z"), "https://example.com/x?y#z");
  EXPECT_EQ(urlOf("a:b"), "a:b");
}

TEST(UrlArgument, PathsBecomeAbsoluteNormalisedPercentEncodedFileUrls) {
  EXPECT_EQ(urlOf("/srv/Report One.txt"), "file:///srv/Report%20One.txt");
  EXPECT_EQ(urlOf("docs/../Report.txt", "/home/u"), "file:///home/u/Report.txt");
  EXPECT_EQ(urlOf("./a:b", "/home/u"), "file:///home/u/a%3Ab");
  EXPECT_EQ(urlOf("/srv//x/./y"), "file:///srv/x/y");
}

TEST(UrlArgument, ExistingDirectoriesAndPathsEndingInASlashBecomeDirectoryUrls) {
  const auto tmp = std::filesystem::temp_directory_path().string();
  EXPECT_EQ(urlOf(tmp), "file://" + tmp + "/");
  EXPECT_EQ(urlOf("/nonexistent/dir/"), "file:///nonexistent/dir/");
  EXPECT_EQ(urlOf("/nonexistent/file"), "file:///nonexistent/file");
  EXPECT_EQ(urlOf("/"), "file:///");
}

TEST(UrlArgument, EmptyAndNulTextsAndBrokenUrlsAreRefused) {
  for (std::string_view text :
       {std::string_view(""), std::string_view("/a\0b", 4), std::string_view("file://[bad")}) {
    auto url = urlFromArgument(text, "/");
    ASSERT_FALSE(url) << text;
    EXPECT_EQ(url.error()->userInfo.at("parameter"), platform::Value("URL"));
  }
}

}  // namespace
}  // namespace daskel::ctl
