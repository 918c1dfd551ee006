#include "DaemonServices/Internal/SearchSteps.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "DaemonServices/Internal/LongLine.h"
#include "Platform/Clock.h"
#include "Platform/FileDescriptor.h"

namespace ostrel::detail {
namespace {

/// The search goes in steps of this size: the clock is read after each.
constexpr std::size_t chunkSize = 32'768;
/// Reads are one chunk each, so that a search that finds enough near the end of the file reads no more and touches
/// little memory; one that goes on beyond this many makes fewer and larger ones.
constexpr std::size_t smallReads = 32;
constexpr std::size_t largestRead = 16 * chunkSize;
/// A line longer than this is gathered as a LongLine.
constexpr std::size_t longestHeldLine = 8 * chunkSize;
constexpr std::size_t capacity = largestRead + longestHeldLine + remarkReach;

OwnedByteBuffer makeBuffer() {
  OwnedByteBuffer buffer(newBuffer(capacity));
  if (!buffer) throw std::bad_alloc();
  return buffer;
}

/// The position of the last line feed in the first `size` bytes of `text`.
std::size_t lineFeedBefore(std::string_view text, std::size_t size) {
  const auto* found = static_cast<const char*>(memrchr(text.data(), '\n', size));
  return found == nullptr ? std::string_view::npos : static_cast<std::size_t>(found - text.data());
}

/// One search. In the buffer stand, from left to right: bytes that were read and not searched yet, the carry (the
/// first line of what was searched, whose beginning is not known yet), and the text that follows the carry in the file.
/// The next chunk is the bytes directly before the carry, so a line that spans chunks is neither copied together nor
/// scanned twice.
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

  LineCollector run() {
    bool inTime = true;
    while (position_ > lowerBound_ && !collector_.isFull() && inTime) {
      if (!takeChunk()) break;
      if (longLine_) {
        searchChunkBeforeLongLine();
      } else {
        searchBuffer();
      }
      inTime = Clock::current().monotonic() < deadline_;
    }
    finishCarry();
    return std::move(collector_);
  }

 private:
  char* at(std::size_t index) const { return buffer_->bytes + index; }
  std::string_view slice(std::size_t from, std::size_t to) const { return {at(from), to - from}; }
  std::string_view following(std::size_t lineEnd) const {
    return slice(lineEnd, std::min(lineEnd + remarkReach, followingEnd_));
  }

  /// Makes the next chunk the bytes before the carry. False when they cannot be read (the file shrank).
  bool takeChunk() {
    if (carryBegin_ == readBegin_ && !readMore()) return false;
    const std::size_t size = std::min(chunkSize, carryBegin_ - readBegin_);
    chunkBegin_ = carryBegin_ - size;
    position_ -= size;
    return true;
  }

  bool readMore() {
    moveCarryToTheEnd();
    const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(nextRead_, position_ - lowerBound_));
    if (++reads_ >= smallReads) nextRead_ = largestRead;
    readBegin_ = carryBegin_ - size;
    return readAt(file_, at(readBegin_), size, position_ - size) == static_cast<ssize_t>(size);
  }

  void moveCarryToTheEnd() {
    const std::size_t carry = carryEnd_ - carryBegin_;
    const std::size_t followingSize = followingEnd_ - carryEnd_;
    const std::size_t from = std::exchange(carryBegin_, capacity - remarkReach - carry);
    carryEnd_ = carryBegin_ + carry;
    followingEnd_ = carryEnd_ + followingSize;
    std::memmove(at(carryBegin_), at(from), carry + followingSize);
  }

  void searchChunkBeforeLongLine() {
    const std::string_view chunk = slice(chunkBegin_, carryBegin_);
    const std::size_t lineFeed = lineFeedBefore(chunk, chunk.size());
    if (lineFeed == std::string_view::npos) {
      longLine_->prepend(chunk);
      setCarry(chunkBegin_, chunkBegin_, chunkBegin_);
      return;
    }
    const std::size_t lineBegin = chunkBegin_ + lineFeed + 1;
    longLine_->prepend(slice(lineBegin, carryBegin_));
    finishLongLine();
    // What stands before the long line goes on as usual. It is followed by the long line, which is no remark: its
    // line feed is out of reach.
    setCarry(lineBegin, lineBegin, carryBegin_);
    searchBuffer();
  }

  /// Tests the lines that begin in the chunk, then makes the buffer's first line the carry.
  void searchBuffer() {
    const std::string_view text = slice(chunkBegin_, carryEnd_);
    const std::size_t chunk = carryBegin_ - chunkBegin_;
    const CaseFoldPattern& wanted = patterns_.front();
    // A hit in the carry is one as good as all others: they share their line, which begins in the chunk or before it.
    bool isExact = !carryHasHit_;
    std::size_t hit = carryHasHit_ ? chunk : wanted.findLast(text, chunk);
    while (hit != CaseFoldPattern::npos && !collector_.isFull()) {
      const std::size_t lineFeed = lineFeedBefore(text, hit);
      if (lineFeed == std::string_view::npos) break;
      const std::size_t lineEnd = std::min(text.find('\n', hit), text.size() - 1) + 1;
      const bool holdsWanted = isExact && hit + wanted.size() <= lineEnd;
      collectIfMatching(text.substr(lineFeed + 1, lineEnd - lineFeed - 1),
                        std::span(patterns_).subspan(holdsWanted ? 1 : 0), following(chunkBegin_ + lineEnd),
                        collector_);
      hit = wanted.findLast(text, lineFeed + 1);
      isExact = true;
    }
    carryHasHit_ = hit != CaseFoldPattern::npos;
    keepFirstLine(text.find('\n'));
  }

  void keepFirstLine(std::size_t lineFeed) {
    const std::size_t end = lineFeed == std::string_view::npos ? carryEnd_ : chunkBegin_ + lineFeed + 1;
    setCarry(chunkBegin_, end, std::min(end + remarkReach, followingEnd_));
    if (carryEnd_ - carryBegin_ > longestHeldLine) beginLongLine();
  }

  void setCarry(std::size_t begin, std::size_t end, std::size_t followingEnd) {
    carryBegin_ = begin;
    carryEnd_ = end;
    followingEnd_ = followingEnd;
  }

  void beginLongLine() {
    longLine_.emplace(patterns_, collector_.room());
    longLine_->prepend(slice(carryBegin_, carryEnd_));
    longLineFollowing_ = following(carryEnd_);
    setCarry(carryBegin_, carryBegin_, carryBegin_);
    carryHasHit_ = false;
  }

  void finishLongLine() {
    if (longLine_->holdsEveryPattern()) collectWithRemark(longLine_->tail(), longLineFollowing_, collector_);
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
  std::uint64_t position_;  // where in the file the chunk begins

  const OwnedByteBuffer buffer_ = makeBuffer();
  std::size_t reads_ = 0;
  std::size_t nextRead_ = chunkSize;
  // Places in the buffer.
  std::size_t carryBegin_ = capacity - remarkReach;
  std::size_t carryEnd_ = carryBegin_;
  std::size_t followingEnd_ = carryEnd_;
  std::size_t readBegin_ = carryBegin_;
  std::size_t chunkBegin_ = carryBegin_;
  bool carryHasHit_ = false;  // the first pattern begins within the carry
  std::optional<LongLine> longLine_;
  std::string longLineFollowing_;
};

}  // namespace

LineCollector searchBackward(int fileDescriptor, std::uint64_t fileSize, const SearchRequest& request) {
  return Search(fileDescriptor, fileSize, request).run();
}

}  // namespace ostrel::detail
