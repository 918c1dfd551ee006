// Text files copied and compacted.
#include "ConfigFiles/TextFileCopies.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "ConfigFiles/TextDirectives.h"
#include "ConfigFiles/TextFileChange.h"
#include "ConfigFiles/TextFileEditing.h"
#include "Support/TemporaryFolder.h"

namespace ostrel {
namespace {

using testing::readFile;
using testing::TemporaryFolder;
using testing::writeFile;

mode_t modeOf(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777U : 0;
}

TEST(TextFileCopies, CollapseBlankLines) {
  const TemporaryFolder folder;
  const std::string path = folder / "file";
  struct Case {
    std::string text, compact;
  };
  const Case cases[] = {
      {"\n\n\na\n\nb\n\n\n\n", "\na\n\nb\n\n"},
      {"a\n \n \nb", "a\n \n \nb"},
      {"a\r\r\rb\r", "a\r\rb\r"},
      {"a\r\nb\r\n\r\nc\r\n", "a\r\nb\r\nc\r\n"},  // the LF of a pair is a blank line of its own
      {std::string("a\0b\n\n\n", 6), std::string("a\0b\n\n", 5)},
      {"", ""},
      {std::string(511, 'x') + "\n\ny\n", std::string(511, 'x') + "\ny\n"},  // its line end is seen as a line
  };
  for (const Case& c : cases) {
    writeFile(path, c.text);
    ASSERT_EQ(chmod(path.c_str(), 0604), 0);
    EXPECT_EQ(EditableText::open(c.text)->compactText(), c.compact);
    EXPECT_EQ(CompactFile(path.c_str()), 0);
    EXPECT_EQ(readFile(path), c.compact);
    EXPECT_EQ(modeOf(path), 0604U);
    EXPECT_EQ(DuplicateTextFile(path.c_str(), (folder / "copy").c_str()), 0);
    EXPECT_EQ(readFile(folder / "copy"), c.compact);
    EXPECT_EQ(modeOf(folder / "copy"), 0604U);
    EXPECT_FALSE(std::filesystem::exists(path + ".tmp"));
  }
}

TEST(TextFileCopies, LinksLeadWhereTheyShould) {
  const TemporaryFolder folder;
  writeFile(folder / "real", "a\n\n\n");
  writeFile(folder / "precious", "precious");
  std::filesystem::create_symlink("real", folder / "link");
  std::filesystem::create_symlink("precious", folder / "real.tmp");  // a trap at the temporary name
  EXPECT_EQ(CompactFile((folder / "link").c_str()), 0);
  EXPECT_TRUE(std::filesystem::is_symlink(folder / "link"));
  EXPECT_EQ(readFile(folder / "real"), "a\n\n");
  EXPECT_EQ(readFile(folder / "precious"), "precious");

  std::filesystem::create_symlink("precious", folder / "trap");
  EXPECT_EQ(DuplicateTextFile((folder / "real").c_str(), (folder / "trap").c_str()), 0);
  EXPECT_FALSE(std::filesystem::is_symlink(folder / "trap"));
  EXPECT_EQ(readFile(folder / "precious"), "precious");

  EXPECT_EQ(DuplicateTextFile((folder / "real").c_str(), (folder.path() + "/./real").c_str()), 0);
  EXPECT_EQ(readFile(folder / "real"), "a\n\n");
  std::filesystem::create_hard_link(folder / "real", folder / "hard");
  EXPECT_EQ(DuplicateTextFile((folder / "real").c_str(), (folder / "real").c_str()), 0);
  EXPECT_EQ(std::filesystem::hard_link_count(folder / "real"), 2U) << "onto itself";
  EXPECT_EQ(DuplicateTextFile((folder / "real").c_str(), (folder / "hard").c_str()), 0);
  EXPECT_EQ(readFile(folder / "hard"), "a\n\n");
}

TEST(TextFileCopies, FailuresLeaveTheOriginal) {
  const TemporaryFolder folder;
  writeFile(folder / "file", "a\n\n\n");
  std::filesystem::create_directories(folder / "blocked.tmp/x");
  writeFile(folder / "blocked", "a\n\n\n");
  ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
  std::filesystem::create_symlink("nowhere", folder / "dangling");
  std::filesystem::create_symlink("loop", folder / "loop");

  EXPECT_EQ(CompactFile((folder / "missing").c_str()), kTextFileOpenErr);
  EXPECT_EQ(CompactFile((folder / "dangling").c_str()), kTextFileOpenErr);
  EXPECT_EQ(CompactFile((folder / "loop").c_str()), kTextFileOpenErr);
  EXPECT_EQ(CompactFile(nullptr), kTextFileOpenErr);
  EXPECT_EQ(CompactFile(""), kTextFileOpenErr);
  EXPECT_EQ(CompactFile(folder.path().c_str()), kTextFileReadErr);
  EXPECT_EQ(CompactFile((folder / "pipe").c_str()), kTextFileReadErr);
  EXPECT_EQ(CompactFile((folder / "blocked").c_str()), kTextFileCreateErr);
  EXPECT_EQ(CompactFile(("/" + std::string(511, 'x')).c_str()), kTextFileCreateErr);
  EXPECT_EQ(readFile(folder / "blocked"), "a\n\n\n");

  EXPECT_EQ(DuplicateTextFile((folder / "missing").c_str(), (folder / "file").c_str()), kTextFileOpenErr);
  EXPECT_EQ(DuplicateTextFile(folder.path().c_str(), (folder / "file").c_str()), kTextFileReadErr);
  EXPECT_EQ(readFile(folder / "file"), "a\n\n\n");
  EXPECT_EQ(DuplicateTextFile((folder / "file").c_str(), (folder / "blocked.tmp").c_str()), kTextFileCreateErr);
  EXPECT_EQ(DuplicateTextFile((folder / "file").c_str(), nullptr), kTextFileCreateErr);

  if (geteuid() == 0) return;  // whom no mode stops
  ASSERT_EQ(chmod((folder / "file").c_str(), 0200), 0);
  EXPECT_EQ(CompactFile((folder / "file").c_str()), kTextFileOpenErr);
  ASSERT_EQ(chmod((folder / "file").c_str(), 0600), 0);
  ASSERT_EQ(chmod(folder.path().c_str(), 0500), 0);
  EXPECT_EQ(CompactFile((folder / "file").c_str()), kTextFileCreateErr);
  ASSERT_EQ(chmod(folder.path().c_str(), 0700), 0);
  EXPECT_EQ(readFile(folder / "file"), "a\n\n\n");
}

/// A file system of 64 KiB that is taken away again.
class TinyDisk {
 public:
  TinyDisk() { isMounted_ = mount("tmpfs", folder_.path().c_str(), "tmpfs", 0, "size=64k,mode=0700") == 0; }
  ~TinyDisk() {
    if (isMounted_) umount2(folder_.path().c_str(), MNT_DETACH);
  }
  explicit operator bool() const { return isMounted_; }
  std::string operator/(std::string_view name) const { return folder_ / name; }

