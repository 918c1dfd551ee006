#include "DaemonServices/Internal/LongLine.h"

#include <algorithm>

namespace ostrel::detail {

LongLine::LongLine(std::span<const CaseFoldPattern> patterns, std::uint64_t room)
    : patterns_(patterns), found_(patterns.size(), false), room_(room) {
  for (const CaseFoldPattern& pattern : patterns) overlap_ = std::max(overlap_, pattern.size());
  if (overlap_ > 0) --overlap_;
}

void LongLine::prepend(std::string_view piece) {
  lookFor(piece);
  keep(piece);
}

void LongLine::lookFor(std::string_view piece) {
  std::string joint(piece.substr(piece.size() - std::min(piece.size(), overlap_)));
  joint += start_;
  for (std::size_t i = 0; i < patterns_.size(); ++i) {
    if (!found_[i]) found_[i] = patterns_[i].isIn(piece) || patterns_[i].isIn(joint);
  }
  start_ = piece.size() < overlap_ ? joint.substr(0, overlap_) : std::string(piece.substr(0, overlap_));
}

void LongLine::keep(std::string_view piece) {
  const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(piece.size(), room_));
  if (size == 0) return;
  kept_.emplace_back(piece.substr(piece.size() - size));
  room_ -= size;
}

bool LongLine::holdsEveryPattern() const noexcept { return std::ranges::find(found_, false) == found_.end(); }

std::string LongLine::tail() const {
  std::string text;
  for (auto piece = kept_.rbegin(); piece != kept_.rend(); ++piece) text += *piece;
  return text;
}

}  // namespace ostrel::detail
