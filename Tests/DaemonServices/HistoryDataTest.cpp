#include "DaemonServices/HistoryData.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>

#include "Containers/ErrorCodes.h"
#include "Containers/Format.h"
#include "Support/Fakes.h"

namespace ostrel {
namespace {

/// A clock that tests set, also backwards.
class SetClock final : public Clock {
 public:
  PlistDate now() override { return {seconds}; }
  std::chrono::nanoseconds monotonic() override { return {}; }
  void sleepFor(std::chrono::nanoseconds) override {}
  double seconds = 1'000'000'000.9;
};

class HistoryData : public ::testing::Test {
 protected:
  const char* append(const PlistValue& values) { return do_update_history_data(values, context); }
  PlistValue read(const PlistValue& period, const PlistValue& filter = {}) {
    PlistValue samples;
    EXPECT_EQ(do_get_history_data(filter, period, samples, context), nullptr);
    return samples;
  }
  template <class Word>
  Word at(std::size_t offset) const {
    Word word = 0;
    const PlistValue history = context.get("history");
    std::memcpy(&word, history.dataBytes().data() + offset, sizeof word);
    return word;
  }
  std::array<std::uint32_t, 6> header() const {
    std::array<std::uint32_t, 6> words{};
    for (std::size_t i = 0; i < words.size(); ++i) words[i] = at<std::uint32_t>(i * 4);
    return words;
  }
  /// A word of a sample of one value; the coarse ring follows the fine one.
  std::uint64_t sampleWord(std::size_t index, std::size_t word) const {
    return at<std::uint64_t>(24 + (index * 2 + word) * 8);
  }
  void put(std::size_t offset, std::uint32_t word) {
    std::memcpy(context.changeData("history").data() + offset, &word, sizeof word);
  }

