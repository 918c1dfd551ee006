// The backward search of log files: lines that hold every filter word, found from the end of the file, and its steps.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "Containers/Export.h"

namespace ostrel {

// Letter case is ignored by the lower-case mapping of the locale that the process has when the first search begins,
// byte by byte. Everything here may be called from any thread; one collector or buffer by one thread at a time.

/// A block of uninitialised bytes.
struct ByteBuffer {
  char* bytes;
  std::size_t capacity;
};

/// A buffer of `capacity` bytes, or nullptr when there is no memory for it. It belongs to the caller, who ends it with
/// `deleteBuffer` (nullptr is harmless there).
OSTREL_EXPORT ByteBuffer* newBuffer(std::size_t capacity) noexcept;
OSTREL_EXPORT void deleteBuffer(ByteBuffer* buffer) noexcept;

/// Ends a buffer that a std::unique_ptr holds.
struct ByteBufferDeleter {
  void operator()(ByteBuffer* buffer) const noexcept { deleteBuffer(buffer); }
};
using OwnedByteBuffer = std::unique_ptr<ByteBuffer, ByteBufferDeleter>;

/// Copies of lines, filled from the front: lines found while going backwards come out in file order.
class OSTREL_EXPORT LineCollector {
 public:
  /// Takes at most `byteLimit` bytes in all.
  explicit LineCollector(std::uint64_t byteLimit) noexcept : limit_(byteLimit) {}

  std::uint64_t limit() const noexcept { return limit_; }
  std::uint64_t total() const noexcept { return total_; }
  std::uint64_t room() const noexcept { return limit_ - total_; }
  bool isFull() const noexcept { return total_ >= limit_; }
  /// Everything collected, in file order. Valid until the next line is added.
  std::string_view text() const noexcept;

 private:
  friend OSTREL_EXPORT void addLineToBuffer(LineCollector& collector, const char* start, const char* end);
  void growBy(std::size_t size);

  std::uint64_t limit_;
  std::size_t total_ = 0;
  OwnedByteBuffer lines_;  // the lines stand at its end, one behind the other
};

/// Puts a copy of [start, end) in front of what the collector holds. A line longer than the room loses its beginning;
/// without room nothing happens. Throws std::bad_alloc.
OSTREL_EXPORT void addLineToBuffer(LineCollector& collector, const char* start, const char* end);

/// Collects the line [line, lineEnd) (with its line feed, if it has one) if the collector has room and the line holds
/// every filter. When the text that follows it in the file (up to 254 bytes from `lineEndOffset`, the file offset of
/// the line's end) has a whole first line that holds "last message repeated", that remark is collected behind the line;
/// the remark has the first claim on the room.
OSTREL_EXPORT void checkMatch(const char* line, const char* lineEnd, const std::string_view* filters,
                              std::size_t filterCount, LineCollector& collector, int fileDescriptor,
                              std::uint64_t lineEndOffset);

/// The first place in `text` that holds `words` in any letter case, or nullptr. Empty words are found at the start.
OSTREL_EXPORT const char* strcasestr_internal(std::string_view text, std::string_view words);

/// Collects, from the end of the file at `path` backwards, the lines that hold every one of the `filterCount` strings
/// at `filters`, and returns them in file order as a NUL-terminated text that the caller releases with free(3).
///
/// The search reads chunks of 32,768 bytes and ends at `lowerBound` (a byte offset, below which nothing is read; the
/// line that it cuts is searched from there on), when `byteLimit` bytes are collected (the earliest line is cut at its
/// beginning to fit), or at the end of the first chunk after `timeLimitSeconds`, when the line that is incomplete
/// then is searched as far as it was read. No filter at all matches every line. `fileSize` receives the file's size at
/// the opening; later appended bytes are not searched. A file that shrinks meanwhile ends the search with what was
/// found. Memory: below 1 MB and the collected bytes, whatever the length of a line (for a line longer than that, its
/// last bytes up to the room that is left).
///
/// nullptr when the file cannot be opened or is no regular file, or when memory ran out.
OSTREL_EXPORT char* rgrep(const std::string& path, const std::string_view* filters, std::size_t filterCount,
                          std::uint64_t byteLimit, std::uint64_t lowerBound, unsigned timeLimitSeconds,
                          std::uint64_t& fileSize);

}  // namespace ostrel
