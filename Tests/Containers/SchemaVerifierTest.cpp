#include "Containers/SchemaVerifier.h"

#include <gtest/gtest.h>

#include "Containers/PropertyList.h"
#include "Containers/SysLogger.h"
#include "Support/Fakes.h"
#include "Support/TemporaryFolder.h"

namespace ostrel {
namespace {

using testing::RecordingLog;

PlistValue one(std::string_view key, PlistValue value) { return PlistValue::dictionaryOf({{key, std::move(value)}}); }
PlistValue list(std::initializer_list<PlistValue> elements) { return PlistValue::arrayOf(elements); }

TEST(SchemaVerifier, ComparesKindsAndLogsTheFirstThatDiffers) {
  const PlistValue date = PlistDate{1};
  const PlistValue data = PlistData{"x"};
  const struct {
    PlistValue value;
    PlistValue schema;
    std::string_view mismatch;  // "" when the value conforms
  } cases[] = {
      {PlistValue::dictionaryOf({{"name", "a"}, {"uid", 5}}), one("name", "any"), ""},
      {one("name", 5), one("name", "any"), "number. Expected string"},
      {one("flag", true), one("flag", 0), ""},
      {one("flag", 0.5), one("flag", false), ""},
      {one("d", date), one("d", data), "date. Expected data"},
      {one("d", data), one("d", list({1})), "data. Expected array"},
      {one("d", list({})), one("d", one("x", 1)), "array. Expected dictionary"},
      {PlistValue(), one("x", 1), "null. Expected dictionary"},
      {PlistValue(), PlistValue(), "null. Expected null"},
      {"", "example", ""},
      {list({}), list({1}), ""},
      {list({1, "x", date}), list({1}), "string. Expected number"},
      {list({list({1}), list({list({})})}), list({list({2})}), "array. Expected number"},
      {PlistValue::dictionaryOf({{"b", 1}, {"a", "wrong"}}), PlistValue::dictionaryOf({{"a", date}, {"b", "x"}}),
       "string. Expected date"},  // the template's order decides
      {one("list", list({one("k", 1), one("other", "x"), one("k", "x")})), one("list", list({one("k", 1)})),
       "string. Expected number"},
  };
  for (const auto& [value, schema, mismatch] : cases) {
    RecordingLog log;
    const ScopedOverride<SystemLog> override(log);
    EXPECT_EQ(SchemaVerifier::verifyObject(value, schema), mismatch.empty()) << value.description();
    if (mismatch.empty()) {
      EXPECT_TRUE(log.records().empty());
      continue;
    }
    ASSERT_EQ(log.records().size(), 1U);
    EXPECT_EQ(log.records()[0].priority, 6);
    EXPECT_EQ(log.lines()[0], format("Object does not match schema. Class is %s.\n", mismatch));
  }
}

TEST(SchemaVerifier, EndsTheProcessForABrokenTemplate) {
  constexpr const char* assertion = R"(\[tRecord count\] == 1.*verifyArrayRecord:guidedBy:)";
  EXPECT_DEATH(SchemaVerifier::verifyObject(list({}), list({1, 2})), assertion);
  EXPECT_DEATH(SchemaVerifier::verifyArrayRecord(list({}), list({})), assertion);
  EXPECT_DEATH(SchemaVerifier::verifyDictRecord(one("l", list({1})), one("l", list({}))), assertion);
  EXPECT_TRUE(SchemaVerifier::verifyDictRecord(one("l", 1), one("other", list({}))));  // not reached
}

TEST(SchemaVerifier, SortsRecords) {
  RecordingLog log;
  const ScopedOverride<SystemLog> override(log);
  const PlistValue good = one("name", "a");
  const PlistValue bad = one("name", 1);
  PlistValue failed = "before";
  const PlistValue records = list({good, bad, "no record", list({good}), one("extra", 1)});
  EXPECT_EQ(SchemaVerifier::removeBadRecords(records, one("name", ""), &failed), list({good, one("extra", 1)}));
  EXPECT_EQ(failed, list({bad}));
  EXPECT_EQ(SchemaVerifier::removeBadRecords(list({good}), one("name", ""), &failed), list({good}));
  EXPECT_TRUE(failed.isNull());
  EXPECT_EQ(SchemaVerifier::removeBadRecords(PlistValue(), one("name", "")), list({}));
  EXPECT_EQ(SchemaVerifier::removeBadRecords(records, "no template"), list({}));
}

TEST(SchemaVerifier, DepthCostsNoStack) {
  RecordingLog log;
  const ScopedOverride<SystemLog> override(log);
  const auto nest = [](PlistValue value) {
    for (int i = 0; i < 200'000; ++i) value = i % 2 == 0 ? list({value}) : one("d", value);
    return value;
  };
  EXPECT_TRUE(SchemaVerifier::verifyObject(nest(1), nest(2)));
  EXPECT_FALSE(SchemaVerifier::verifyObject(nest(1), nest("text")));
}

TEST(SchemaVerifier, RunsNumberedTestsFromAFolder) {
  RecordingLog log;
  const ScopedOverride<SystemLog> override(log);
  const testing::TemporaryFolder folder;
  const auto add = [&folder](std::string_view name, const PlistValue& value) {
    testing::writeFile(folder / name, *writeXmlPropertyList(value));
  };
  const PlistValue input = list({one("n", "x"), one("n", 1)});
  for (const char* number : {"1", "2", "4"}) {
    add(std::string("in.") + number + ".plist", input);
    add(std::string("template.") + number + ".plist", one("n", ""));
  }
  add("out.1.plist", list({one("n", "x")}));
  add("out.2.plist", list({}));
  add("out.4.plist", list({one("n", "x")}));  // never reached: there is no third test

  ::testing::internal::CaptureStdout();
  SchemaVerifier::testFromPath(folder / "");
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "=#=#=#=#=#=#=#=#=#=Test 1 passed=#=#=#=#=#=#=#=#=#=\n"
            "=#=#=#=#=#=#=#=#=#=Test 2 FAILED=#=#=#=#=#=#=#=#=#=\n"
            "Input    was " +
                input.description() +
                "\n\n"
                "Template Was " +
                one("n", "").description() +
                "\n\n"
                "Output   Was " +
                list({one("n", "x")}).description() +
                "\n\n"
                "Expected     " +
                list({}).description() + "\n\n");

  testing::writeFile(folder / "rubbish", "<plist>");
  EXPECT_TRUE(SchemaVerifier::deserializePlistAtPath(folder / "rubbish").isNull());
  EXPECT_TRUE(SchemaVerifier::deserializePlistAtPath(folder / "missing").isNull());
  testing::writeFile(folder / "binary", *writeBinaryPropertyList(input));
  EXPECT_EQ(SchemaVerifier::deserializePlistAtPath(folder / "binary"), input);
}

TEST(SysLogger, NamesLevelsFiltersAndRemembersTheWorst) {
  RecordingLog log;
  const ScopedOverride<SystemLog> override(log);
  const auto logger = SysLogger::loggerWithPrefix("mail");
  EXPECT_EQ(logger->highWaterMark(), 8);
  logger->messageWithPriority(3, "%d%% of %@", 50, PlistValue("disk"));
  logger->messageWithPriority(6 | 3 << 3, "facility");
  EXPECT_EQ(logger->highWaterMark(), 3);
  logger->messageWithPriority(7, "all at first");
  logger->setMinPriorityLevel(4);
  logger->setPrefix("p");
  logger->messageWithPriority(5, "dropped");
  logger->messageWithPriority(4, "at the limit");
  logger->messageWithPriority(2, "%s", "kept");
  EXPECT_EQ(logger->highWaterMark(), 2);
  logger->setMinPriorityLevel(-1);
  logger->messageWithPriority(0, "dropped, and yet it raises the mark");
  EXPECT_EQ(logger->highWaterMark(), 0);
  EXPECT_EQ(log.lines(),
            (std::vector<std::string>{"mail:Error:50% of disk", "mail:Info:facility", "mail:Debug:all at first",
                                      "p:Warning:at the limit", "p:Critical:kept"}));
  EXPECT_EQ(log.records()[1].priority, 6 | 3 << 3);
}

}  // namespace
}  // namespace ostrel
