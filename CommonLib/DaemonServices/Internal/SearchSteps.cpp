#include "DaemonServices/Internal/SearchSteps.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <vector>

#include "DaemonServices/Internal/LongLine.h"
#include "Platform/Clock.h"
#include "Platform/FileDescriptor.h"

namespace ostrel::detail {
namespace {

constexpr std::size_t chunkSize = 32'768;
/// A line longer than this is gathered as a LongLine.
constexpr std::size_t longestHeldLine = 8 * chunkSize;
constexpr std::size_t capacity = chunkSize + longestHeldLine + remarkReach;

struct BufferDeleter {
  void operator()(ByteBuffer* buffer) const noexcept { deleteBuffer(buffer); }
};

std::unique_ptr<ByteBuffer, BufferDeleter> makeBuffer() {
  auto* buffer = newBuffer(capacity);
  if (buffer == nullptr) throw std::bad_alloc();
  return std::unique_ptr<ByteBuffer, BufferDeleter>(buffer);
}

/// The position of the last line feed in the first `size` bytes of `text`.
std::size_t lineFeedBefore(std::string_view text, std::size_t size) {
  const auto* found = static_cast<const char*>(memrchr(text.data(), '\n', size));
  return found == nullptr ? std::string_view::npos : static_cast<std::size_t>(found - text.data());
}

/// One search. The buffer holds, at its end, the carry (the first line of the chunks read so far, whose beginning is
/// not known yet) and behind it the text that follows the carry in the file; the next chunk is read directly before
/// the carry. So no byte is moved more than once, nor scanned again because a line spans many chunks.
class Search {
 public:
  Search(int fileDescriptor, std::uint64_t fileSize, const SearchRequest& request)
      : file_(fileDescriptor),
        lowerBound_(request.lowerBound),
        deadline_(Clock::current().monotonic() + request.timeLimit),
        patterns_(request.filters.begin(), request.filters.end()),
        collector_(request.byteLimit),
        position_(fileSize) {
    if (patterns_.empty()) patterns_.emplace_back("");  // no filter: like words that are everywhere
  }

  std::string run() {
    bool inTime = true;
    while (position_ > lowerBound_ && !collector_.isFull() && inTime) {
      if (!readChunk()) break;
      searchChunk();
      inTime = Clock::current().monotonic() < deadline_;
    }
    finishCarry();
    return collector_.text();
  }

 private:
  char* at(std::size_t index) const { return buffer_->bytes + index; }
  std::string_view slice(std::size_t from, std::size_t to) const { return {at(from), to - from}; }
  std::string_view following(std::size_t lineEnd) const {
    return slice(lineEnd, std::min(lineEnd + remarkReach, followingEnd_));
  }

  /// False when the file ends before the chunk does, or cannot be read.
  bool readChunk() {
    const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(chunkSize, position_ - lowerBound_));
    chunkBegin_ = carryBegin_ - size;
    position_ -= size;
    return readAt(file_, at(chunkBegin_), size, position_) == static_cast<ssize_t>(size);
  }

  void searchChunk() {
    if (longLine_) {
      searchChunkBeforeLongLine();
    } else {
      searchBuffer();
    }
  }

  void searchChunkBeforeLongLine() {
    const std::string_view chunk = slice(chunkBegin_, carryBegin_);
    const std::size_t lineFeed = lineFeedBefore(chunk, chunk.size());
    if (lineFeed == std::string_view::npos) {
      longLine_->prepend(chunk);
      return;
    }
    const std::size_t lineBegin = chunkBegin_ + lineFeed + 1;
    longLine_->prepend(slice(lineBegin, carryBegin_));
    finishLongLine();
    // What stands before the long line goes on as usual. It is followed by the long line, which is no remark: its
    // line feed is out of reach.
    followingEnd_ = carryBegin_;
    carryBegin_ = lineBegin;
    carryEnd_ = lineBegin;
    searchBuffer();
  }

  /// Tests the lines that begin in the chunk, then makes the buffer's first line the carry.
  void searchBuffer() {
    const std::string_view text = slice(chunkBegin_, carryEnd_);
    const std::size_t chunk = carryBegin_ - chunkBegin_;
    const CaseFoldPattern& wanted = patterns_.front();
    // A hit in the carry is one as good as all others: they share their line, which begins in the chunk or before it.
    std::size_t hit = carryHasHit_ ? chunk : wanted.findLast(text, chunk);
    while (hit != CaseFoldPattern::npos && !collector_.isFull()) {
      const std::size_t lineFeed = lineFeedBefore(text, hit);
      if (lineFeed == std::string_view::npos) break;
      const std::size_t lineEnd = std::min(text.find('\n', hit), text.size() - 1) + 1;
      collectIfMatching(text.substr(lineFeed + 1, lineEnd - lineFeed - 1), patterns_, following(chunkBegin_ + lineEnd),
                        collector_);
      hit = wanted.findLast(text, lineFeed + 1);
    }
    carryHasHit_ = hit != CaseFoldPattern::npos;
    keepFirstLine(text.find('\n'));
  }

  void keepFirstLine(std::size_t lineFeed) {
    if (lineFeed != std::string_view::npos) {
      const std::size_t end = chunkBegin_ + lineFeed + 1;
      moveCarry(chunkBegin_, end, following(end).size());
    } else {
      carryBegin_ = chunkBegin_;
      if (carryBegin_ < chunkSize) beginLongLine();
    }
  }

  /// Moves the line [begin, end) and so many bytes that follow it to the end of the buffer.
  void moveCarry(std::size_t begin, std::size_t end, std::size_t followingSize) {
    carryEnd_ = capacity - remarkReach;
    carryBegin_ = carryEnd_ - (end - begin);
    followingEnd_ = carryEnd_ + followingSize;
    std::memmove(at(carryBegin_), at(begin), end - begin + followingSize);
  }

  void beginLongLine() {
    longLine_.emplace(patterns_, collector_.room());
    longLine_->prepend(slice(carryBegin_, carryEnd_));
    carryBegin_ = carryEnd_;
    carryHasHit_ = false;
  }

  void finishLongLine() {
    if (longLine_->holdsEveryPattern()) collectWithRemark(longLine_->tail(), following(carryEnd_), collector_);
    longLine_.reset();
  }

  void finishCarry() {
    if (longLine_) {
      finishLongLine();
    } else if (carryBegin_ < carryEnd_) {
      collectIfMatching(slice(carryBegin_, carryEnd_), patterns_, following(carryEnd_), collector_);
    }
  }

  const int file_;
  const std::uint64_t lowerBound_;
  const std::chrono::nanoseconds deadline_;
  std::vector<CaseFoldPattern> patterns_;
  LineCollector collector_;
  std::uint64_t position_;  // where in the file the text that was read begins

  const std::unique_ptr<ByteBuffer, BufferDeleter> buffer_ = makeBuffer();
  std::size_t chunkBegin_ = 0;
  std::size_t carryBegin_ = capacity - remarkReach;
  std::size_t carryEnd_ = carryBegin_;
  std::size_t followingEnd_ = carryEnd_;
  bool carryHasHit_ = false;  // the first pattern begins within the carry
  std::optional<LongLine> longLine_;
};

}  // namespace

std::string searchBackward(int fileDescriptor, std::uint64_t fileSize, const SearchRequest& request) {
  return Search(fileDescriptor, fileSize, request).run();
}

}  // namespace ostrel::detail
