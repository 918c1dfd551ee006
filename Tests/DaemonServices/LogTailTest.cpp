#include "DaemonServices/LogTail.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "Containers/ErrorCodes.h"
#include "Support/TemporaryFolder.h"

namespace ostrel {
namespace {

using testing::TemporaryFolder;
using testing::writeFile;

constexpr std::uint64_t huge = UINT64_MAX;

/// What came back: the code ("" for success), and the in/out numbers.
struct Answer {
  std::string code;
  PlistValue contents = "unset";
  PlistValue offset;
  PlistValue amount;
};

Answer readPath(const PlistValue& path, PlistValue offset, PlistValue amount, const PlistValue& request = {}) {
  Answer answer{{}, "unset", std::move(offset), std::move(amount)};
  const char* code = do_get_tail_contents(path, answer.offset, answer.amount, answer.contents, {}, request);
  if (code != nullptr) answer.code = code;
  return answer;
}

PlistValue withFilters(std::initializer_list<PlistValue> filters) {
  return PlistValue::dictionaryOf({{"withFilters", PlistValue::arrayOf(filters)}});
}

std::string thousandBytes() {
  std::string bytes;
  for (int i = 0; i < 250; ++i) bytes += std::to_string(1000 + i);
  return bytes;
}

TEST(LogTail, ReadsThePortionThatOffsetAndAmountAskFor) {
  const TemporaryFolder folder;
  const std::string bytes = thousandBytes();
  writeFile(folder / "log", bytes);
  struct Case {
    PlistValue offset, amount;
    std::uint64_t newOffset, newAmount;
  };
  const Case cases[] = {
      {0, 100, 900, 100},   {950, 100, 950, 50},         {1000, 100, 1000, 0},      {5000, 1, 1000, 0},
      {10, 0, 1000, 0},     {0, 1000, 0, 1000},          {0, 1001, 0, 1000},        {1, 999, 1, 999},
      {500, 100, 900, 100}, {0, huge, 0, 1000},          {999, huge, 999, 1},       {huge, huge, 1000, 0},
      {huge, 1, 1000, 0},   {1, huge - 1, 1, 999},       {huge - 99, 200, 1000, 0}, {-1, 10, 1000, 0},
      {999.9, 5.0, 999, 1}, {PlistValue(), 10, 990, 10}, {0, "ten", 1000, 0},
  };
  for (const Case& each : cases) {
    const Answer answer = readPath(folder / "log", each.offset, each.amount);
    const std::string what = each.offset.description() + ", " + each.amount.description();
    EXPECT_EQ(answer.code, "") << what;
    EXPECT_EQ(answer.offset, PlistValue(each.newOffset)) << what;
    EXPECT_EQ(answer.amount, PlistValue(each.newAmount)) << what;
    EXPECT_EQ(answer.contents, PlistValue(bytes.substr(each.newOffset, each.newAmount))) << what;
  }
}

TEST(LogTail, FilteredReadKeepsTheAmountAndReturnsTheSize) {
  const TemporaryFolder folder;
  writeFile(folder / "log", "Error one\nfine\nerror two\nERROR three\n");
  struct Case {
    PlistValue request;
    PlistValue offset, amount;
    const char* contents;
    std::uint64_t newAmount;
    std::uint64_t newOffset = 37;
  };
  const Case cases[] = {
      {withFilters({"error"}), 0, 1000, "Error one\nerror two\nERROR three\n", 1000},
      {withFilters({"error", "", "t", 5}), 0, huge, "error two\nERROR three\n", huge},
      {withFilters({"error"}), 12, 1000, "error two\nERROR three\n", 1000},
      {withFilters({"error"}), 0, 6, "three\n", 6},
      {withFilters({"absent"}), 0, 1000, "", 1000},
      {withFilters({"error"}), 37, 1000, "", 0},
      {withFilters({"error"}), huge, huge, "", 0},
      {withFilters({"error"}), 0, 0, "", 0},
      // No usable filter: the unfiltered read.
      {withFilters({"", 7}), 0, 6, "three\n", 6, 31},
      {withFilters({}), 31, 100, "three\n", 6, 31},
      {PlistValue::dictionaryOf({{"withFilters", "error"}}), 31, 100, "three\n", 6, 31},
  };
  for (const Case& each : cases) {
    const Answer answer = readPath(folder / "log", each.offset, each.amount, each.request);
    const std::string what = each.request.description() + each.offset.description();
    EXPECT_EQ(answer.code, "") << what;
    EXPECT_EQ(answer.contents, PlistValue(each.contents)) << what;
    EXPECT_EQ(answer.amount, PlistValue(each.newAmount)) << what;
    EXPECT_EQ(answer.offset, PlistValue(each.newOffset)) << what;
  }
}

TEST(LogTail, TextThatIsNotUtf8) {
  const TemporaryFolder folder;
  writeFile(folder / "log", "fine\nbad \xFF error\n");
  const Answer plain = readPath(folder / "log", 0, 100);
  EXPECT_EQ(plain.code, errors::cannotAllocate);
  EXPECT_TRUE(plain.contents.isNull());
  EXPECT_EQ(plain.offset, PlistValue(0));
  EXPECT_EQ(plain.amount, PlistValue(17));

  const Answer filtered = readPath(folder / "log", 0, 100, withFilters({"error"}));
  EXPECT_EQ(filtered.code, "");
  EXPECT_TRUE(filtered.contents.isNull());
  EXPECT_EQ(filtered.offset, PlistValue(17));
  EXPECT_EQ(filtered.amount, PlistValue(100));

  // A NUL does not end the text.
  using namespace std::string_view_literals;
  writeFile(folder / "log", "a\0error\nlast error\n"sv);
  EXPECT_EQ(readPath(folder / "log", 0, 100, withFilters({"error"})).contents, PlistValue("a\0error\nlast error\n"sv));
  EXPECT_EQ(readPath(folder / "log", 0, 13).contents, PlistValue("r\nlast error\n"sv));
}

TEST(LogTail, RefusesWhatIsNoRegularFileWithoutWaiting) {
  const TemporaryFolder folder;
  ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
  writeFile(folder / "log", "error\n");
  const PlistValue paths[] = {
      folder / "pipe", folder / "missing", folder.path(), "/dev/zero", "", 5, {}, (folder / "log") + '\0' + "x"};
  for (const PlistValue& path : paths) {
    for (const PlistValue& request : {PlistValue(), withFilters({"error"})}) {
      const Answer answer = readPath(path, 3, 4, request);
      EXPECT_EQ(answer.code, errors::fileNotFound) << path.description();
      EXPECT_TRUE(answer.contents.isNull());
      EXPECT_EQ(answer.offset, PlistValue(3));
      EXPECT_EQ(answer.amount, PlistValue(4));
    }
  }
}

TEST(LogTail, OnlyDeclaredLogsAreRead) {
  const TemporaryFolder folder;
  writeFile(folder / "log", "text\n");
  writeFile(folder / "secret", "secret\n");
  const std::string log = folder / "log";
  const PlistValue allowed = PlistValue::dictionaryOf({{"system", log}, {"odd", 5}});
  const auto byIdentifier = [&](const PlistValue& identifier, const PlistValue& logs, PlistValue& path) {
    Answer answer{{}, "unset", 0, 100};
    const char* code = do_get_tail_contents_for_identifier(identifier, logs, path, answer.offset, answer.amount,
                                                           answer.contents, {}, {});
    if (code != nullptr) answer.code = code;
    return answer;
  };
  PlistValue path = "unset";
  EXPECT_EQ(byIdentifier("system", allowed, path).contents, PlistValue("text\n"));
  EXPECT_EQ(path, PlistValue(log));
  for (const PlistValue& identifier : {PlistValue("other"), PlistValue(log), PlistValue(5), PlistValue()}) {
    EXPECT_EQ(byIdentifier(identifier, allowed, path).code, errors::illegalLogIdentifierRequested);
    EXPECT_TRUE(path.isNull());
  }
  EXPECT_EQ(byIdentifier("system", {}, path).code, errors::illegalLogIdentifierRequested);
  EXPECT_EQ(byIdentifier("odd", allowed, path).code, errors::illegalPathRequested);

  const auto byPath = [&](const PlistValue& wanted, const PlistValue& logs) {
    Answer answer{{}, "unset", 0, 100};
    const char* code =
        do_verify_path_and_get_tail_contents(wanted, logs, answer.offset, answer.amount, answer.contents, {}, {});
    if (code != nullptr) answer.code = code;
    return answer;
  };
  EXPECT_EQ(byPath(log, allowed).contents, PlistValue("text\n"));
  for (const std::string& wanted : {folder / "secret", std::string("system"), folder / "./log", folder / "x/../log"})
    EXPECT_EQ(byPath(wanted, allowed).code, errors::illegalPathRequested) << wanted;
  EXPECT_EQ(byPath(5, allowed).code, errors::illegalPathRequested);
  EXPECT_EQ(byPath(log, {}).code, errors::illegalPathRequested);
}

}  // namespace
}  // namespace ostrel
