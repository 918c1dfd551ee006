// The write-ahead log beside a context file. What it is for: see ContextFile.h.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "PluginFramework/Internal/ContextDelta.h"

namespace ostrel::detail {

// The journal of one epoch, numbers in the machine's byte order:
//
//   offset 0     the head, written once
//   offset 512   the status, rewritten after each write of the file
//   offset 1024  the base: the whole file as it was when the epoch began
//   then         the records, one for each write since
//
// Head and status have a sector each, so that a torn status spoils nothing. Checksums tell torn bytes from whole ones;
// they are no defence against an adversary, who could write the file itself.

inline constexpr std::size_t journalStatusAt = 512;
inline constexpr std::size_t journalBaseAt = 1024;

struct JournalHead {
  std::array<char, 8> magic{'o', 's', 't', 'r', 'e', 'l', 'h', '2'};
  std::uint64_t boot = 0;  ///< the run of the machine (see `bootMark`)
  std::uint64_t baseLength = 0;
  std::int64_t baseModified = 0;  ///< the file's time of modification then, in nanoseconds
  std::uint64_t baseChecksum = 0;
  std::uint64_t checksum = 0;  ///< of the head; names the epoch
};

struct JournalStatus {
  std::array<char, 8> magic{'o', 's', 't', 'r', 'e', 'l', 'j', 's'};
  std::uint64_t epoch = 0;
  std::uint64_t boot = 0;
  std::uint64_t logEnd = 0;  ///< the records before it are in the file, whole
  std::uint64_t inode = 0;   ///< the file as that write left it
  std::uint64_t fileSize = 0;
  std::int64_t fileModified = 0;
  std::uint64_t restoring = 0;  ///< 1: the file is being overwritten with the last state that the records tell
  std::uint64_t checksum = 0;
};

/// A write whose time is further from the one before it is always synced, so that the journal on the disk tells it; so
/// is one of an earlier time.
inline constexpr std::int64_t longestUnsyncedGap = 90'000'000'000;  // nanoseconds

/// Stands for this run of the machine; 0 when the kernel does not name it.
std::uint64_t bootMark();

JournalHead makeHead(std::string_view base, std::int64_t modified);
/// The block of `journalBaseAt` bytes before the base.
std::string encodeStart(const JournalHead& head, const JournalStatus& status);
std::string encodeStatus(JournalStatus status);
/// Absent when there is none or it is not whole.
std::optional<JournalStatus> readStatus(int journal);

/// Where in a journal, and at which times of the file, a record stands.
struct RecordPlace {
  std::uint64_t epoch = 0;
  std::uint64_t position = 0;
  std::int64_t modifiedBefore = 0;  ///< the file's time of modification before the write, in nanoseconds
  std::int64_t modifiedAfter = 0;   ///< the one that the write gives it
};

/// One write: what it replaced by what.
struct JournalRecord {
  struct Change {
    std::uint64_t offset = 0;
    std::string oldBytes, newBytes;
  };
  RecordPlace place;
  std::uint64_t oldLength = 0;  ///< of the file
  std::uint64_t newLength = 0;
  std::vector<Change> changes;
  std::uint64_t end = 0;  ///< where the next record begins
};

/// The record of writing `archive` over `old`.
std::string encodeRecord(const Delta& delta, std::string_view old, const PlistPieces& archive,
                         const RecordPlace& place);

/// Steps through the contents that a journal tells, from its base on.
class JournalReplay {
 public:
  /// Absent when head or base are not whole.
  static std::optional<JournalReplay> begin(int journal);

  const JournalHead& head() const noexcept { return head_; }
  /// The file's content after the records so far.
  const std::string& content() const noexcept { return content_; }
  std::uint64_t position() const noexcept { return position_; }

  /// The next record; absent at the end of the log, which is also where a record is torn or does not fit the content.
  std::optional<JournalRecord> next() const;
  /// Takes over what `next` told.
  void apply(const JournalRecord& record);

 private:
  JournalReplay(int journal, std::uint64_t size, const JournalHead& head, std::string base)
      : journal_(journal),
        size_(size),
        head_(head),
        content_(std::move(base)),
        position_(journalBaseAt + content_.size()) {}

  int journal_;
  std::uint64_t size_;
  JournalHead head_;
  std::string content_;
  std::uint64_t position_;
};

/// Whether `current` is what an interrupted overwriting of `before` with `after` can leave and is neither of them:
/// every byte is that of one of them (or 0 where the file grew), and the length lies between the two.
bool isMixture(std::string_view current, std::string_view before, std::string_view after);

}  // namespace ostrel::detail
