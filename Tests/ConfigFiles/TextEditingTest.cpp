// Directives and blocks edited in place.
#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <random>

#include "ConfigFiles/EditedText.h"
#include "ConfigFiles/TextBlocks.h"
#include "ConfigFiles/TextDirectives.h"
#include "ConfigFiles/TextFileEditing.h"
#include "ConfigFiles/TextPatterns.h"

namespace ostrel {
namespace {

using testing::EditedText;

constexpr std::int64_t furthest = std::numeric_limits<std::int64_t>::max();

struct Directive {
  std::int32_t code;
  std::int64_t start, end;
  std::int32_t commented;
  std::int64_t value;

  bool operator==(const Directive&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Directive& d) {
  return out << d.code << " [" << d.start << "," << d.end << "] " << d.commented << " " << d.value;
}

Directive find(std::FILE* file, const char* directive, std::int64_t start = 0, std::int64_t limit = 0,
               std::int32_t space = 1) {
  Directive found{};
  found.code = MatchDirectiveInFile(file, directive, &found.start, &found.end, &found.commented, &found.value, start,
                                    limit, space);
  return found;
}

constexpr Directive none{kDirectiveNotFoundErr, -1, -1, 0, 0};

TEST(TextDirectives, AreFoundOnlyWhereTheyBeginALine) {
  const std::string longLine = "x" + std::string(510, ' ') + "Listen 80\n";  // its second piece begins with the word
  struct Case {
    std::string text;
    const char* directive;
    std::int64_t start, limit;
    std::int32_t space;
    Directive found;
  };
  const Case cases[] = {
      {"Listen 80\n", "listen", 0, 0, 1, {0, 0, 9, 0, 7}},
      {"Listen 80\n", "listen", 0, 0, 0, {0, 0, 9, 0, 6}},
      {"a\n \tListen 80", "Listen", 0, 0, 1, {0, 2, 12, 0, 9}},
      {"\t#Listen\t80\r\n", "Listen", 0, 0, 1, {0, 0, 11, 1, 9}},
      {"# Listen 80\n", "Listen", 0, 0, 1, none},
      {"x Listen 80\n", "Listen", 0, 0, 1, none},
      {"Listener 80\n", "Listen", 0, 0, 1, none},
      {"Listener 80\n", "Listen", 0, 0, 0, {0, 0, 11, 0, 6}},
      {"Listen\n", "Listen", 0, 0, 1, none},
      {"a\rListen 80\r", "Listen", 0, 0, 1, {0, 2, 11, 0, 7}},
      {longLine, "Listen", 0, 0, 1, {0, 511, 520, 0, 7}},
      {std::string("nul\0Listen 80\nListen 81\n", 24), "Listen", 0, 0, 1, {0, 14, 23, 0, 7}},
      {"a\nListen 80\n", "Listen", 0, 1, 1, none},
      {"a\nListen 80\n", "Listen", 0, 2, 1, {0, 2, 11, 0, 7}},
      {"Listen 1\nListen 2\n", "Listen", 1, 0, 1, {0, 9, 17, 0, 7}},
      {"", "Listen", 0, 0, 1, none},
      {"Listen 80\n", "Listen", -1, 0, 1, none},
      {"Listen 80\n", "Listen", furthest, 0, 1, none},
      {"Listen 80\n", nullptr, 0, 0, 1, none},
      // From -2 on virtual hosts are left out, but only as far as one line behind the opening one.
      {"<VirtualHost *>\nListen 80\nListen 81\n</VirtualHost>\n", "Listen", -2, 0, 1, {0, 26, 35, 0, 7}},
      {"<VirtualHost *>\n</VirtualHost>\n</VirtualHost>\nListen 80\nListen 81\n",
       "Listen",
       -2,
       0,
       1,
       {0, 56, 65, 0, 7}},
  };
  for (const Case& c : cases) {
    const EditedText file(c.text);
    EXPECT_EQ(find(file, c.directive, c.start, c.limit, c.space), c.found) << c.text;
    EXPECT_EQ(file.text(), c.text);
  }
  EXPECT_EQ(find(nullptr, "Listen"), none);
  std::FILE* folder = std::fopen("/", "r");
  ASSERT_NE(folder, nullptr);
  EXPECT_EQ(find(folder, "Listen"), none);
  EXPECT_NE(MatchBlockInFile(folder, "a", nullptr, nullptr, nullptr, nullptr, nullptr), 0);
  std::fclose(folder);
}

TEST(TextDirectives, ValuesAreRead) {
  struct Case {
    std::string text;
    const char* directive;
    std::string keyword, value;
  };
  const Case cases[] = {
      {"#LogLevel \t warn  x \r\n", "loglevel", "LogLevel", "warn  x "},
      {"ServerName", "ServerName", "", ""},
      {"MaxConn 5\n", "max\x1fnn", "MaxConn", "5"},
      {"Word " + std::string(700, 'v') + "\n", "Word", "Word", std::string(506, 'v')},
  };
  for (const Case& c : cases) {
    const EditedText file(c.text);
    char keyword[512] = "";
    char value[512] = "";
    std::int64_t line = 0;
    std::int32_t commented = 0;
    std::strcpy(keyword, c.directive);
    const std::int32_t code = ReadDirectiveInFile(file, keyword, &line, value, &commented, 0, 0);
    EXPECT_EQ(code, c.keyword.empty() ? static_cast<std::int32_t>(kDirectiveNotFoundErr) : 0) << c.text;
    if (code != 0) continue;
    EXPECT_EQ(keyword, c.keyword);
    EXPECT_EQ(value, c.value);
    EXPECT_EQ(commented, c.text[0] == '#' ? 1 : 0);
  }
  const EditedText file("Whole line\r\n");
  char keyword[512] = "who\x1f";
  char value[512] = "old";
  EXPECT_EQ(ReadDirectiveInFileAlt(file, keyword, nullptr, value, nullptr, 0, 0, 0), 0);
  EXPECT_STREQ(keyword, "Whole line");
  EXPECT_STREQ(value, "");
}

TEST(TextDirectives, ValuesAreChanged) {
  struct Case {
    std::string text;
    const char* oldValue;
    const char* newValue;
    std::int32_t space;
    std::int64_t limit;
    std::int32_t code;
    std::string result;
    std::int64_t newLimit;
  };
  const Case cases[] = {
      {"Listen 80\nx\n", nullptr, "8080", 1, 20, 0, "Listen 8080\nx\n", 22},
      {"Listen 8080\nx\n", "", "80", 1, 20, 0, "Listen 80\nx\n\n\n", 18},
      {"Listen 80", nullptr, "443", 1, 0, 0, "Listen 443", 0},
      {"#Listen 80\r\n", nullptr, "443", 1, 0, 0, "#Listen 443\r\n", 0},
      {"Listen 80\n", nullptr, " 443", 0, 0, 0, "Listen 443\n", 0},
      {"Listen 80\n", "80", "443", 1, 1, 0, "Listen 443\n", 2},
      {"Listen 80\n", "81", "443", 1, 5, 0, "Listen 80\n", 5},
      {"Listen 80\n", "list", "443", 1, 0, 0, "443en 80\n\n", 0},  // also within the keyword
      {"Listen 80\n", "80", "80", 1, 5, 0, "Listen 80\n", 5},
      {"Listen 80\n", nullptr, nullptr, 1, 1, 0, "Listen \n\n\n", 1},
      {"Other 80\n", nullptr, "1", 1, 5, kDirectiveNotFoundErr, "Other 80\n", 5},
  };
  for (const Case& c : cases) {
    const EditedText file(c.text);
    std::int64_t limit = c.limit;
    EXPECT_EQ(UpdateDirectiveInFileAlt(file, "Listen", c.oldValue, c.newValue, 0, &limit, c.space), c.code);
    EXPECT_EQ(file.text(), c.result);
    EXPECT_EQ(limit, c.newLimit) << c.text;
  }
  const EditedText file("a\nListen 80\nb\n");
  EXPECT_EQ(UpdateDirectiveInFile(file, "Listen", nullptr, "81", 0, nullptr), 0);
  EXPECT_EQ(DeleteDirectiveInFile(file, "Listen", 0, 0), 0);
  EXPECT_EQ(file.text(), "a\nb\n" + std::string(10, '\n'));
  EXPECT_EQ(DeleteDirectiveInFile(file, "Listen", 0, 0), kDirectiveNotFoundErr);
}

TEST(TextDirectives, AreCreatedInFourForms) {
  EditedText file("x\n");
  EXPECT_EQ(CreateDirectiveInFile(file, "A", "1", 1, 1, 1), 0);
  EXPECT_EQ(CreateDirectiveInFile(file, "B", "2", 1, 0, 0), 0);
  EXPECT_EQ(CreateDirectiveInFile(file, "C", "=3", 0, 1, 2), 0);
  EXPECT_EQ(CreateDirectiveInFile(file, "D", "=4", 0, 0, 1), 0);
  EXPECT_EQ(CreateDirectiveInFile(file, nullptr, nullptr, 0, 0, 0), 0);
  EXPECT_EQ(file.text(), "x\n\n#A 1\n\nB 2\n#C=3\nD=4\n\n");
  std::FILE* full = std::fopen("/dev/full", "r+");
  if (full != nullptr) {
    EXPECT_NE(CreateDirectiveInFile(full, "A", "1", 1, 0, 1), 0);
    std::fclose(full);
  }
}

TEST(TextFileEditing, ReplacesBytesAndFillsWithLineFeeds) {
  struct Case {
    const char* text;
    std::int64_t start, end;
    std::int32_t code;
    const char* result;
  };
  const Case cases[] = {
      {"XY", 2, 4, 0, "abXYef"},
      {"XYZ", 2, 4, 0, "abXYZef"},
      {"X", 2, 4, 0, "abXef\n"},
      {nullptr, 0, 6, 0, "\n\n\n\n\n\n"},
      {"X", 6, 6, 0, "abcdefX"},
      {"X", 7, 7, kTextFileSeekErr, "abcdef"},
      {"X", 4, 2, kTextFileSeekErr, "abcdef"},
      {"X", -1, 2, kTextFileSeekErr, "abcdef"},
      {"X", 0, furthest, kTextFileSeekErr, "abcdef"},
      {"X", furthest, furthest, kTextFileSeekErr, "abcdef"},
  };
  for (const Case& c : cases) {
    const EditedText file("abcdef");
    std::int64_t delta = 99;
    EXPECT_EQ(InsertTextInFile(file, c.text, c.start, c.end, &delta), c.code);
    EXPECT_EQ(file.text(), c.result);
    const auto length = static_cast<std::int64_t>(c.text == nullptr ? 0 : std::strlen(c.text));
    EXPECT_EQ(delta, c.code == 0 ? length - (c.end - c.start) : 0);
  }
  const EditedText file("abcdef");
  EXPECT_EQ(DeleteSelectionInFile(file, 1, 2), 0);
  EXPECT_EQ(file.text(), "adef\n\n");
  EXPECT_EQ(DeleteSelectionInFile(file, 2, -1), 0);
  EXPECT_EQ(file.text(), "ad\n\n\n\n");
  EXPECT_EQ(DeleteSelectionInFile(file, 0, furthest), kTextFileSeekErr);
  EXPECT_EQ(DeleteSelectionInFile(nullptr, 0, -1), kTextFileSeekErr);
  std::int64_t size = 99;
  EXPECT_EQ(GetSizeOfFile(file, &size), 0);
  EXPECT_EQ(size, 6);
  EXPECT_EQ(GetSizeOfFile(nullptr, &size), kTextFileSeekErr);
}

/// The replacement of one line after the other, each by `InsertTextInFile`.
void replaceOneByOne(std::FILE* file, const std::string& text, const char* pattern, const char* replacement) {
  std::int64_t offset = 0;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t ends = std::min(text.find_first_of("\r\n", at), text.size() - 1) + 1;
    const std::size_t end = std::min(ends, at + 511);
    const std::string line = text.substr(at, end - at);
    std::size_t start = 0;
    std::size_t length = 0;
    std::int64_t delta = 0;
    MatchTextWithString(line.c_str(), pattern, &start, &length);
    const std::int64_t from = offset + static_cast<std::int64_t>(start);
    if (length > 0) InsertTextInFile(file, replacement, from, from + static_cast<std::int64_t>(length), &delta);
    offset += static_cast<std::int64_t>(line.size()) + delta;
    at = end;
  }
}

TEST(TextFileEditing, ReplacesTheFirstMatchOfEveryLine) {
  struct Case {
    const char* text;
    std::int64_t start, limit;
    const char* result;
  };
  const Case cases[] = {
      {"80 80\n80\n", 0, 0, "8080 80\n8080\n"},
      {"80\n80\n80\n", 3, 3, "80\n8080\n80\n"},
      {"80\n80\n", 0, 2, "8080\n80\n"},
      {"<VirtualHost *>\n80\n80\n", -2, 0, "<VirtualHost *>\n80\n8080\n"},
      {"none\n", 0, 0, "none\n"},
  };
  for (const Case& c : cases) {
    const EditedText file(c.text);
    EXPECT_EQ(ReplaceTextInFile(file, "80", "8080", c.start, c.limit), 0);
    EXPECT_EQ(file.text(), c.result);
  }
  EXPECT_EQ(ReplaceTextInFile(EditedText("x"), "x", "y", -3, 0), kTextFileSeekErr);

  // What fills up the file is lines as well: it ends an open last line, and an empty pattern finds it.
  struct Filling {
    const char* text;
    const char* pattern;
    const char* replacement;
    const char* result;
  };
  const Filling fillings[] = {
      {"abc\nabc", "b\x1f", "B", "aBaB\n\n\n"},
      {"abc\nx\n", "", "yz", "yzyzyzyz"},
      {"abc\nx\n", "\n", "", "abcx\n\n"},
  };
  for (const Filling& c : fillings) {
    const EditedText file(c.text);
    EXPECT_EQ(ReplaceTextInFile(file, c.pattern, c.replacement, 0, 0), 0);
    EXPECT_EQ(file.text(), c.result);
  }

  // One pass gives what one edit after the other gives, with lines of all lengths and all line ends.
  std::mt19937 random(3);
  for (int round = 0; round < 40; ++round) {
    std::string text;
    while (text.size() < 3000) {
      text += std::string(random() % (random() % 5 == 0 ? 1200 : 40), 'x') + (random() % 2 == 0 ? "key value" : "k");
      if (random() % 9 != 0) text += random() % 3 == 0 ? "\r\n" : "\n";
    }
    for (const char* replacement : {"", "another and a longer one", "value"}) {
      const EditedText once(text);
      const EditedText oneByOne(text);
      EXPECT_EQ(ReplaceTextInFile(once, "key\x1fue", replacement, 0, 0), 0);
      replaceOneByOne(oneByOne, text, "key\x1fue", replacement);
      ASSERT_EQ(once.text(), oneByOne.text());
    }
  }
}

TEST(TextFileEditing, TakesLinearTimeOnLargeFiles) {
  std::string text;
  for (int i = 0; i < 100'000; ++i) text += "Directive" + std::to_string(i) + " value of this directive\n";
  const EditedText file(text);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(ReplaceTextInFile(file, "value", "another value", 0, 0), 0);
  std::int64_t delta = 0;
  EXPECT_EQ(CommentOutBlockInFile(file, 1, 0, 0, nullptr, &delta), 0);
  EXPECT_EQ(delta, 100'000);
  EXPECT_EQ(find(file, "Directive99999").code, 0);
  // One edit after the other would move some hundred gigabytes.
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
}

TEST(TextBlocks, AreFoundByNameAndArgument) {
  struct Case {
    const char* text;
    const char* argument;
    std::int32_t code;
    std::int64_t start, end;
    std::int32_t commented, lines;
  };
  const Case cases[] = {
      {"<V *:8080>\n</V>\n<V *:80>\nx\n</V>\n", "*:80", 0, 16, 31, 0, 3},
      {"<v  *:80 \t>\r</v>", "*:80", 0, 0, 15, 0, 2},
      {"x\n #<V>\n\t#</V>\n", nullptr, 0, 2, 14, 1, 2},
      {"<V>\n</V>\n", "", 0, 0, 8, 0, 2},
      {"<V a>\n</V>\n", "", kBlockNotFoundErr, -1, -1, 0, 0},
      {"<V a\n</V>\n", nullptr, kBlockNotFoundErr, -1, -1, 0, 0},
      {"<Vmore>\n</V>\n", nullptr, 0, 0, 12, 0, 2},
      {"x <V>\n</V>\n", nullptr, kBlockNotFoundErr, -1, -1, 0, 0},
      {"<V>\nx </V>\n", nullptr, kBlockNotFoundErr, -1, -1, 0, 2},
      {"#<V a>\n</V>\n<V b>\n</V>\n", "b", 0, 12, 22, 1, 2},  // the mark of the first stays
      {"<V></V>\n", nullptr, kBlockNotFoundErr, -1, -1, 0, 1},
      {"", nullptr, kBlockNotFoundErr, -1, -1, 0, 0},
  };
  for (const Case& c : cases) {
    std::int64_t start = 0;
    std::int64_t end = 0;
    std::int32_t commented = 9;
    std::int32_t lines = 9;
    EXPECT_EQ(MatchBlockInFile(EditedText(c.text), "V", c.argument, &start, &end, &commented, &lines), c.code);
    EXPECT_EQ(start, c.start) << c.text;
    EXPECT_EQ(end, c.end) << c.text;
    EXPECT_EQ(commented, c.commented) << c.text;
    EXPECT_EQ(lines, c.lines) << c.text;
  }
  EXPECT_EQ(MatchBlockInFile(nullptr, "V", nullptr, nullptr, nullptr, nullptr, nullptr), kTextFileSeekErr);
  EXPECT_EQ(MatchBlockInFile(EditedText("<>\n</>\n"), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
            kBlockNotFoundErr);
}

TEST(TextBlocks, AreCommentedOutAndBack) {
  struct Case {
    std::int32_t comment;
    const char* text;
    std::int64_t start, end;
    const char* skip;
    std::int64_t delta;
    const char* result;
  };
  const Case cases[] = {
      {1, "a\n\n b\n#c\r\nd", 0, 0, nullptr, 3, "#a\n\n# b\n#c\r\n#d"},
      {1, "a\nb\nc\n", 2, 3, nullptr, 1, "a\n#b\nc\n"},
      {1, "a\nb\nc\n", 0, 2, "B", 1, "#a\nb\nc\n"},
      {1, "\na\nb\n", 0, -1, nullptr, 1, "\n#a\nb\n"},
      {1, "#a\nb\n", 0, -1, nullptr, 0, "#a\nb\n"},
      {0, "##a\n #b\n#c\nd\n", 0, 0, nullptr, -2, "#a\n #b\nc\nd\n\n\n"},
      {0, "#a\n#b\n#c\n", 0, 1, nullptr, -1, "a\n#b\n#c\n\n"},  // an end that moves to 0 still ends it
      {2, "#a\n", 0, 0, nullptr, -1, "a\n\n"},
  };
  for (const Case& c : cases) {
    const EditedText file(c.text);
    const char* skip[] = {c.skip, nullptr};
    std::int64_t delta = 99;
    EXPECT_EQ(CommentOutBlockInFile(file, c.comment, c.start, c.end, skip, &delta), 0);
    EXPECT_EQ(file.text(), c.result);
    EXPECT_EQ(delta, c.delta) << c.text;
  }
  EXPECT_EQ(CommentOutBlockInFile(EditedText("a"), 1, -1, 0, nullptr, nullptr), kTextFileSeekErr);
}

TEST(TextFileEditing, ReadOnlyStreamsAreLeftAlone) {
  char text[] = "Listen 80\n";
  std::FILE* stream = fmemopen(text, sizeof text - 1, "r");
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(UpdateDirectiveInFile(stream, "Listen", nullptr, "8080", 0, nullptr), kTextFileWriteErr);
  EXPECT_EQ(CommentOutBlockInFile(stream, 1, 0, 0, nullptr, nullptr), kTextFileWriteErr);
  EXPECT_EQ(CreateDirectiveInFile(stream, "a", "b", 1, 0, 0), kTextFileWriteErr);
  std::fclose(stream);
  EXPECT_STREQ(text, "Listen 80\n");
}

}  // namespace
}  // namespace ostrel
