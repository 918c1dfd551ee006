#include "ConfigFiles/UnifiedDiff.h"

#include <algorithm>
#include <vector>

#include "ConfigFiles/Internal/LineComparison.h"
#include "Containers/Format.h"

namespace ostrel {
namespace {

using detail::LineChange;
using Lines = std::vector<std::string_view>;

// A name as GNU diff and patch spell it.
std::string headerName(const std::string& name) {
  const auto isPlain = [](char c) {
    return static_cast<unsigned char>(c) >= ' ' && c != 0x7f && c != '"' && c != '\\';
  };
  if (std::ranges::all_of(name, isPlain)) return name.find(' ') == std::string::npos ? name : name + '\t';
  std::string quoted = "\"";
  for (const char c : name) {
    if (isPlain(c))
      quoted += c;
    else if (c == '"' || c == '\\')
      quoted += {'\\', c};
    else
      quoted += format("\\%03o", static_cast<unsigned>(static_cast<unsigned char>(c)));
  }
  return quoted + '"';
}

// "LINE,COUNT" of a hunk's head; an empty range is told by the line before it.
std::string range(std::size_t begin, std::size_t end) {
  const std::size_t count = end - begin;
  if (count == 1) return format("%zu", begin + 1);
  return format("%zu,%zu", count == 0 ? begin : begin + 1, count);
}

void appendLines(std::string& out, char mark, const Lines& lines, std::size_t begin, std::size_t end) {
  for (std::size_t i = begin; i < end; ++i) {
    out += mark;
    out += lines[i];
    if (!lines[i].ends_with('\n')) out += "\n\\ No newline at end of file\n";
  }
}

// The changes [first, last), which lie near enough to share one hunk.
void appendHunk(std::string& out, const Lines& oldLines, const Lines& newLines, const LineChange* first,
                const LineChange* last, std::size_t context) {
  const std::size_t before = std::min(context, first->oldBegin);
  const std::size_t after = std::min(context, oldLines.size() - last[-1].oldEnd);
  std::size_t at = first->oldBegin - before;
  out += "@@ -" + range(at, last[-1].oldEnd + after) + " +" + range(first->newBegin - before, last[-1].newEnd + after) +
         " @@\n";
  for (const LineChange* change = first; change != last; ++change) {
    appendLines(out, ' ', oldLines, at, change->oldBegin);
    appendLines(out, '-', oldLines, change->oldBegin, change->oldEnd);
    appendLines(out, '+', newLines, change->newBegin, change->newEnd);
    at = change->oldEnd;
  }
  appendLines(out, ' ', oldLines, at, at + after);
}

}  // namespace

std::string unifiedDiff(std::string_view oldText, std::string_view newText, const UnifiedDiffNames& names,
                        std::size_t context) {
  if (oldText == newText) return {};
  context = std::min(context, oldText.size());  // more lines than there are; keeps the sums below from wrapping
  const Lines oldLines = detail::splitLines(oldText);
  const Lines newLines = detail::splitLines(newText);
  const std::vector<LineChange> changes = detail::compareLines(oldLines, newLines);

  std::string out = "--- " + headerName(names.oldName) + "\n+++ " + headerName(names.newName) + "\n";
  const LineChange* const end = changes.data() + changes.size();
  for (const LineChange* first = changes.data(); first != end;) {
    const LineChange* last = first + 1;
    while (last != end && last->oldBegin - last[-1].oldEnd <= 2 * context) ++last;
    appendHunk(out, oldLines, newLines, first, last, context);
    first = last;
  }
  return out;
}

}  // namespace ostrel
