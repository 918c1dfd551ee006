// Tokenizers, patterns and string routines.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "ConfigFiles/CStrings.h"
#include "ConfigFiles/PascalStrings.h"
#include "ConfigFiles/TextPatterns.h"
#include "ConfigFiles/TextTokenizers.h"

namespace ostrel {
namespace {

TEST(TextTokenizers, CountWhatTheyTell) {
  struct Case {
    std::int32_t (*function)(const char*, std::size_t*);
    const char* text;
    std::size_t length;
  };
  const Case cases[] = {
      {ParseTextUntilNoSpace, " \t x", 3},
      {ParseTextUntilNoSpace, "\n", 0},
      {ParseTextUntilSpace, "ab\tc", 2},
      {ParseTextUntilSpace, "ab\nc", 4},
      {ParseTextUntilSpaceOrColon, "a:b", 1},
      {ParseTextUntilNumber, "port 80", 5},
      {ParseTextUntilNumber, "port", 4},
      {ParsePathName, "\"a b\"c", 5},
      {ParsePathName, "`a b", 4},
      {ParsePathName, "'it", 3},
      {ParsePathName, "/a/b>c", 4},
      {ParsePathName, "a\r\n", 1},
      {ParsePathName, "", 0},
      {ParsePathName, nullptr, 0},
  };
  for (const Case& c : cases) {
    std::size_t length = 99;
    EXPECT_EQ(c.function(c.text, &length), 0);
    EXPECT_EQ(length, c.length) << c.text;
    EXPECT_EQ(c.function(c.text, nullptr), 0);
  }
  std::size_t skip = 99;
  std::size_t length = 99;
  ParseNextWord(" \r\n\tword\nx", &skip, &length);
  EXPECT_EQ(skip, 4U);
  EXPECT_EQ(length, 4U);
  const char unended[] = {'a', 'b', 'c'};
  ParseTextUntilEOL(unended, 3, &length);
  EXPECT_EQ(length, 3U);
  ParseTextUntilEOL("ab\rc", 99, &length);
  EXPECT_EQ(length, 2U);
  ParseTextUntilMismatch("LISTEN 80", "listening", &length);
  EXPECT_EQ(length, 6U);
  ParseTextUntilMismatch("abc", "", &length);
  EXPECT_EQ(length, 3U);
  EXPECT_EQ(ToLowerCase('Q'), 'q');
  EXPECT_EQ(ToLowerCase('\xC4'), '\xC4');
}

TEST(TextTokenizers, FileNameLosesItsFirstCharacterWithoutASeparator) {
  EXPECT_STREQ(ExtractFileName("/etc/apache2.conf"), "apache2.conf");
  EXPECT_STREQ(ExtractFileName("disk:folder:file"), "file");
  EXPECT_STREQ(ExtractFileName("folder/"), "");
  EXPECT_STREQ(ExtractFileName("name"), "ame");
  EXPECT_STREQ(ExtractFileName(""), "");
  EXPECT_EQ(ExtractFileName(nullptr), nullptr);
}

TEST(TextPatterns, MatchAsTheyAreDefined) {
  struct Case {
    const char* text;
    const char* pattern;
    std::size_t start, length;  // length 0: no match
  };
  const Case cases[] = {
      {"ServerName x\n", "servername", 0, 10},
      {"# ServerName", "SERVERNAME", 2, 10},
      {"", "", 0, 0},
      {"abc", "", 0, 3},
      {"abc", "abcd", 0, 0},
      // A partial match hides the one that begins inside it.
      {"aaab", "aab", 0, 0},
      {"aab", "aab", 0, 3},
      {"xaxab", "xab", 2, 3},
      // The wildcard: one character or more, as few as possible, from the leftmost start.
      {"a--b--b",
       "a\x1f"
       "b",
       0, 4},
      {"a--b",
       "a\x1f\x1f"
       "b",
       0, 4},
      {"ab",
       "a\x1f"
       "b",
       0, 0},
      {"xxb",
       "\x1f"
       "b",
       0, 3},
      {"a1b2c",
       "a\x1f"
       "b\x1f"
       "c",
       0, 5},
      {"a1bx2bc",
       "a\x1f"
       "bc",
       0, 7},
      // At the end it takes everything, line end included, but wants two characters.
      {"LoadModule x y\n", "load\x1f", 0, 15},
      {"ab", "a\x1f", 0, 0},
      {"abc", "a\x1f", 0, 3},
  };
  for (const Case& c : cases) {
    std::size_t start = 99;
    std::size_t length = 99;
    EXPECT_EQ(MatchTextWithString(c.text, c.pattern, &start, &length), 0);
    EXPECT_EQ(length, c.length) << c.text << " " << c.pattern;
    if (c.length > 0) {
      EXPECT_EQ(start, c.start) << c.text << " " << c.pattern;
    }
    std::int32_t flag = 99;
    EXPECT_EQ(DoesTextContainThisString(c.text, c.pattern, &flag), 0);
    EXPECT_EQ(flag, c.length > 0 ? 1 : 0);
  }
  std::size_t length = 99;
  MatchTextWithString(nullptr, "a", nullptr, &length);
  EXPECT_EQ(length, 0U);
  EXPECT_EQ(DoesTextContainThisString("a", nullptr, nullptr), 0);
}

/// Calls one routine on a buffer of `size` bytes, with guards on both sides.
class Buffer {
 public:
  explicit Buffer(const char* content = "") {
    std::memset(bytes_, '~', sizeof bytes_);
    std::strcpy(bytes_ + 8, content);
  }
  char* get() { return bytes_ + 8; }
  std::string text(std::size_t size) {
    EXPECT_EQ(bytes_[7], '~');
    EXPECT_EQ(bytes_[8 + std::max(size, std::strlen(get()) + 1)], '~') << get();
    return get();
  }

