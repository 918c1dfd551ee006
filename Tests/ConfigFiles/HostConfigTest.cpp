// The host's start-up settings below a temporary host root.
#include <sys/stat.h>

#include <filesystem>
#include <thread>

#include <gmock/gmock.h>

#include "ConfigFiles/HostConfigUtilities.h"
#include "Platform/HostRoot.h"
#include "Support/Fakes.h"
#include "Support/TemporaryFolder.h"

namespace ostrel {
namespace {

using testing::readFile;
using testing::writeFile;

class HostConfig : public ::testing::Test {
 protected:
  const testing::TemporaryFolder folder_;
  const ScopedHostRoot root_{folder_.path()};
  const std::string path_ = folder_ / "etc/hostconfig";
  testing::RecordingLog log_;
  const ScopedOverride<SystemLog> logging_{log_};
  const std::shared_ptr<HostConfigUtilities> utilities_ = HostConfigUtilities::hostConfigUtilities();
};

TEST_F(HostConfig, ReadsTheFirstLineOfAKey) {
  writeFile(path_,
            "# A comment\n#SSH=-COMMENT-\n \tMAIL=-YES- \nMAIL=-NO-\nQUOTED=\"two words\"\nEMPTY=\nTWO=a=b\nSECOND==\n"
            "KEYS=x\nSPACED =y\nCR=1\r\nLAST=end");
  // "before": nothing was read, and the result is false.
  const std::pair<PlistValue, PlistValue> cases[] = {
      {"MAIL", "-YES-"}, {"QUOTED", "\"two words\""},
      {"EMPTY", ""},     {"ABSENT", ""},
      {"KEY", ""},       {"SPACED", ""},
      {"SPACED ", "y"},  {"mail", ""},
      {"SSH", ""},       {"CR", "1\r"},
      {"LAST", "end"},   {"TWO", "before"},
      {{}, "before"},    {"SECOND", "before"},
      {7, "before"},
  };
  for (const auto& [key, expected] : cases) {
    PlistValue value = "before";
    EXPECT_EQ(utilities_->getValueForKey(key, &value), expected != PlistValue("before")) << key.description();
    EXPECT_EQ(value, expected) << key.description();
  }
  EXPECT_FALSE(utilities_->getValueForKey("MAIL", nullptr));
  EXPECT_THAT(log_.lines(), ::testing::ElementsAre("Error: bad line in " + path_ + ":\nTWO=a=b",
                                                   "Error: bad line in " + path_ + ":\nSECOND=="));
}

TEST_F(HostConfig, ReplacesOrAddsLines) {
  const struct {
    const char* text;
    const char* key;
    const char* value;
    const char* result;
  } cases[] = {
      {"A=1\nB=2\n", "A", "-YES-", "A=-YES-\nB=2\n"},
      {"A=1\nB=2\n", "C", "\"x y\"", "A=1\nB=2\nC=\"x y\"\n"},
      {"A=1\n#C=\n\n B=2\t\n", "C", "3", "A=1\n#C=\n\nB=2\nC=3\n"},
      {"K=1\nKEY=2\nA=K=1\n\tK=3\n", "K", "9", "K=9\nK=9\nA=K=1\nK=9\n"},
      {"A=1\nB=2", "B", "3", "A=1\nB=3"},
      {"A=1\nB=2", "C", "3", "A=1\nB=2\nC=3\n"},
      {"", "A", "1", "A=1\n"},
      {"\n", "A", "1", "\nA=1\n"},
      {"A=1\r\nB=2\r\n", "B", "3", "A=1\r\nB=3\n"},
      {"A=1\n", " A", "2", "A=1\n A=2\n"},
      {"A=\xC3\xA4\n", "B", "\xC3\xB6", "A=\xC3\xA4\nB=\xC3\xB6\n"},
  };
  for (const auto& [text, key, value, result] : cases) {
    writeFile(path_, text);
    const auto change = utilities_->changeOfEntryForKey(key, value);
    ASSERT_TRUE(change);
    EXPECT_EQ(readFile(path_), text) << "a dry run writes nothing";
    EXPECT_TRUE(utilities_->setOrAddEntryForKey(key, value));
    EXPECT_EQ(readFile(path_), result);
    EXPECT_EQ(change->newText(), result);
  }
}

TEST_F(HostConfig, WritesOnlyWhatItCanReadAndTell) {
  for (const PlistValue& wrong : {PlistValue(), PlistValue(1), PlistValue("A\nROOT"), PlistValue("\xFF"),
                                  PlistValue(std::string_view("A\0B", 3))}) {
    writeFile(path_, "A=1\n");
    EXPECT_FALSE(utilities_->setOrAddEntryForKey(wrong, "2")) << wrong.description();
    EXPECT_FALSE(utilities_->setOrAddEntryForKey("A", wrong)) << wrong.description();
    EXPECT_FALSE(utilities_->setOrAddEntryForKey("", "2"));
    EXPECT_EQ(readFile(path_), "A=1\n");
  }
  const auto refuses = [this](const char* what) {
    PlistValue value;
    EXPECT_FALSE(utilities_->setOrAddEntryForKey("A", "2")) << what;
    EXPECT_TRUE(utilities_->getValueForKey("A", &value)) << what;
    EXPECT_EQ(value, PlistValue("")) << what;
  };
  writeFile(path_, "A=1\n\xE9\n");
  refuses("not UTF-8");
  EXPECT_EQ(readFile(path_), "A=1\n\xE9\n");
  writeFile(path_, "A=1\n" + std::string(std::size_t{5} << 20U, '#'));
  refuses("huge");
  const std::string nearlyHuge = "A=1\n#" + std::string((std::size_t{4} << 20U) - 5, '#');
  writeFile(path_, nearlyHuge);
  EXPECT_FALSE(utilities_->setOrAddEntryForKey("A", "22")) << "it could not be read again";
  EXPECT_EQ(readFile(path_).size(), nearlyHuge.size());
  std::filesystem::remove(path_);
  refuses("missing");
  EXPECT_FALSE(std::filesystem::exists(path_));
  std::filesystem::create_directories(path_);
  refuses("a folder");
  std::filesystem::remove(path_);
  ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
  refuses("a pipe");
}

TEST_F(HostConfig, WritesTheSameSettingAgain) {
  writeFile(path_, "A=2\n");
  struct stat before {};
  struct stat after {};
  ASSERT_EQ(stat(path_.c_str(), &before), 0);
  EXPECT_TRUE(utilities_->setOrAddEntryForKey("A", "2"));
  ASSERT_EQ(stat(path_.c_str(), &after), 0);
  EXPECT_NE(before.st_ino, after.st_ino);
}

TEST_F(HostConfig, WritersDoNotLoseOneAnothersSettings) {
  writeFile(path_, "");
  std::vector<std::thread> writers;
  for (int writer = 0; writer < 4; ++writer)
    writers.emplace_back([this, writer] {
      for (int i = 0; i < 5; ++i) utilities_->setOrAddEntryForKey(format("W%d_%d_", writer, i), "1");
    });
  for (std::thread& writer : writers) writer.join();
  EXPECT_EQ(std::ranges::count(readFile(path_), '\n'), 20);
}

}  // namespace
}  // namespace ostrel