 private:
  TemporaryFolder folder_;
  bool isMounted_;
};

TEST(TextFileCopies, AFullDiskLeavesTheOriginal) {
  const TinyDisk disk;
  if (!disk) GTEST_SKIP() << "may not mount a file system";
  std::string text;
  while (text.size() < 40'000) text += "Directive value\n\n\n";
  writeFile(disk / "file", text);
  EXPECT_EQ(CompactFile((disk / "file").c_str()), kTextFileWriteErr);
  EXPECT_EQ(readFile(disk / "file"), text);
  EXPECT_FALSE(std::filesystem::exists(disk / "file.tmp"));

  std::FILE* stream = std::fopen((disk / "file").c_str(), "r+");
  ASSERT_NE(stream, nullptr);
  const std::string large(40'000, 'x');
  EXPECT_EQ(InsertTextInFile(stream, large.c_str(), 10, 12, nullptr), kTextFileWriteErr);
  EXPECT_EQ(ReplaceTextInFile(stream, "Directive", std::string(40, 'y').c_str(), 0, 0), kTextFileWriteErr);
  EXPECT_EQ(CreateDirectiveInFile(stream, "New", large.c_str(), 1, 0, 1), kTextFileWriteErr);
  std::fclose(stream);
  EXPECT_EQ(readFile(disk / "file"), text);
}

}  // namespace
}  // namespace ostrel