  SetClock clock;
  const ScopedOverride<Clock> clockOverride{clock};
  testing::RecordingLog log;
  const ScopedOverride<SystemLog> logOverride{log};
  PlistValue context = PlistValue::mutableDictionary();
};

constexpr std::size_t firstCoarse = 1'440;
using Words = std::array<std::uint32_t, 6>;

TEST_F(HistoryData, KeepsEachFieldInItsPlace) {
  EXPECT_EQ(append(PlistValue::arrayOf({7, 0x1122334455667788, -1, 2.9, "text"})), nullptr);
  EXPECT_TRUE(context.get("contextDirty").boolValue());
  EXPECT_EQ(context.get("history").dataBytes().size(), 6U * 27'648 + 24);
  EXPECT_EQ(header(), (Words{1, 1'440, 2'016, 5, 0, 2'015}));
  const std::uint64_t sample[] = {1'000'000'000, 7, 0x1122334455667788, UINT64_MAX, 2, 0x7FFFFFFFFFFFFFFF};
  for (std::size_t i = 0; i < 6; ++i) EXPECT_EQ(at<std::uint64_t>(24 + i * 8), sample[i]) << i;
  for (std::size_t offset = 24 + sizeof sample; offset < 6U * 27'648 + 24; offset += 8)
    ASSERT_EQ(at<std::uint64_t>(offset), 0U) << offset;

  clock.seconds += 1;
  append(PlistValue::arrayOf({8}));
  EXPECT_EQ(header(), (Words{1, 1'440, 2'016, 5, 1, 2'015}));
  const PlistValue samples = read(60);
  ASSERT_EQ(samples.count(), 2U);
  EXPECT_EQ(samples.at(0),
            PlistValue::dictionaryOf({{"t", 1'000'000'001}, {"v1", 8}, {"v2", 0}, {"v3", 0}, {"v4", 0}, {"v5", 0}}));
  EXPECT_EQ(samples.at(1),
            PlistValue::dictionaryOf(
                {{"t", 1'000'000'000}, {"v1", 7}, {"v2", 0x1122334455667788}, {"v3", UINT64_MAX}, {"v4", 2}}));
  EXPECT_TRUE(samples.isMutable() && samples.at(0).set("more", 1));
}

TEST_F(HistoryData, LeavesWhatAShorterSampleDoesNotNameAndDropsWhatALongerOneAdds) {
  for (int i = 0; i < 1'440; ++i) append(PlistValue::arrayOf({100, 200}));
  append(PlistValue::arrayOf({1}));
  append(PlistValue::arrayOf({1, 2, 3}));
  EXPECT_EQ(header()[3], 2U);
  const PlistValue samples = read(60);
  EXPECT_EQ(samples.at(0), PlistValue::dictionaryOf({{"t", 1'000'000'000}, {"v1", 1}, {"v2", 2}}));
  EXPECT_EQ(samples.at(1), PlistValue::dictionaryOf({{"t", 1'000'000'000}, {"v1", 1}, {"v2", 200}}))
      << "the slot's former value";
}

TEST_F(HistoryData, PromotesASampleThreeHundredSecondsAfterTheLast) {
  const double start = clock.seconds;
  for (int i = 0; i < 1'440; ++i, clock.seconds += 1) append(PlistValue::arrayOf({i}));
  EXPECT_EQ(header()[5], 2'015U) << "nothing has fallen out yet";
  // The sample of second s falls out when sample s + 1,440 comes.
  const struct {
    int fallsOut;
    std::uint32_t newestCoarse, value;
  } steps[] = {{0, 0, 0}, {1, 0, 0}, {299, 0, 0}, {300, 1, 300}, {599, 1, 300}, {600, 2, 600}};
  int next = 0;
  for (const auto& [fallsOut, newestCoarse, value] : steps) {
    for (; next <= fallsOut; ++next, clock.seconds += 1) append(PlistValue::arrayOf({1'440 + next}));
    EXPECT_EQ(header()[5], newestCoarse) << fallsOut;
    EXPECT_EQ(sampleWord(firstCoarse + newestCoarse, 1), value) << fallsOut;
  }
  // The clock goes back by an hour: the difference is unsigned, so the next to fall out is kept.
  clock.seconds = start - 3'600;
  for (int i = 0; i < 1'440; ++i) append(PlistValue::arrayOf({9}));
  const std::uint32_t newest = header()[5];
  append(PlistValue::arrayOf({9}));
  EXPECT_EQ(header()[5], newest + 1);
  append(PlistValue::arrayOf({9}));
  EXPECT_EQ(header()[5], newest + 1) << "and from there on 300 seconds count again";
}

TEST_F(HistoryData, WrapsBothRingsAndWalksThemNewestFirst) {
  constexpr int samples = 1'440 + 2'016 + 100;
  const double start = clock.seconds;
  for (int i = 0; i < samples; ++i, clock.seconds += 300) append(PlistValue::arrayOf({i}));
  EXPECT_EQ(header(), (Words{1, 1'440, 2'016, 1, (samples - 1) % 1'440, 99}));
  const PlistValue all = read(1e12);
  ASSERT_EQ(all.count(), 1'440U + 2'016U);
  for (std::size_t i = 0; i < all.count(); ++i) {
    const int number = samples - 1 - static_cast<int>(i);
    ASSERT_EQ(all.at(i).get("v1"), PlistValue(number));
    ASSERT_EQ(all.at(i).get("t"), PlistValue(static_cast<std::int64_t>(start) + 300 * number));
  }
}

TEST_F(HistoryData, ReadsThePeriodAskedFor) {
  for (int i = 0; i < 100; ++i, clock.seconds += 1) append(PlistValue::arrayOf({i}));
  clock.seconds -= 1;  // now is the time of the newest sample
  const struct {
    PlistValue period;
    std::size_t count;
  } cases[] = {{0, 1},         {60, 61},     {0.5, 1},          {1.5, 2},     {-1, 0},
               {-0.5, 0},      {1'000, 100}, {-1e300, 0},       {1e300, 100}, {UINT64_MAX, 100},
               {INT64_MIN, 0}, {"60", 1},    {PlistValue(), 1}, {true, 2},    {2e9, 100}};
  for (const auto& [period, count] : cases) EXPECT_EQ(read(period).count(), count) << period.description();
}

TEST_F(HistoryData, FiltersByTheSimpleTest) {
  append(PlistValue::arrayOf({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13}));
  const struct {
    PlistValue filter;
    std::size_t count;
  } cases[] = {{PlistValue(), 13}, {"v1", 1}, {"v10", 2}, {"v13,v2", 3}, {"", 0}, {"V1", 0}, {"v14 v0", 1}};
  for (const auto& [filter, count] : cases) {
    const PlistValue sample = read(0, filter).at(0);
    EXPECT_EQ(sample.count(), count + 1) << filter.description();
    EXPECT_TRUE(sample.contains("t"));
  }
  EXPECT_EQ(read(0).at(0).get("v13"), PlistValue(13));
}

TEST_F(HistoryData, HistoriesAreToldApartByName) {
  EXPECT_EQ(do_update_named_history_data("a", PlistValue::arrayOf({1}), context), nullptr);
  EXPECT_EQ(do_update_named_history_data("", PlistValue::arrayOf({}), context), nullptr);
  PlistValue samples = "unset";
  EXPECT_EQ(do_get_named_history_data("", nullptr, 0, samples, context), nullptr);
  EXPECT_EQ(samples, PlistValue::arrayOf({PlistValue::dictionaryOf({{"t", 1'000'000'000}})}));
  EXPECT_EQ(do_get_history_data(nullptr, 0, samples, context), nullptr);
  EXPECT_TRUE(samples.isNull()) << "no entry, no array";
  context.set("history", "text");
  EXPECT_EQ(do_get_history_data(nullptr, 0, samples, context), nullptr);
  EXPECT_EQ(samples, PlistValue::arrayOf({})) << "an entry that is no data";
}

TEST_F(HistoryData, AnAppendLeavesOtherHandlesOnTheHistoryAlone) {
  append(PlistValue::arrayOf({1}));
  const void* place = context.find("history")->dataBytes().data();
  append(PlistValue::arrayOf({2}));
  EXPECT_EQ(context.find("history")->dataBytes().data(), place) << "in place while nobody else holds it";
  const PlistValue shared = context.get("history");
  const std::string before(shared.dataBytes());
  append(PlistValue::arrayOf({3}));
  EXPECT_EQ(shared.dataBytes(), before);
  EXPECT_EQ(read(0).at(0).get("v1"), PlistValue(3));
  EXPECT_TRUE(context.immutableCopy().changeData("history").empty());
}

TEST_F(HistoryData, OtherDataBeginsANewHistory) {
  const PlistData others[] = {{""}, {"short"}, {std::string_view("\2\0\0\0\xA0\5\0\0\xE0\7\0\0\1\0\0\0", 16)}};
  for (const PlistData& other : others) {
    context.set("history", other);
    EXPECT_EQ(append(PlistValue::arrayOf({5})), nullptr);
    EXPECT_EQ(read(0).count(), 1U);
  }
  for (const std::size_t field : {0U, 4U, 8U}) {
    put(field, 9);
    EXPECT_EQ(append(PlistValue::arrayOf({5, 6})), nullptr);
    EXPECT_EQ(header(), (Words{1, 1'440, 2'016, 2, 0, 2'015})) << field;
  }
}

TEST_F(HistoryData, ADamagedHistoryIsRefusedUnchanged) {
  const auto expectRefused = [&](const std::string& what) {
    const std::string bytes = context.get("history").dataBytes();
    EXPECT_STREQ(append(PlistValue::arrayOf({1})), errors::cannotMakeHistory) << what;
    EXPECT_EQ(context.get("history").dataBytes(), bytes) << what;
    PlistValue samples;
    EXPECT_STREQ(do_get_history_data(nullptr, 1e12, samples, context), errors::cannotGetHistory) << what;
    EXPECT_EQ(samples, PlistValue::arrayOf({})) << what;
    const std::string start = format("[%d] exception in do_", processId());
    const auto lines = log.lines();
    ASSERT_GE(lines.size(), 2U);
    EXPECT_TRUE(lines[lines.size() - 2].starts_with(start + "update_named_history_data(history): the history")) << what;
    EXPECT_TRUE(lines.back().starts_with(start + "get_named_history_data(history): the history")) << what;
  };
  const struct {
    std::size_t field;
    std::uint32_t value;
  } fields[] = {{12, 2},     {12, 0},          {12, UINT32_MAX}, {12, 0x1FFFFFFF},
                {16, 1'440}, {16, UINT32_MAX}, {20, 2'016},      {20, UINT32_MAX}};
  for (const auto& [field, value] : fields) {
    context = PlistValue::mutableDictionary();
    append(PlistValue::arrayOf({1}));
    put(field, value);
    expectRefused(std::to_string(field) + " " + std::to_string(value));
  }
  for (const int change : {-1, 1, -8, 16, 24 - (2 * 27'648 + 24)}) {
    context = PlistValue::mutableDictionary();
    append(PlistValue::arrayOf({1}));
    std::string bytes = context.get("history").dataBytes();
    bytes.resize(static_cast<std::size_t>(static_cast<int>(bytes.size()) + change));
    context.set("history", PlistData{bytes});
    expectRefused(std::to_string(change) + " bytes");
  }
}

TEST_F(HistoryData, ArgumentsOfTheWrongKind) {
  EXPECT_STREQ(append(nullptr), errors::cannotMakeHistory);
  EXPECT_EQ(context.count(), 0U) << "not even marked dirty";
  EXPECT_STREQ(do_update_history_data(PlistValue::arrayOf({1}), nullptr), errors::cannotMakeHistory);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_STREQ(append("values"), errors::cannotMakeHistory);
  EXPECT_STREQ(do_update_history_data(PlistValue::arrayOf({1}), PlistValue::dictionaryOf({})),
               errors::cannotMakeHistory);
  EXPECT_EQ(log.lines().size(), 2U);
  append(PlistValue::arrayOf({1}));
  PlistValue samples;
  EXPECT_STREQ(do_get_history_data(1, 60, samples, context), errors::cannotGetHistory) << "a filter that is no text";
  EXPECT_EQ(do_get_history_data(nullptr, 60, samples, nullptr), nullptr);
  EXPECT_TRUE(samples.isNull());
}

}  // namespace
}  // namespace ostrel
