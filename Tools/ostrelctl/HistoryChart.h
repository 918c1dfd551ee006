// A module's history as charts of characters and as a table. Pure functions but for the time zone.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "Containers/PlistValue.h"

namespace ostrel {

/// One value over time.
struct HistorySeries {
  struct Point {
    double time = 0;  ///< seconds since 1970
    double value = 0;
  };
  std::string key;
  std::string name;  ///< without controls: it comes from the other side
  std::string unit;
  std::vector<Point> points;  ///< oldest first; what was not measured is left out
};

/// The series of a "getHistory" answer, those of `keys` ("v1,v3") or all. What does not fit the form is passed over. A
/// value that the answer does not describe is called by its key. A stored number times "scale", if the description has
/// one, is in its unit.
std::vector<HistorySeries> seriesFrom(const PlistValue& answer, std::string_view keys);

struct ChartFrame {
  double from = 0;  ///< seconds since 1970
  double to = 0;
  std::size_t width = 80;  ///< columns of the terminal
  std::size_t rows = 8;
  bool utf8 = true;  ///< draw with braille dots, otherwise with asterisks
};

/// The frame that ends now, or at the newest sample when that lies in the future or before the whole period: the other
/// machine's clock need not agree.
ChartFrame frameFor(const std::vector<HistorySeries>& series, double period, double now);

/// A chart for each series: a line with its name, unit and range, the curve beside its scale, and the times below. The
/// curve is broken where samples are missing. Where the terminal is too narrow for a curve, the first line alone.
std::string historyCharts(const std::vector<HistorySeries>& series, const ChartFrame& frame);

/// A line for each time, oldest first, with the values by key and "-" for none; before it what each key means. For
/// programs: times in UTC, numbers with their full value.
std::string historyTable(const std::vector<HistorySeries>& series);

}  // namespace ostrel
