// Changes to text files: what a dry run shows, and saving.
#include "ConfigFiles/FileChange.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <random>

#include "ConfigFiles/UnifiedDiff.h"
#include "Support/TemporaryFolder.h"
#include "Tools/ChildProcess.h"

namespace ostrel {
namespace {

using testing::readFile;
using testing::TemporaryFolder;
using testing::writeFile;

/// What patch(1) makes of a text with a diff.
std::string patched(const std::string& oldText, const std::string& diff) {
  const TemporaryFolder folder;
  writeFile(folder / "file", oldText);
  writeFile(folder / "diff", diff);
  const auto outcome = testing::runProgram(
      {"/usr/bin/patch", "--binary", "--posix", "--fuzz=0", "-s", "-i", folder / "diff", folder / "file"});
  EXPECT_EQ(outcome.status, 0) << outcome.output << outcome.errors << diff;
  return readFile(folder / "file");
}

TEST(UnifiedDiff, ShowsChangesInTheKnownForm) {
  struct Case {
    const char* oldText;
    const char* newText;
    const char* diff;
  };
  const Case cases[] = {
      {"", "", ""},
      {"a\n", "a\n", ""},
      {"", "a\n", "@@ -0,0 +1 @@\n+a\n"},
      {"a\nb\n", "", "@@ -1,2 +0,0 @@\n-a\n-b\n"},
      {"a", "a\n", "@@ -1 +1 @@\n-a\n\\ No newline at end of file\n+a\n"},
      {"1\n2\n3\n4\n5\n6\n7\n8\n9\n", "1\n2\n3\n4\nfive\n6\n7\n8\n9\n",
       "@@ -2,7 +2,7 @@\n 2\n 3\n 4\n-5\n+five\n 6\n 7\n 8\n"},
      {"a\n1\n2\n3\n4\n5\n6\nb\n", "A\n1\n2\n3\n4\n5\n6\nB\n",
       "@@ -1,8 +1,8 @@\n-a\n+A\n 1\n 2\n 3\n 4\n 5\n 6\n-b\n+B\n"},
      {"a\n1\n2\n3\n4\n5\n6\n7\nb\n", "A\n1\n2\n3\n4\n5\n6\n7\nB\n",
       "@@ -1,4 +1,4 @@\n-a\n+A\n 1\n 2\n 3\n@@ -6,4 +6,4 @@\n 5\n 6\n 7\n-b\n+B\n"},
  };
  for (const Case& c : cases) {
    const std::string head = *c.diff == '\0' ? "" : "--- old\n+++ new\n";
    EXPECT_EQ(unifiedDiff(c.oldText, c.newText), head + c.diff) << c.oldText;
  }
  EXPECT_EQ(unifiedDiff("a", "b", {"two words", "line\n+++ \"forged\""}, 0).substr(0, 46),
            "--- two words\t\n+++ \"line\\012+++ \\\"forged\\\"\"\n@@");
}

TEST(UnifiedDiff, IsAcceptedByPatch) {
  std::mt19937 random(5);
  const auto number = [&random](unsigned below) { return static_cast<unsigned>(random() % below); };
  for (int round = 0; round < 60; ++round) {
    std::string texts[2];
    // From nearly equal texts to ones that share a handful of lines, last line ends missing, CR and NUL among them.
    const unsigned lines = number(round % 3 == 0 ? 900 : 40);
    const unsigned kinds = 1 + number(30);
    for (unsigned i = 0; i < lines; ++i) {
      const std::string line = "line " + std::to_string(number(kinds)) + (number(9) == 0 ? "\r\n" : "\n");
      for (std::string& text : texts)
        if (number(1 + static_cast<unsigned>(round)) != 1) text += line;
    }
    if (number(2) == 0) texts[number(2)] += "no end";
    if (number(4) == 0) texts[1] += std::string("nul\0nul\n", 8);
    EXPECT_EQ(patched(texts[0], unifiedDiff(texts[0], texts[1])), texts[1]);
  }
}

TEST(UnifiedDiff, StaysQuickOnLargeTextsThatDifferEverywhere) {
  std::string oldText;
  std::string newText;
  for (int i = 0; i < 100'000; ++i) {
    oldText += "line " + std::to_string(i % 977) + "\n";
    newText += "line " + std::to_string(i * 31 % 983) + "\n";
  }
  const auto start = std::chrono::steady_clock::now();
  const std::string diff = unifiedDiff(oldText, newText);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
  EXPECT_EQ(patched(oldText, diff), newText);
}

TEST(FileChange, SavesThroughLinksAndKeepsModeAndOwner) {
  const TemporaryFolder folder;
  writeFile(folder / "real", "old\n");
  ASSERT_EQ(chmod((folder / "real").c_str(), 0640), 0);
  const gid_t group = geteuid() == 0 ? 2345 : getegid();
  ASSERT_EQ(chown((folder / "real").c_str(), static_cast<uid_t>(-1), group), 0);
  std::filesystem::create_symlink("real", folder / "link");

  const FileChange change(folder / "link", "old\n", "new\n");
  EXPECT_TRUE(change.changed());
  EXPECT_TRUE(change.isCurrent());
  EXPECT_EQ(readFile(folder / "real"), "old\n");
  ASSERT_TRUE(change.save());
  EXPECT_TRUE(std::filesystem::is_symlink(folder / "link"));
  EXPECT_EQ(readFile(folder / "real"), "new\n");
  EXPECT_FALSE(change.isCurrent());
  struct stat status {};
  ASSERT_EQ(stat((folder / "real").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0640U);
  EXPECT_EQ(status.st_gid, group);
}

TEST(FileChange, LeavesAnUnchangedFileAloneAndTellsAFailure) {
  const TemporaryFolder folder;
  writeFile(folder / "file", "same\n");
  struct stat before {};
  struct stat after {};
  ASSERT_EQ(stat((folder / "file").c_str(), &before), 0);
  const FileChange same(folder / "file", "same\n", "same\n");
  EXPECT_FALSE(same.changed());
  EXPECT_EQ(same.unifiedDiff(), "");
  EXPECT_TRUE(same.save());
  ASSERT_EQ(stat((folder / "file").c_str(), &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino);

  const FileChange made(folder / "new", std::nullopt, "text\n");
  EXPECT_TRUE(made.makesFile() && made.changed() && made.isCurrent());
  EXPECT_EQ(made.unifiedDiff().substr(0, 14), "--- /dev/null\n");
  EXPECT_TRUE(made.save());
  EXPECT_EQ(readFile(folder / "new"), "text\n");

  EXPECT_FALSE(FileChange(folder / "missing/file", std::nullopt, "x").save());
  EXPECT_FALSE(FileChange(folder.path(), "", "x").save());
}

}  // namespace
}  // namespace ostrel
