#include "DaemonServices/BackwardSearch.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <new>
#include <utility>
#include <vector>

#include "DaemonServices/Internal/CaseFoldSearch.h"
#include "DaemonServices/Internal/SearchSteps.h"
#include "Platform/RegularFile.h"

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

namespace {
constexpr std::size_t usualLimit = 65'536;
}

std::string_view LineCollector::text() const noexcept {
  if (total_ == 0) return {};
  return {lines_->bytes + lines_->capacity - total_, total_};
}

/// Makes the front free for `size` more bytes.
void LineCollector::growBy(std::size_t size) {
  const std::size_t capacity = lines_ ? lines_->capacity : 0;
  if (capacity - total_ >= size) return;
  // A limit of usual size is had at once; beyond it the capacity doubles.
  const auto first = static_cast<std::size_t>(std::min<std::uint64_t>(limit_, usualLimit));
  OwnedByteBuffer larger(newBuffer(std::max({first, 2 * capacity + 1, total_ + size})));
  if (!larger) throw std::bad_alloc();
  const std::string_view held = text();
  std::ranges::copy(held, larger->bytes + larger->capacity - held.size());
  lines_ = std::move(larger);
}

void addLineToBuffer(LineCollector& collector, const char* start, const char* end) {
  if (collector.room() == 0) return;
  auto size = static_cast<std::size_t>(end - start);
  if (size > collector.room()) size = static_cast<std::size_t>(collector.room());
  collector.growBy(size);
  collector.total_ += size;
  std::copy_n(end - size, size, collector.lines_->bytes + collector.lines_->capacity - collector.total_);
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
  const FileDescriptor file = openRegularFile(path);
  const auto status = descriptorStatus(file.get());
  if (!status) return nullptr;
  fileSize = status->size;
  const LineCollector found = detail::searchBackward(
      file.get(), fileSize, {{filters, filterCount}, byteLimit, lowerBound, std::chrono::seconds(timeLimitSeconds)});
  const std::string_view text = found.text();
  auto* copy = static_cast<char*>(std::malloc(text.size() + 1));
  if (copy != nullptr) *std::ranges::copy(text, copy).out = '\0';
  return copy;
} catch (const std::bad_alloc&) {
  return nullptr;
}

}  // namespace ostrel
