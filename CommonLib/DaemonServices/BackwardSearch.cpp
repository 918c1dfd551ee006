#include "DaemonServices/BackwardSearch.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <new>

#include "DaemonServices/Internal/CaseFoldSearch.h"
#include "DaemonServices/Internal/RegularFile.h"
#include "DaemonServices/Internal/SearchSteps.h"

namespace ostrel {
namespace detail {

void collectWithRemark(std::string_view line, std::string_view following, LineCollector& collector) {
  static const CaseFoldPattern repeated("last message repeated");
  const std::size_t lineFeed = following.find('\n');
  if (lineFeed != std::string_view::npos) {
    const std::string_view remark = following.substr(0, lineFeed + 1);
    // Entries are added to the front, so what comes second in the file is added first.
    if (repeated.isIn(remark)) addLineToBuffer(collector, remark.data(), remark.data() + remark.size());
  }
  addLineToBuffer(collector, line.data(), line.data() + line.size());
}

bool holdsEvery(std::string_view line, std::span<const CaseFoldPattern> patterns) noexcept {
  return std::ranges::all_of(patterns, [line](const CaseFoldPattern& pattern) { return pattern.isIn(line); });
}

void collectIfMatching(std::string_view line, std::span<const CaseFoldPattern> patterns, std::string_view following,
                       LineCollector& collector) {
  if (!collector.isFull() && holdsEvery(line, patterns)) collectWithRemark(line, following, collector);
}

}  // namespace detail

std::string LineCollector::text() const {
  std::string text;
  text.reserve(total_);
  for (std::size_t i = first_; i < lines_.size(); ++i) text += lines_[i];
  return text;
}

void addLineToBuffer(LineCollector& collector, const char* start, const char* end) {
  const std::uint64_t room = collector.room();
  if (room == 0 || start == end) return;
  if (static_cast<std::uint64_t>(end - start) > room) start = end - room;
  if (collector.first_ == 0) {
    const std::size_t held = collector.lines_.size();
    std::vector<std::string> larger(2 * held + 1);
    collector.first_ = larger.size() - held;
    std::ranges::move(collector.lines_, larger.begin() + static_cast<std::ptrdiff_t>(collector.first_));
    collector.lines_ = std::move(larger);
  }
  collector.lines_[--collector.first_].assign(start, end);
  collector.total_ += static_cast<std::uint64_t>(end - start);
}

void checkMatch(const char* line, const char* lineEnd, const std::string_view* filters, std::size_t filterCount,
                LineCollector& collector, int fileDescriptor, std::uint64_t lineEndOffset) {
  const std::vector<detail::CaseFoldPattern> patterns(filters, filters + filterCount);
  if (collector.isFull() || !detail::holdsEvery({line, lineEnd}, patterns)) return;
  std::array<char, detail::remarkReach> following;
  const ssize_t read = readAt(fileDescriptor, following.data(), following.size(), lineEndOffset);
  const auto size = static_cast<std::size_t>(std::max<ssize_t>(read, 0));
  detail::collectWithRemark({line, lineEnd}, {following.data(), size}, collector);
}

ByteBuffer* newBuffer(std::size_t capacity) noexcept {
  auto* bytes = static_cast<char*>(std::malloc(std::max<std::size_t>(capacity, 1)));
  auto* buffer = bytes == nullptr ? nullptr : new (std::nothrow) ByteBuffer{bytes, capacity};
  if (buffer == nullptr) std::free(bytes);
  return buffer;
}

void deleteBuffer(ByteBuffer* buffer) noexcept {
  if (buffer == nullptr) return;
  std::free(buffer->bytes);
  delete buffer;
}

const char* strcasestr_internal(std::string_view text, std::string_view words) {
  const std::size_t found = detail::CaseFoldPattern(words).find(text);
  return found == std::string_view::npos ? nullptr : text.data() + found;
}

char* rgrep(const std::string& path, const std::string_view* filters, std::size_t filterCount, std::uint64_t byteLimit,
            std::uint64_t lowerBound, unsigned timeLimitSeconds, std::uint64_t& fileSize) try {
  const FileDescriptor file = detail::openRegularFile(path);
  const auto status = descriptorStatus(file.get());
  if (!status) return nullptr;
  fileSize = status->size;
  const std::string text = detail::searchBackward(
      file.get(), fileSize, {{filters, filterCount}, byteLimit, lowerBound, std::chrono::seconds(timeLimitSeconds)});
  auto* copy = static_cast<char*>(std::malloc(text.size() + 1));
  if (copy != nullptr) std::memcpy(copy, text.c_str(), text.size() + 1);
  return copy;
} catch (const std::bad_alloc&) {
  return nullptr;
}

}  // namespace ostrel
