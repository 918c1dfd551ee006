// The record beside a context file from which an interrupted write is completed. See ContextFile.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ostrel::detail {

/// One write of a file: what it replaces, from `start` on. What lies before, and behind when both contents are equally
/// long, is the same in both and is known by its checksum only: a small change of a large context makes a small record.
struct JournalRecord {
  std::uint64_t newLength = 0;  // of the whole file
  std::uint64_t oldLength = 0;
  std::uint64_t start = 0;
  std::uint64_t unchanged = 0;  // checksum of what is the same
  std::string newBytes;
  std::string oldBytes;
};

/// The record of replacing one content by another.
JournalRecord makeRecord(std::string_view newContent, std::string_view oldContent);

/// The record as bytes: a head ("ostreljn", the numbers above, the lengths of both parts and a checksum
/// over all, in the machine's byte order), the new bytes, the old bytes.
std::string encodeJournal(const JournalRecord& record);

inline constexpr std::size_t journalHeadSize = 64;

/// How many bytes the record that begins with `head` takes; 0 when that is no head. What a longer record has left
/// behind it need not be read.
std::uint64_t encodedSize(std::string_view head);

/// The record at the start of `bytes`, whatever follows it; absent when it is not whole.
std::optional<JournalRecord> decodeJournal(std::string_view bytes);

/// Whether `current` is what an interrupted write from old to new can leave and is neither of them: every byte is the
/// old or the new one at its place (or 0 where the file grew), and the length lies between the two.
bool isInterruptedWrite(std::string_view current, const JournalRecord& record);

}  // namespace ostrel::detail