 private:
  char bytes_[64];
};

TEST(CStrings, StayWithinTheirSize) {
  struct Case {
    void (*function)(char*, const char*, std::size_t);
    const char* before;
    const char* source;
    std::size_t size;
    const char* after;
  };
  const Case cases[] = {
      {MyCopyCStrings, "old", "abcdef", 4, "abc"},
      {MyCopyCStrings, "old", "abc", 4, "abc"},
      {MyCopyCStrings, "old", "abc", 0, "old"},
      {MyCopyCStrings, "old", nullptr, 4, ""},
      {MyConcatCStrings, "ab", "cdef", 5, "abcd"},
      {MyConcatCStrings, "abcd", "x", 5, "abcd"},
      {MyConcatCStrings, "abcdef", "x", 4, "abcdef"},
      {MyConcatCPaths, "/usr", "lib", 20, "/usr/lib"},
      {MyConcatCPaths, "/usr//", "//lib", 20, "/usr/lib"},
      {MyConcatCPaths, "/", "lib", 20, "/lib"},
      {MyConcatCPaths, "", "lib", 20, ""},
      {MyConcatCPaths, "/usr", "lib", 7, "/usr/l"},
      {MyConcatCPaths, "/usr", "lib", 5, "/usr"},
      {MyConcatCPaths, "/usr", "", 9, "/usr/"},
  };
  for (const Case& c : cases) {
    Buffer buffer(c.before);
    c.function(buffer.get(), c.source, c.size);
    EXPECT_EQ(buffer.text(c.size), c.after) << c.before << " " << c.size;
    c.function(nullptr, c.source, c.size);
  }
  const Case quoting[] = {
      {nullptr, nullptr, "ab", 5, "\"ab\""},     {nullptr, nullptr, "ab", 4, "ab"},
      {nullptr, nullptr, "\"ab\"", 9, "\"ab\""}, {nullptr, nullptr, "", 3, "\"\""},
      {nullptr, nullptr, "abcdef", 4, "abc"},    {nullptr, nullptr, "\"", 9, "\"\"\""},
  };
  for (const Case& c : quoting) {
    Buffer buffer;
    MyCopyCStringsWithDQ(c.source, buffer.get(), c.size);
    EXPECT_EQ(buffer.text(c.size), c.after);
  }
  Buffer buffer;
  MyCopyCStringsWithoutDQ("\"a\"b\"", buffer.get(), 20);
  EXPECT_EQ(buffer.text(20), "a\"b");
  MyCopyCStringsWithoutDQ("\"", buffer.get(), 20);
  EXPECT_EQ(buffer.text(20), "\"");
}

TEST(CStrings, CompareAndGrow) {
  struct Case {
    const char* a;
    const char* b;
    std::int32_t result, isAncestor;
  };
  const Case cases[] = {
      {"/a/b", "/a/b/", 1, 0}, {"/a/", "/a/b", 1, 1}, {"/a", "/ab", 0, 0}, {"/a/b", "/a", 0, 0},     {"/", "/a", 1, 1},
      {"", "/a", 0, 0},        {"/a", "", 0, 0},      {"/A", "/a", 0, 0},  {nullptr, nullptr, 0, 0},
  };
  for (const Case& c : cases) {
    std::int32_t isAncestor = 99;
    EXPECT_EQ(MyCompareCPaths(c.a, c.b, &isAncestor), c.result) << c.a << " " << c.b;
    EXPECT_EQ(isAncestor, c.isAncestor) << c.a << " " << c.b;
  }
  EXPECT_EQ(MyEqualCStrings("a", "A"), 0);
  EXPECT_EQ(MyEqualCaseCStrings("ab", "AB"), 1);
  EXPECT_EQ(MyEqualCaseCStrings("ab", "abc"), 0);

  char* text = MyNewCStringByConcat("ab", nullptr);
  text = MyReallocCStringByConcat(text, "cd");
  text = MyReallocCStringByConcat(text, text + 1);  // a part of itself
  EXPECT_STREQ(text, "abcdbcd");
  free(text);
  text = MyReallocCStringByConcat(nullptr, "x");
  EXPECT_STREQ(text, "x");
  free(text);
}

std::string pascal(std::string_view text) { return static_cast<char>(text.size()) + std::string(text); }
const unsigned char* bytes(const std::string& text) { return reinterpret_cast<const unsigned char*>(text.c_str()); }

TEST(PascalStrings, StayWithinTheirSize) {
  const auto written = [](auto call) {
    unsigned char buffer[600];
    std::memset(buffer, '~', sizeof buffer);
    buffer[0] = 0;
    call(buffer);
    EXPECT_EQ(buffer[buffer[0] + 1], '~');
    return std::string(reinterpret_cast<char*>(buffer), std::size_t{1} + buffer[0]);
  };
  EXPECT_EQ(written([](auto* to) { MyCopyPascalStrings(to, bytes(pascal("abc")), 3); }), pascal("ab"));
  EXPECT_EQ(written([](auto* to) { MyCopyPascalStrings(to, bytes(pascal("abc")), 0); }), pascal(""));
  EXPECT_EQ(written([](auto* to) { MyCopyCStringToPascal(std::string(400, 'x').c_str(), to, 500); }),
            pascal(std::string(255, 'x')));
  EXPECT_EQ(written([](auto* to) { MyCopyCStringToPascalWithoutDQ("\"ab\"", to, 9); }), pascal("ab"));
  EXPECT_EQ(written([](auto* to) { MyCopyCStringToPascalWithoutDQ("\"ab", to, 9); }), pascal("ab"));
  EXPECT_EQ(written([](auto* to) { MyCopyCStringToPascalWithoutDQ("ab\"", to, 9); }), pascal("ab\""));
  // The bytes appended begin with the length byte.
  EXPECT_EQ(written([](auto* to) {
              MyCopyPascalStrings(to, bytes(pascal("x")), 99);
              MyConcatPascalStrings(bytes(pascal("abc")), to, 99);
            }),
            pascal("x\003ab"));
  EXPECT_EQ(written([](auto* to) {
              MyCopyPascalStrings(to, bytes(pascal("x")), 99);
              MyConcatPascalStrings(bytes(pascal("abc")), to, 4);
            }),
            pascal("x\003a"));
  EXPECT_EQ(MyEqualPascalStrings(bytes(pascal("ab")), bytes(pascal("aB"))), 0);
  EXPECT_EQ(MyEqualCasePascalStrings(bytes(pascal("ab")), bytes(pascal("aB"))), 1);

  const auto quoted = [](std::string_view text, std::size_t size) {
    Buffer buffer;
    MyCopyPascalToCStringWithDQ(bytes(pascal(text)), buffer.get(), size);
    return buffer.text(size);
  };
  EXPECT_EQ(quoted("abcd", 6), "\"abc\"");
  EXPECT_EQ(quoted("", 3), "\"\"");
  EXPECT_EQ(quoted("a", 2), "");
  Buffer buffer;
  MyCopyPascalToCString(bytes(pascal("abcd")), buffer.get(), 3);
  EXPECT_EQ(buffer.text(3), "ab");
}

}  // namespace
}  // namespace ostrel
