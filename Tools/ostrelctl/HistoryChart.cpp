#include "ostrelctl/HistoryChart.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <ctime>
#include <map>

#include "Containers/Format.h"
#include "ostrelctl/TextForm.h"

namespace ostrel {
namespace {

constexpr std::size_t fewestColumns = 10;  // of a curve
constexpr std::size_t longestName = 60;    // bytes

/// Text of the other side on one line, without controls.
std::string lineOf(const PlistValue& text) {
  if (!text.isString()) return {};
  std::string line = readableText(text);
  std::ranges::replace(line, '\n', ' ');
  while (line.ends_with(' ')) line.pop_back();
  if (line.size() > longestName) {
    std::size_t end = longestName;
    while (end > 0 && (static_cast<unsigned char>(line[end]) & 0xC0U) == 0x80U) --end;  // whole characters
    line.resize(end);
  }
  return line;
}

bool namesKey(std::string_view keys, std::string_view key) {
  while (!keys.empty()) {
    const std::string_view each = keys.substr(0, keys.find(','));
    if (each == key) return true;
    keys.remove_prefix(std::min(keys.size(), each.size() + 1));
  }
  return false;
}

bool isBefore(const HistorySeries::Point& left, const HistorySeries::Point& right) { return left.time < right.time; }

/// "v2" before "v10".
bool comesBefore(const HistorySeries& left, const HistorySeries& right) {
  return std::pair(left.key.size(), left.key) < std::pair(right.key.size(), right.key);
}

// Numbers.

/// How the numbers of one axis are written: divided, and with a prefix before the unit.
struct Scale {
  double divisor = 1;
  std::string unit;
  double low = 0;
  double high = 1;
  int decimals = 0;

  std::string text(double value) const {
    std::array<char, 400> digits{};  // more than the largest double has
    const auto end = std::to_chars(digits.begin(), digits.end(), value / divisor, std::chars_format::fixed, decimals);
    return {digits.data(), end.ptr};
  }
};

void choosePrefix(Scale& scale, const std::string& unit, double largest) {
  const bool isBytes = unit == "B";
  const double base = isBytes ? 1024 : 1000;
  const char* const prefixes[] = {"", "k", "M", "G", "T", "P"};
  std::size_t power = 0;
  // A percentage or a share stays what it is.
  while (unit != "%" && power + 1 < std::size(prefixes) && largest / scale.divisor >= base * (isBytes ? 1 : 10)) {
    scale.divisor *= base;
    ++power;
  }
  scale.unit = prefixes[power];
  if (power > 0 && isBytes) scale.unit = power == 1 ? "Ki" : format("%si", prefixes[power]);
  scale.unit += unit;
}

/// 1, 2 or 5 times a power of ten, not less than `least`.
double roundStep(double least) {
  const double power = std::pow(10.0, std::floor(std::log10(least)));
  for (const double factor : {1.0, 2.0, 5.0})
    if (factor * power >= least * (1 - 1e-9)) return factor * power;
  return 10 * power;
}

Scale scaleFor(const HistorySeries& series) {
  const auto [least, most] = std::ranges::minmax_element(series.points, {}, &HistorySeries::Point::value);
  Scale scale;
  choosePrefix(scale, series.unit, std::max(std::fabs(least->value), std::fabs(most->value)));
  double low = least->value / scale.divisor;
  double high = most->value / scale.divisor;
  if (low >= 0 && low <= high / 2) low = 0;  // a scale from 0 where that costs little
  if (high <= 0 && high >= low / 2) high = 0;
  if (low == high) {  // a constant value: half-way up, or at the foot when it is 0
    high = low == 0 ? 1 : low + std::fabs(low);
    low = low == 0 ? 0 : low - std::fabs(low);
  }
  const double step = roundStep((high - low) / 4);
  scale.low = std::floor(low / step + 1e-9) * step * scale.divisor;
  scale.high = std::ceil(high / step - 1e-9) * step * scale.divisor;
  scale.decimals = std::clamp(static_cast<int>(-std::floor(std::log10(step) + 1e-9)), 0, 6);
  return scale;
}

// Curves.

/// Dots, two columns and four rows to a character.
class Canvas {
 public:
  Canvas(std::size_t columns, std::size_t rows) : columns_(columns), rows_(rows), cells_(columns * rows) {}

  int width() const noexcept { return static_cast<int>(columns_ * 2); }
  int height() const noexcept { return static_cast<int>(rows_ * 4); }

