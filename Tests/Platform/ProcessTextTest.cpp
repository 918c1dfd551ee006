// The texts of /proc.
#include "Platform/Internal/ProcessText.h"

#include <gtest/gtest.h>

#include <string>

namespace ostrel::detail {
namespace {

const std::string fields = " S 17 1 1 0 -1 4194304 1 0 0 0 5 6 0 0 20 0 1 0 4711 3133440 384";

TEST(ProcessText, ReadsTheStatusOfAnyCommandName) {
  const struct {
    std::string command, expected;
  } cases[] = {
      {"cat", "cat"},
      {"", ""},
      {"a b", "a b"},
      {") S 1 (x) R 2", ") S 1 (x) R 2"},
      {"((", "(("},
      {"line\nfeed", "line\nfeed"},
      {"\xFF\x01", "\xFF\x01"},
      {std::string(200, 'k'), std::string(63, 'k')},
  };
  for (const auto& [command, expected] : cases) {
    const auto entry = parseProcessStat("12345 (" + command + ")" + fields + "\n");
    ASSERT_TRUE(entry) << command;
    EXPECT_EQ(entry->pid, 12345);
    EXPECT_EQ(entry->parent, 17);
    EXPECT_EQ(entry->started, 4711U);
    EXPECT_EQ(entry->name(), expected);
    EXPECT_EQ(entry->state, ProcessState::sleeping);
  }
}

TEST(ProcessText, TellsTheStatesThatCountAsNotRunning) {
  const struct {
    char letter;
    bool running;
  } cases[] = {{'R', true}, {'S', true},  {'D', true},  {'T', true},  {'t', true},
               {'I', true}, {'Z', false}, {'X', false}, {'x', false}, {'?', false}};
  for (const auto& [letter, running] : cases) {
    std::string text = "1 (init)" + fields;
    text[9] = letter;
    EXPECT_EQ(parseProcessStat(text)->isRunning(), running) << letter;
  }
}

TEST(ProcessText, RefusesWhatIsNoStatus) {
  const std::string whole = "1 (init)" + fields.substr(0, fields.find(" 3133440"));
  ASSERT_TRUE(parseProcessStat(whole));
  // Without the last digits of the start time it still is one.
  for (std::size_t size = 0; size < whole.size() - 4; ++size) EXPECT_FALSE(parseProcessStat(whole.substr(0, size)));
  for (const char* text : {"x (init)", "0 (init)", "-1 (init)", "99999999999 (init)", "1 (init", "1 init)", "1 )init("})
    EXPECT_FALSE(parseProcessStat(text + fields)) << text;
  EXPECT_FALSE(parseProcessStat("1 (init) S x" + fields.substr(5)));
}

TEST(ProcessText, FindsTheProcessOfAThread) {
  EXPECT_EQ(parseThreadGroup("Name:\tx\nState:\tS\nTgid:\t42\nPid:\t43\n"), 42);
  EXPECT_EQ(parseThreadGroup("Name:\tTgid:\\n1\nTgid:\t42\n"), 42);
  for (const char* text : {"", "Tgid:\t42\n", "\nTgid:\t", "\nTgid:\tx\n"})
    EXPECT_EQ(parseThreadGroup(text), 0) << text;
}

TEST(ProcessText, SumsTheKindsOfTicks) {
  const auto ticks = parseProcessorTicks(
      "cpu  99 99 99 99\ncpu0 1 2 3 4 10 20 30 400 5000 60000\ncpu7 5 6 7 8\nintr 5 cpu9 1 1 1 1\ncpu8 1 1 1 1\n");
  ASSERT_EQ(ticks.size(), 2U);
  EXPECT_EQ(ticks[0].user, 1U);
  EXPECT_EQ(ticks[0].nice, 2U);
  EXPECT_EQ(ticks[0].system, 3U + 20 + 30);
  EXPECT_EQ(ticks[0].idle, 4U + 10);
  EXPECT_EQ(ticks[1].idle, 8U);
  for (const char* text :
       {"", "cpu  1 2 3 4\n", "cpu0 1 2 3\n", "cpu0 1 2 3 x\n", "cpu0 1 2 -3 4\n", "xcpu0 1 2 3 4\n"})
    EXPECT_TRUE(parseProcessorTicks(text).empty()) << text;
}

}  // namespace
}  // namespace ostrel::detail
