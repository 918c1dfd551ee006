// What ostrelctl history draws and lists.
#include "ostrelctl/HistoryChart.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <ctime>

#include "Containers/Utf8.h"
#include "ostrelctl/HistoryCommand.h"

namespace ostrel {
namespace {

constexpr double start = 1'700'006'400;  // 2023-11-15T00:00:00Z

PlistValue answerOf(const PlistValue& samples) {
  const auto value = [](const char* key, const char* name, const char* unit, double scale) {
    return PlistValue::dictionaryOf({{"key", key}, {"name", name}, {"unit", unit}, {"scale", scale}});
  };
  return PlistValue::dictionaryOf(
      {{"samples", samples},
       {"values", PlistValue::arrayOf({value("v1", "Busy", "%", 0.1), value("v2", "Memory", "B", 1)})}});
}

std::vector<HistorySeries> seriesOf(const std::vector<std::pair<double, double>>& points, const char* unit = "%") {
  HistorySeries series{"v1", "Busy", unit, {}};
  for (const auto& [minute, value] : points) series.points.push_back({start + minute * 60, value});
  return {series};
}

std::size_t widestLine(std::string_view text) {
  std::size_t widest = 0;
  std::size_t width = 0;
  for (const char byte : text) {
    if ((static_cast<unsigned char>(byte) & 0xC0U) != 0x80U) ++width;
    if (byte != '\n') continue;
    widest = std::max(widest, width - 1);
    width = 0;
  }
  return widest;
}

class HistoryChart : public ::testing::Test {
 protected:
  HistoryChart() {
    setenv("TZ", "UTC", 1);
    tzset();
  }
  ChartFrame frame{start, start + 3'600, 30, 4, false};
};

TEST_F(HistoryChart, DrawsACurveBesideItsScaleAndTimes) {
  std::vector<std::pair<double, double>> ramp;
  for (int minute = 0; minute <= 60; ++minute) ramp.emplace_back(minute, minute / 3.0);
  EXPECT_EQ(historyCharts(seriesOf(ramp), frame),
            "Busy (%): 20.0 now, 0.0 to 20.0\n"
            "20 +                   ******\n"
            "   |            *******\n"
            "10 +     ********\n"
            " 0 +******\n"
            "    00:00     00:30     01:00\n");
}

TEST_F(HistoryChart, BreaksTheCurveWhereSamplesAreMissing) {
  const std::string chart = historyCharts(seriesOf({{0, 10}, {1, 10}, {2, 10}, {3, 10}, {58, 10}, {59, 10}}), frame);
  EXPECT_NE(chart.find("**                     **"), std::string::npos) << chart;
}

TEST_F(HistoryChart, HoldsTheWidthWhateverTheValues) {
  const std::vector<std::vector<std::pair<double, double>>> all{
      {{30, 5}},                       // one sample
      {{0, 0}, {60, 0}},               // nothing ever
      {{0, 7}, {60, 7}},               // constant
      {{0, -3}, {60, -3}},             //
      {{0, -5}, {60, 5}},              // on both sides of 0
      {{0, 1e-9}, {60, 2e-9}},         // tiny
      {{0, 0}, {60, 1.8e19}},          // huge
      {{0, 1e19}, {1, 1e19 + 4096}},   // hardly different
      {{0, -1e300}, {60, 1e300}},      //
      {{-900, 1}, {30, 5}, {900, 2}},  // outside the frame
      {{30, 1}, {30, 9}},              // twice at one time
  };
  for (const auto& points : all)
    for (const char* unit : {"%", "B", ""})
      for (const std::size_t width : {0U, 1U, 12U, 20U, 80U, 300U})
        for (const bool utf8 : {false, true}) {
          frame.width = width;
          frame.utf8 = utf8;
          const std::string chart = historyCharts(seriesOf(points, unit), frame);
          EXPECT_TRUE(isValidUtf8(chart));
          const std::size_t firstLine = chart.find('\n');
          EXPECT_LE(widestLine(chart.substr(firstLine + 1)), width) << chart;
        }
  frame.to = frame.from;
  historyCharts(seriesOf({{0, 1}}), frame);
  EXPECT_EQ(historyCharts(seriesOf({}), frame), "Busy: no samples\n");
}

TEST_F(HistoryChart, WritesBytesWithBinaryPrefixes) {
  const std::string chart = historyCharts(seriesOf({{0, 3'221'225'472.0}, {60, 4'294'967'296.0}}, "B"), frame);
  EXPECT_TRUE(chart.starts_with("Busy (GiB): 4.0")) << chart;
}

TEST_F(HistoryChart, TheTableHoldsEveryNumberAndMarksGaps) {
  const PlistValue samples = PlistValue::arrayOf({
      PlistValue::dictionaryOf({{"t", start + 60}, {"v1", 125}, {"v2", 12'345'678'901}, {"v10", 1}}),
      PlistValue::dictionaryOf({{"t", start}, {"v2", 5}}),
      PlistValue::dictionaryOf({{"v2", 5}}),
      "no sample",
  });
  EXPECT_EQ(historyTable(seriesFrom(answerOf(samples), "")),
            "# v1: Busy (%)\n# v2: Memory (B)\n# v10: v10\ntime\tv1\tv2\tv10\n"
            "2023-11-15T00:00:00Z\t-\t5\t-\n2023-11-15T00:01:00Z\t12.5\t1.23456789e+10\t1\n");
  EXPECT_EQ(seriesFrom(answerOf(samples), "v1").size(), 1U) << "and not v10";
  EXPECT_EQ(seriesFrom(answerOf(samples), "v2,v10").size(), 2U);
}

TEST_F(HistoryChart, AnAnswerOfAnyFormSteersNoTerminal) {
  const PlistValue hostile = PlistValue::dictionaryOf(
      {{"samples", PlistValue::arrayOf({PlistValue::dictionaryOf(
                       {{"t", start}, {"\x1b[2J", 1}, {"v1", "text"}, {"v2", 1e300}, {"t2", std::nan("")}})})},
       {"values", PlistValue::arrayOf({1, PlistValue::dictionaryOf({{"key", "v2"},
                                                                    {"name", std::string(500, 'n') + "\n"},
                                                                    {"unit", "\x1b]0;x\a"},
                                                                    {"scale", 1e300}})})}});
  const auto series = seriesFrom(hostile, "");
  const std::string text = historyTable(series) + historyCharts(series, frame);
  EXPECT_EQ(text.find('\x1b'), std::string::npos);
  EXPECT_EQ(text.find('\a'), std::string::npos);
  EXPECT_EQ(text.find(std::string(61, 'n')), std::string::npos);
  for (const PlistValue& answer : {PlistValue(), PlistValue::dictionaryOf({{"samples", 5}, {"values", "x"}})})
    EXPECT_TRUE(seriesFrom(answer, "").empty());
}

TEST_F(HistoryChart, TheFrameEndsNowUnlessTheClocksDisagree) {
  const auto series = seriesOf({{0, 1}});
  EXPECT_EQ(frameFor(series, 600, start + 60).to, start + 60);
  EXPECT_EQ(frameFor(series, 600, start - 60).to, start);
  EXPECT_EQ(frameFor(series, 600, start + 6'000).to, start);
  EXPECT_EQ(frameFor(series, 600, start).from, start - 600);
}

TEST(HistoryPeriod, IsANumberAndAUnit) {
  const struct {
    const char* text;
    double seconds;
  } cases[] = {{"90", 90}, {"90s", 90}, {"30m", 1'800}, {"1.5h", 5'400}, {"2d", 172'800}, {"1w", 604'800}};
  for (const auto& [text, seconds] : cases) EXPECT_EQ(periodFromText(text), seconds) << text;
  for (const char* text : {"", "h", "1 h", "1y", "-1h", "0", "1e99", "nan", "inf", "1hh"})
    EXPECT_FALSE(periodFromText(text)) << text;
}

}  // namespace
}  // namespace ostrel