  /// From the lower left corner.
  void dot(int x, int y) {
    if (x < 0 || y < 0 || x >= width() || y >= height()) return;
    const int down = height() - 1 - y;
    constexpr unsigned char bits[4][2] = {{0x01, 0x08}, {0x02, 0x10}, {0x04, 0x20}, {0x40, 0x80}};
    cells_[static_cast<std::size_t>(down / 4) * columns_ + static_cast<std::size_t>(x / 2)] |= bits[down % 4][x % 2];
  }

  /// A line without holes.
  void line(int fromX, int fromY, int toX, int toY) {
    const int steps = std::max({std::abs(toX - fromX), std::abs(toY - fromY), 1});
    for (int i = 0; i <= steps; ++i)
      dot(fromX + (toX - fromX) * i / steps,
          fromY + static_cast<int>(std::lround(static_cast<double>(toY - fromY) * i / steps)));
  }

  std::string row(std::size_t index, bool utf8) const {
    std::string text;
    for (std::size_t i = 0; i < columns_; ++i) {
      const unsigned char dots = cells_[index * columns_ + i];
      if (!utf8 || dots == 0) {
        text += dots == 0 ? ' ' : '*';
      } else {  // U+2800 and the dots
        text += '\xE2';
        text += static_cast<char>(0xA0 | dots >> 6);
        text += static_cast<char>(0x80 | (dots & 0x3F));
      }
    }
    while (text.ends_with(' ')) text.pop_back();
    return text;
  }

