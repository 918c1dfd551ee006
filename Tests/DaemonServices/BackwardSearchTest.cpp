#include "DaemonServices/BackwardSearch.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "Platform/Clock.h"
#include "Platform/FileDescriptor.h"
#include "Support/TemporaryFolder.h"

namespace ostrel {
namespace {

using testing::TemporaryFolder;
using testing::writeFile;
using Filters = std::vector<std::string>;

constexpr std::uint64_t noLimit = UINT64_MAX;
constexpr std::size_t chunkSize = 32768;

struct Found {
  std::string text;
  std::uint64_t size = 0;
};

std::optional<Found> searchFile(const std::string& path, const Filters& filters, std::uint64_t limit = noLimit,
                                std::uint64_t lowerBound = 0, unsigned seconds = 100) {
  const std::vector<std::string_view> words(filters.begin(), filters.end());
  Found found;
  const std::unique_ptr<char, decltype(&std::free)> text(
      rgrep(path, words.data(), words.size(), limit, lowerBound, seconds, found.size), std::free);
  if (!text) return std::nullopt;
  found.text = text.get();
  return found;
}

// the search again, as simple as it can be said

std::string lowered(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

/// Works on a file's bytes and on lower-case copies, with 32 KiB chunks that the carry is appended to.
struct PlainSearch {
  const std::string& file;
  Filters filters;
  std::uint64_t room;
  std::string collected;

  void add(std::string line) {
    if (line.size() > room) line = line.substr(line.size() - room);
    room -= line.size();
    collected = line + collected;
  }

  void check(const std::string& line, std::size_t endOffset) {
    if (room == 0) return;
    for (const std::string& filter : filters) {
      if (lowered(line).find(lowered(filter)) == std::string::npos) return;
    }
    std::string after = file.substr(std::min(endOffset, file.size()), 254);
    const std::size_t lineFeed = after.find('\n');
    if (lineFeed != std::string::npos) {
      after = after.substr(0, lineFeed + 1);
      if (lowered(after).find("last message repeated") != std::string::npos) add(after);
    }
    add(line);
  }

  std::string run(std::size_t lowerBound) {
    std::size_t position = file.size();
    std::string carry;
    while (position > lowerBound && room > 0) {
      const std::size_t size = std::min(chunkSize, position - lowerBound);
      position -= size;
      const std::string buffer = file.substr(position, size) + carry;
      const std::string lower = lowered(buffer);
      std::size_t hit = lower.rfind(lowered(filters[0]));
      while (hit != std::string::npos) {
        const std::size_t before = hit == 0 ? std::string::npos : buffer.rfind('\n', hit - 1);
        if (before == std::string::npos) break;
        const std::size_t next = buffer.find('\n', hit);
        const std::size_t end = next == std::string::npos ? buffer.size() : next + 1;
        check(buffer.substr(before + 1, end - before - 1), position + end);
        hit = lower.rfind(lowered(filters[0]), before);
      }
      const std::size_t first = buffer.find('\n');
      carry = first == std::string::npos ? buffer : buffer.substr(0, first + 1);
    }
    if (!carry.empty()) check(carry, position + carry.size());
    return collected;
  }
};

/// Text of few letters in both cases, so that hits are everywhere and filters often straddle an edge.
std::string randomText(std::mt19937& random, std::size_t size) {
  static constexpr std::string_view letters = "abABxyz ";
  std::string text(size, ' ');
  for (char& c : text) c = letters[random() % letters.size()];
  return text;
}

std::string randomFile(std::mt19937& random, std::size_t size, std::size_t longestLine) {
  std::string file;
  while (file.size() < size) {
    std::size_t length = random() % 60;
    if (random() % 40 == 0) length = random() % longestLine;
    if (random() % 8 == 0) file += randomText(random, random() % 250) + "Last MESSAGE repeated 3 times";
    file += randomText(random, length) + '\n';
  }
  if (random() % 3 == 0) file.resize(size);  // often without a line feed at the end
  return file;
}

Filters randomFilters(std::mt19937& random, bool rare) {
  Filters filters;
  for (std::size_t i = 0; i <= random() % 3; ++i) filters.push_back(randomText(random, (rare ? 4 : 1) + random() % 3));
  if (random() % 20 == 0) filters[0] += '\n';  // a line's own end
  if (random() % 40 == 0) filters[0] += 'a';   // in no line, when it comes after a line feed
  return filters;
}

void compareWithPlainSearch(std::mt19937& random, const TemporaryFolder& folder, std::size_t size,
                            std::size_t longestLine) {
  const std::string file = randomFile(random, size, longestLine);
  writeFile(folder / "log", file);
  for (int query = 0; query < 3; ++query) {
    const Filters filters = randomFilters(random, query > 0);
    const std::uint64_t limit = random() % 2 == 0 ? file.size() : random() % 3000;
    const std::size_t lowerBound = random() % 2 == 0 ? 0 : random() % (file.size() + 2);
    PlainSearch plain{file, filters, limit, {}};
    const auto found = searchFile(folder / "log", filters, limit, lowerBound);
    ASSERT_TRUE(found);
    ASSERT_EQ(found->size, file.size());
    ASSERT_TRUE(found->text == plain.run(lowerBound))
        << "size " << file.size() << " limit " << limit << " lower bound " << lowerBound << " filter " << filters[0];
  }
}

TEST(BackwardSearch, AgreesWithThePlainSearchOnRandomFiles) {
  const TemporaryFolder folder;
  std::mt19937 random(31081965);
  for (int i = 0; i < 1200; ++i) compareWithPlainSearch(random, folder, random() % 2000, 300);
  // Around the edges of one to four chunks, with lines that span them.
  for (int i = 0; i < 150; ++i) {
    const std::size_t size = chunkSize * (1 + random() % 4) - 40 + random() % 80;
    compareWithPlainSearch(random, folder, size, i % 2 == 0 ? 400 : 3 * chunkSize);
  }
}

TEST(BackwardSearch, AgreesWithThePlainSearchOnLinesTooLongToHold) {
  const TemporaryFolder folder;
  std::mt19937 random(4);
  for (int i = 0; i < 5; ++i) {
    // Lines of some hundred KB between short ones; beyond 32 chunks, where reads get larger.
    std::string file = randomFile(random, 3000, 300);
    for (int line = 0; line < 2; ++line) {
      const std::string rest = (random() % 2 == 0 ? "Q" : "") + randomText(random, 100);
      file += std::string(200'000 + random() % 400'000, '.') + rest + std::string(random() % 90'000, '.') + "Target\n";
      if (random() % 2 == 0) file += "last message repeated\n";
      file += randomFile(random, 3000, 300);
    }
    writeFile(folder / "log", file);
    for (const Filters& filters : {Filters{"target"}, {"target", "q."}, {".q", "T\n"}, {"aba"}, {"..Q.", "rge"}}) {
      const std::uint64_t limit = random() % 2 == 0 ? file.size() : random() % 300'000;
      const std::size_t lowerBound = random() % 3 == 0 ? random() % file.size() : 0;
      PlainSearch plain{file, filters, limit, {}};
      const auto found = searchFile(folder / "log", filters, limit, lowerBound);
      ASSERT_TRUE(found && found->text == plain.run(lowerBound)) << filters[0] << " limit " << limit;
    }
  }
}

TEST(BackwardSearch, FindsWordsAcrossThePiecesOfALongLine) {
  const TemporaryFolder folder;
  const std::vector<std::string_view> halves{"Y|ZW", "YZ|W"};
  for (const std::string_view split : halves) {
    for (const std::size_t chunks : {3U, 9U, 10U, 20U}) {
      const std::string right = std::string(split.substr(split.find('|') + 1));
      const std::string left = std::string(split.substr(0, split.find('|')));
      std::string file = "first\n" + std::string(100'000, '.') + left + right;
      file += std::string(chunks * chunkSize - right.size() - 1, '.') + '\n';  // the edge is where the halves meet
      writeFile(folder / "log", file);
      const auto found = searchFile(folder / "log", {"..", "yzw"}, 5);
      ASSERT_TRUE(found);
      EXPECT_EQ(found->text, "....\n") << split << " before " << chunks << " chunks";
    }
  }
}

// cases

TEST(BackwardSearch, FindsLinesByAllWordsInFileOrder) {
  const TemporaryFolder folder;
  struct Case {
    const char* what;
    std::string file;
    Filters filters;
    std::uint64_t limit;
    std::uint64_t lowerBound;
    std::string expected;
  };
  const std::string remark = "host last message repeated 3 times\n";
  const std::string longRemark = "last message repeated " + std::string(231, '3') + '\n';
  const Case cases[] = {
      {"every word, any case",
       "Error disk\nerror net\nDISK ok\nbad DISK eRRoR\n",
       {"error", "Disk"},
       noLimit,
       0,
       "Error disk\nbad DISK eRRoR\n"},
      {"no line feed at the end", "one\ntwo\none", {"ONE"}, noLimit, 0, "one\none"},
      {"empty file", "", {"a"}, noLimit, 0, ""},
      {"nothing matches", "one\ntwo\n", {"three"}, noLimit, 0, ""},
      {"first word in the line, the second only in the next", "one\ntwo\n", {"one", "two"}, noLimit, 0, ""},
      {"no filter matches every line", "one\n\ntwo\n", {}, noLimit, 0, "one\n\ntwo\n"},
      {"remark kept with its line",
       "x\nmatch me\n" + remark + "y\n",
       {"match"},
       noLimit,
       0,
       "match me\nhost last message repeated 3 times\n"},
      {"remark after the first line of the file",
       "match me\n" + remark,
       {"match"},
       noLimit,
       0,
       "match me\nhost last message repeated 3 times\n"},
      {"remark without its line feed is not whole",
       "x\nmatch\nlast message repeated 3 times",
       {"match"},
       noLimit,
       0,
       "match\n"},
      {"remark of 254 bytes, after the first line",
       "match\n" + longRemark + "x\n",
       {"match"},
       noLimit,
       0,
       "match\n" + longRemark},
      {"remark of 254 bytes", "x\nmatch\n" + longRemark + "x\n", {"match"}, noLimit, 0, "match\n" + longRemark},
      {"remark of 255 bytes, after the first line", "match\n3" + longRemark + "x\n", {"match"}, noLimit, 0, "match\n"},
      {"words over a line's end, in the line that two chunks share",
       "x\n" + std::string(chunkSize, '.') + "x\na" + std::string(chunkSize / 2, '.'),
       {"x\na"},
       noLimit,
       0,
       ""},
      {"remark whose line feed is out of reach",
       "x\nmatch\nlast message repeated " + std::string(240, '3') + "\n",
       {"match"},
       noLimit,
       0,
       "match\n"},
      {"only the next line can be the remark", "x\nmatch\nother\n" + remark, {"match"}, noLimit, 0, "match\n"},
      {"remark that matches itself comes twice",
       "x\nmatch\nmatch last message repeated\n",
       {"match"},
       noLimit,
       0,
       "match\nmatch last message repeated\nmatch last message repeated\n"},
      {"remark has the first claim on the room",
       "x\nmatch me\n" + remark,
       {"match"},
       38,
       0,
       "me\nhost last message repeated 3 times\n"},
      {"line longer than the limit is cut at its start", "x\n0123456789 match\n", {"match"}, 8, 0, "9 match\n"},
      {"latest lines win", "match 1\nmatch 2\nmatch 3\n", {"match"}, 11, 0, " 2\nmatch 3\n"},
      {"limit 0", "match\n", {"match"}, 0, 0, ""},
      {"lower bound cuts a line", "match 1\nmatch 2\n", {"atch"}, noLimit, 1, "atch 1\nmatch 2\n"},
      {"lower bound behind the word", "match 1\nmatch 2\n", {"match"}, noLimit, 2, "match 2\n"},
      {"lower bound beyond the file", "match 1\n", {"match"}, noLimit, noLimit, ""},
  };
  for (const Case& each : cases) {
    writeFile(folder / "log", each.file);
    const auto found = searchFile(folder / "log", each.filters, each.limit, each.lowerBound);
    ASSERT_TRUE(found) << each.what;
    EXPECT_EQ(found->text, each.expected) << each.what;
    EXPECT_EQ(found->size, each.file.size()) << each.what;
  }
}

/// A second goes by with every look at it.
class TickingClock final : public Clock {
 public:
  PlistDate now() override { return {}; }
  std::chrono::nanoseconds monotonic() override { return std::chrono::seconds(++ticks_); }
  void sleepFor(std::chrono::nanoseconds) override {}

 private:
  int ticks_ = 0;
};

TEST(BackwardSearch, EndsWithTheChunkInWhichTheTimeIsUp) {
  const TemporaryFolder folder;
  std::mt19937 random(7);
  const std::string file = randomFile(random, 10 * chunkSize, 300);
  writeFile(folder / "log", file);
  const auto lastThreeChunks = searchFile(folder / "log", {"ab"}, noLimit, file.size() - 3 * chunkSize);
  TickingClock clock;
  const ScopedOverride<Clock> override(clock);
  const auto found = searchFile(folder / "log", {"ab"}, noLimit, 0, 3);
  ASSERT_TRUE(found && lastThreeChunks);
  EXPECT_FALSE(found->text.empty());
  EXPECT_EQ(found->text, lastThreeChunks->text);
}

TEST(BackwardSearch, TakesLinearTimeAndLittleMemoryForAnEndlessLine) {
  const TemporaryFolder folder;
  const std::string path = folder / "log";
  writeFile(path, "Needle");
  constexpr std::uint64_t end = 256 << 20;
  const FileDescriptor file = openFile(path, O_WRONLY);
  ASSERT_TRUE(writeAt(file.get(), "the tail", end));  // a hole of 256 MB lies between
  // Appending the carry to chunk after chunk would copy a terabyte and never come near the file's first bytes.
  const auto found = searchFile(path, {"needle", "tail"}, 6, 0, 60);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->text, "e tail");
}

TEST(BackwardSearch, RefusesWhatIsNoRegularFile) {
  const TemporaryFolder folder;
  ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
  for (const std::string& path : {folder / "pipe", folder / "missing", folder.path(), std::string("/dev/zero"),
                                  std::string(), (folder / "log") + '\0' + "x"}) {
    writeFile(folder / "log", "match\n");
    EXPECT_FALSE(searchFile(path, {"match"})) << path;
  }
}

// the steps

TEST(BackwardSearch, FindsTheFirstPlaceOfWordsInAnyCase) {
  std::mt19937 random(11);
  for (int i = 0; i < 20'000; ++i) {
    const std::string text = randomText(random, random() % 150);
    std::string words = randomText(random, random() % 5);
    if (random() % 10 == 0) words = "\xC3\x84" + words;
    const std::size_t expected = lowered(text).find(lowered(words));
    const char* found = strcasestr_internal(text, words);
    if (expected == std::string::npos) {
      ASSERT_EQ(found, nullptr);
    } else {
      ASSERT_EQ(found, text.data() + expected) << "'" << words << "' in '" << text << "'";
    }
  }
  // One bit apart like the cases of a letter, and yet no letters.
  EXPECT_EQ(strcasestr_internal("[@ 10 20 30 40 50 60 70", "{`"), nullptr);
  EXPECT_EQ(strcasestr_internal("\x11\x11\x11\x11\x11\x11\x11\x11\x11\x11\x11\x11\x11\x11\x11\x11\x11", "1"), nullptr);
}

TEST(BackwardSearch, CollectsFromTheFrontUpToTheLimit) {
  LineCollector collector(20);
  for (const std::string_view line : {"five\n", "four\n", "three\n", "-two\n", "one\n"})
    addLineToBuffer(collector, line.data(), line.data() + line.size());
  EXPECT_EQ(collector.text(), "two\nthree\nfour\nfive\n");
  EXPECT_EQ(collector.total(), 20U);
  EXPECT_TRUE(collector.isFull());
}

TEST(BackwardSearch, ChecksOneLineWithTheRemarkThatFollowsIt) {
  const TemporaryFolder folder;
  writeFile(folder / "log", "a match\nlast message repeated 2 times\nrest\n");
  const FileDescriptor file = openFile(folder / "log", O_RDONLY);
  const std::string line = "a match\n";
  const auto check = [&](std::vector<std::string_view> filters, std::uint64_t limit) {
    LineCollector collector(limit);
    checkMatch(line.data(), line.data() + line.size(), filters.data(), filters.size(), collector, file.get(), 8);
    return std::string(collector.text());
  };
  EXPECT_EQ(check({"MATCH", "a m"}, 100), "a match\nlast message repeated 2 times\n");
  EXPECT_EQ(check({"MATCH", "b"}, 100), "");
  EXPECT_EQ(check({"match"}, 0), "");
  EXPECT_EQ(check({"match"}, 8), "2 times\n");
}

}  // namespace
}  // namespace ostrel
