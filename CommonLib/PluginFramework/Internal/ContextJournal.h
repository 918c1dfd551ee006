// The record beside a context file from which an interrupted write is completed. See ContextFile.h.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ostrel::detail {

/// One write of a file: its bytes before and after.
struct JournalRecord {
  std::string newBytes;
  std::string oldBytes;
};

/// The record as bytes: a head of 32 bytes ("ostreljn", the two lengths and a checksum over all, in the machine's byte
/// order), the new bytes, the old bytes.
std::string encodeJournal(std::string_view newBytes, std::string_view oldBytes);

/// The record at the start of `bytes`, whatever follows it; absent when it is not whole.
std::optional<JournalRecord> decodeJournal(std::string_view bytes);

/// Whether `current` is what an interrupted write from old to new can leave and is neither of them: every byte is the
/// old or the new one at its place (or 0 where the file grew), and the length lies between the two.
bool isInterruptedWrite(std::string_view current, const JournalRecord& record);

}  // namespace ostrel::detail