 private:
  std::size_t columns_;
  std::size_t rows_;
  std::vector<unsigned char> cells_;
};

/// Samples further apart than this were not taken one after the other.
double longestInterval(const std::vector<HistorySeries::Point>& points) {
  std::vector<double> intervals;
  for (std::size_t i = 1; i < points.size(); ++i) intervals.push_back(points[i].time - points[i - 1].time);
  if (intervals.empty()) return 0;
  const auto middle = intervals.begin() + static_cast<std::ptrdiff_t>(intervals.size() / 2);
  std::ranges::nth_element(intervals, middle);
  return *middle * 2.5;
}

void draw(Canvas& canvas, const HistorySeries& series, const Scale& scale, const ChartFrame& frame) {
  const auto x = [&](double time) {
    return static_cast<int>(std::lround((time - frame.from) / (frame.to - frame.from) * (canvas.width() - 1)));
  };
  const auto y = [&](double value) {
    return static_cast<int>(std::lround((value - scale.low) / (scale.high - scale.low) * (canvas.height() - 1)));
  };
  const double longest = longestInterval(series.points);
  const HistorySeries::Point* last = nullptr;
  for (const HistorySeries::Point& point : series.points) {
    if (point.time < frame.from || point.time > frame.to) continue;
    const bool joined = last != nullptr && point.time - last->time <= longest;
    const HistorySeries::Point& from = joined ? *last : point;
    canvas.line(x(from.time), y(from.value), x(point.time), y(point.value));
    last = &point;
  }
}

std::string clockText(double time, double period) {
  const auto seconds = static_cast<std::time_t>(time);
  std::tm parts{};
  if (localtime_r(&seconds, &parts) == nullptr) return "?";
  std::string text(32, '\0');
  const char* form = period > 2 * 86'400 ? "%m-%d %H:%M" : period > 600 ? "%H:%M" : "%H:%M:%S";
  text.resize(std::strftime(text.data(), text.size(), form, &parts));
  return text;
}

/// The times at the left end, in the middle and at the right end, as far as there is room.
std::string timeAxis(std::size_t columns, const ChartFrame& frame) {
  const double period = frame.to - frame.from;
  std::string axis(columns, ' ');
  std::size_t free = 0;
  const auto put = [&](std::size_t at, const std::string& text) {
    if (at < free || at + text.size() > columns) return;
    axis.replace(at, text.size(), text);
    free = at + text.size() + 1;
  };
  put(0, clockText(frame.from, period));
  const std::string end = clockText(frame.to, period);
  if (columns < end.size()) return axis;
  const std::string middle = clockText(frame.from + period / 2, period);
  if (columns / 2 + middle.size() + 1 < columns - end.size())
    put(columns / 2 - std::min(columns / 2, middle.size() / 2), middle);
  put(columns - end.size(), end);
  return axis;
}

std::string unitInBrackets(const std::string& unit) { return unit.empty() ? std::string() : format(" (%s)", unit); }

std::string headline(const HistorySeries& series, const Scale& scale) {
  const auto [least, most] = std::ranges::minmax_element(series.points, {}, &HistorySeries::Point::value);
  Scale fine = scale;
  fine.decimals = std::min(scale.decimals + 1, 6);
  return format("%s%s: %s now, %s to %s\n", series.name, unitInBrackets(scale.unit),
                fine.text(series.points.back().value), fine.text(least->value), fine.text(most->value));
}

std::string chartOf(const HistorySeries& series, const ChartFrame& frame) {
  if (series.points.empty()) return series.name + ": no samples\n";
  const Scale scale = scaleFor(series);
  std::string chart = headline(series, scale);
  const std::string labels[] = {scale.text(scale.high), scale.text((scale.high + scale.low) / 2),
                                scale.text(scale.low)};
  std::size_t labelWidth = 0;
  for (const std::string& label : labels) labelWidth = std::max(labelWidth, label.size());
  if (frame.width < labelWidth + 3 + fewestColumns || !(frame.to > frame.from) || frame.rows < 3) return chart;

  const std::size_t columns = frame.width - labelWidth - 3;
  Canvas canvas(columns, frame.rows);
  draw(canvas, series, scale, frame);
  const std::string bar = frame.utf8 ? " \u2502" : " |";
  const std::string tick = frame.utf8 ? " \u2524" : " +";
  for (std::size_t row = 0; row < frame.rows; ++row) {
    const std::string label = row == 0                ? labels[0]
                              : row == frame.rows / 2 ? labels[1]
                              : row + 1 == frame.rows ? labels[2]
                                                      : std::string();
    chart += std::string(labelWidth - label.size(), ' ') + label + (label.empty() ? bar : tick) +
             canvas.row(row, frame.utf8) + "\n";
  }
  return chart + std::string(labelWidth + 2, ' ') + timeAxis(columns, frame) + "\n";
}

}  // namespace

std::vector<HistorySeries> seriesFrom(const PlistValue& answer, std::string_view keys) {
  const PlistValue samples = answer.get("samples");
  const PlistValue descriptions = answer.get("values");
  std::map<std::string, std::vector<HistorySeries::Point>, std::less<>> points;
  for (const PlistValue& sample : samples.elements()) {
    if (!sample.get("t").isNumber()) continue;
    const double time = sample.get("t").doubleValue();
    for (const PlistEntry& entry : sample.entries()) {
      const bool wanted = keys.empty() || namesKey(keys, entry.keyText());
      if (entry.keyText() == "t" || !wanted || !entry.value.isNumber()) continue;
      points[std::string(entry.keyText())].push_back({time, entry.value.doubleValue()});
    }
  }
  std::vector<HistorySeries> series;
  for (auto& [key, found] : points) {
    HistorySeries each{lineOf(key), lineOf(key), {}, std::move(found)};
    std::ranges::stable_sort(each.points, isBefore);
    double scale = 1;
    for (const PlistValue& description : descriptions.elements()) {
      if (description.get("key").stringValue() != key) continue;
      if (const std::string name = lineOf(description.get("name")); !name.empty()) each.name = name;
      each.unit = lineOf(description.get("unit"));
      if (description.get("scale").isNumber()) scale = description.get("scale").doubleValue();
    }
    for (HistorySeries::Point& point : each.points) point.value *= scale;
    std::erase_if(each.points, [](const HistorySeries::Point& point) {
      return !std::isfinite(point.value) || !(std::fabs(point.time) < 1e11);
    });
    series.push_back(std::move(each));
  }
  std::ranges::sort(series, comesBefore);
  return series;
}

ChartFrame frameFor(const std::vector<HistorySeries>& series, double period, double now) {
  double newest = -1e12;
  for (const HistorySeries& each : series)
    if (!each.points.empty()) newest = std::max(newest, each.points.back().time);
  ChartFrame frame;
  frame.to = newest > now || newest < now - period ? newest : now;
  frame.from = frame.to - period;
  return frame;
}

std::string historyCharts(const std::vector<HistorySeries>& series, const ChartFrame& frame) {
  std::string text;
  for (const HistorySeries& each : series) {
    if (!text.empty()) text += '\n';
    text += chartOf(each, frame);
  }
  return text;
}

std::string historyTable(const std::vector<HistorySeries>& series) {
  std::string text;
  std::map<double, std::vector<std::string>> lines;
  for (std::size_t i = 0; i < series.size(); ++i) {
    const HistorySeries& each = series[i];
    text += format("# %s: %s%s\n", each.key, each.name, unitInBrackets(each.unit));
    for (const HistorySeries::Point& point : each.points) {
      std::vector<std::string>& line = lines[point.time];
      line.resize(series.size(), "-");
      line[i] = format("%.10g", point.value);
    }
  }
  text += "time";
  for (const HistorySeries& each : series) text += format("\t%s", each.key);
  for (const auto& [time, cells] : lines) {
    text += format("\n%s", dateText(PlistDate{time}));
    for (const std::string& cell : cells) text += format("\t%s", cell);
  }
  return text + "\n";
}

}  // namespace ostrel
