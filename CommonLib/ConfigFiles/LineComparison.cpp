#include "ConfigFiles/Internal/LineComparison.h"

#include <algorithm>
#include <limits>
#include <unordered_map>

namespace ostrel::detail {
namespace {

using Position = std::ptrdiff_t;

// Myers, "An O(ND) Difference Algorithm and Its Variations" (1986), section 4b: from both ends of a rectangle of the
// edit graph, the paths that reach furthest are followed until they meet; the meeting point splits the rectangle.
class Comparison {
 public:
  Comparison(std::vector<Position> oldIds, std::vector<Position> newIds)
      : a_(std::move(oldIds)), b_(std::move(newIds)), removed_(a_.size()), added_(b_.size()) {
    const std::size_t diagonals = a_.size() + b_.size() + 3;
    forward_.resize(diagonals);
    backward_.resize(diagonals);
    origin_ = static_cast<Position>(b_.size()) + 1;
    while (limit_ * limit_ < static_cast<Position>(diagonals)) ++limit_;
  }

  std::vector<LineChange> changes() {
    std::vector<Rectangle> open{{0, size(a_), 0, size(b_)}};
    while (!open.empty()) {
      const Rectangle part = trimmed(open.back());
      open.pop_back();
      if (part.aLow == part.aHigh || part.bLow == part.bHigh) {
        markAll(part);
        continue;
      }
      const Point at = split(part);
      const bool isCorner = (at.x == part.aLow && at.y == part.bLow) || (at.x == part.aHigh && at.y == part.bHigh);
      if (isCorner) {
        markAll(part);
        continue;
      }
      open.push_back({at.x, part.aHigh, at.y, part.bHigh});
      open.push_back({part.aLow, at.x, part.bLow, at.y});
    }
    return runs();
  }

 private:
  struct Rectangle {
    Position aLow, aHigh, bLow, bHigh;
  };
  struct Point {
    Position x, y;
  };

  static Position size(const std::vector<Position>& ids) { return static_cast<Position>(ids.size()); }
  Position a(Position x) const { return a_[static_cast<std::size_t>(x)]; }
  Position b(Position y) const { return b_[static_cast<std::size_t>(y)]; }
  Position& forward(Position diagonal) { return forward_[static_cast<std::size_t>(diagonal + origin_)]; }
  Position& backward(Position diagonal) { return backward_[static_cast<std::size_t>(diagonal + origin_)]; }

  Rectangle trimmed(Rectangle part) const {
    while (part.aLow < part.aHigh && part.bLow < part.bHigh && a(part.aLow) == b(part.bLow)) ++part.aLow, ++part.bLow;
    while (part.aLow < part.aHigh && part.bLow < part.bHigh && a(part.aHigh - 1) == b(part.bHigh - 1))
      --part.aHigh, --part.bHigh;
    return part;
  }

  void markAll(const Rectangle& part) {
    std::fill(removed_.begin() + part.aLow, removed_.begin() + part.aHigh, true);
    std::fill(added_.begin() + part.bLow, added_.begin() + part.bHigh, true);
  }

  Point split(const Rectangle& part) {
    const Position lowest = part.aLow - part.bHigh;
    const Position highest = part.aHigh - part.bLow;
    const Position start = part.aLow - part.bLow;
    const Position end = part.aHigh - part.bHigh;
    const bool odd = ((start - end) & 1) != 0;
    Band ahead{start, start};
    Band behind{end, end};
    forward(start) = part.aLow;
    backward(end) = part.aHigh;
    for (Position cost = 1;; ++cost) {
      widen(ahead, lowest, highest, [this](Position d) { forward(d) = -1; });
      for (Position d = ahead.high; d >= ahead.low; d -= 2) {
        Position x = std::max(forward(d - 1) + 1, forward(d + 1));
        while (x < part.aHigh && x - d < part.bHigh && a(x) == b(x - d)) ++x;
        forward(d) = x;
        if (odd && behind.low <= d && d <= behind.high && backward(d) <= x) return {x, x - d};
      }
      widen(behind, lowest, highest, [this](Position d) { backward(d) = std::numeric_limits<Position>::max(); });
      for (Position d = behind.high; d >= behind.low; d -= 2) {
        Position x = std::min(backward(d - 1), backward(d + 1) - 1);
        while (x > part.aLow && x - d > part.bLow && a(x - 1) == b(x - d - 1)) --x;
        backward(d) = x;
        if (!odd && ahead.low <= d && d <= ahead.high && x <= forward(d)) return {x, x - d};
      }
      if (cost >= limit_) return furthest(part, ahead, behind);
    }
  }

  struct Band {
    Position low, high;  // diagonals
  };

  // One more diagonal on either side where the rectangle has one; `clear` is put beside it.
  template <class Clear>
  static void widen(Band& band, Position lowest, Position highest, Clear clear) {
    if (band.low > lowest)
      clear(--band.low - 1);
    else
      ++band.low;
    if (band.high < highest)
      clear(++band.high + 1);
    else
      --band.high;
  }

  // The search has cost enough: the point that lies furthest from its corner is a good place to split, too.
  Point furthest(const Rectangle& part, const Band& ahead, const Band& behind) {
    Point best{part.aLow, part.bLow};
    for (Position d = ahead.high; d >= ahead.low; d -= 2) {
      const Position x = std::min({forward(d), part.aHigh, part.bHigh + d});
      if (x + x - d > best.x + best.y) best = {x, x - d};
    }
    Point last{part.aHigh, part.bHigh};
    for (Position d = behind.high; d >= behind.low; d -= 2) {
      const Position x = std::max({backward(d), part.aLow, part.bLow + d});
      if (x + x - d < last.x + last.y) last = {x, x - d};
    }
    const Position gained = best.x + best.y - part.aLow - part.bLow;
    return gained > part.aHigh + part.bHigh - last.x - last.y ? best : last;
  }

  std::vector<LineChange> runs() const {
    std::vector<LineChange> found;
    std::size_t x = 0;
    std::size_t y = 0;
    while (x < removed_.size() || y < added_.size()) {
      const std::size_t oldBegin = x;
      const std::size_t newBegin = y;
      while (x < removed_.size() && removed_[x]) ++x;
      while (y < added_.size() && added_[y]) ++y;
      if (x == oldBegin && y == newBegin)
        ++x, ++y;
      else
        found.push_back({oldBegin, x, newBegin, y});
    }
    return found;
  }

  const std::vector<Position> a_, b_;  // the lines, equal ones having equal numbers
  std::vector<bool> removed_, added_;
  std::vector<Position> forward_, backward_;  // by diagonal x - y: the furthest x reached
  Position origin_ = 0;
  Position limit_ = 256;
};

}  // namespace

std::vector<std::string_view> splitLines(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size() - 1) + 1;
    lines.push_back(text.substr(0, end));
    text.remove_prefix(end);
  }
  return lines;
}

std::vector<LineChange> compareLines(const std::vector<std::string_view>& oldLines,
                                     const std::vector<std::string_view>& newLines) {
  std::unordered_map<std::string_view, Position> numbers;
  const auto numbered = [&numbers](const std::vector<std::string_view>& lines) {
    std::vector<Position> ids;
    ids.reserve(lines.size());
    for (const std::string_view line : lines)
      ids.push_back(numbers.try_emplace(line, static_cast<Position>(numbers.size())).first->second);
    return ids;
  };
  auto oldIds = numbered(oldLines);
  return Comparison(std::move(oldIds), numbered(newLines)).changes();
}

}  // namespace ostrel::detail
