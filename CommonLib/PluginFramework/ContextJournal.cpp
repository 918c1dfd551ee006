#include "PluginFramework/Internal/ContextJournal.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>

namespace ostrel::detail {
namespace {

struct Head {
  std::array<char, 8> magic{'o', 's', 't', 'r', 'e', 'l', 'j', 'n'};
  std::uint64_t newLength = 0;
  std::uint64_t oldLength = 0;
  std::uint64_t start = 0;
  std::uint64_t unchanged = 0;
  std::uint64_t newPart = 0;
  std::uint64_t oldPart = 0;
  std::uint64_t checksum = 0;  // of everything but itself
};
static_assert(sizeof(Head) == journalHeadSize);

constexpr std::uint64_t mostBytes = 1ULL << 62;  // more than any file: no sum of two overflows

/// Absent for bytes that are too few, no head, or tell lengths that do not belong together.
std::optional<Head> headOf(std::string_view bytes) {
  Head head;
  const auto magic = head.magic;
  if (bytes.size() < sizeof head) return std::nullopt;
  std::memcpy(&head, bytes.data(), sizeof head);
  const bool fits = head.start <= std::min(head.newLength, head.oldLength) &&
                    head.newPart <= head.newLength - head.start && head.oldPart <= head.oldLength - head.start &&
                    std::max(head.newLength, head.oldLength) <= mostBytes;
  return head.magic == magic && fits ? std::optional(head) : std::nullopt;
}

constexpr std::uint64_t mix(std::uint64_t hash, std::uint64_t word) {
  hash = (hash ^ word) * 0x9E3779B97F4A7C15U;
  return hash ^ (hash >> 29);
}

/// Tells a torn record from a whole one; no defence against an adversary, who could write the file itself. Four lanes,
/// since one would wait for its multiplication at every word.
class Checksum {
 public:
  Checksum& add(std::string_view bytes) {
    lanes_[0] = mix(lanes_[0], bytes.size());
    std::array<std::uint64_t, 4> words{};
    while (!bytes.empty()) {
      words = {};
      const std::size_t size = std::min(bytes.size(), sizeof words);
      std::memcpy(words.data(), bytes.data(), size);
      for (std::size_t i = 0; i < lanes_.size(); ++i) lanes_[i] = mix(lanes_[i], words[i]);
      bytes.remove_prefix(size);
    }
    return *this;
  }
  std::uint64_t sum() const {
    std::uint64_t sum = 1;
    for (const std::uint64_t lane : lanes_) sum = mix(sum, lane);
    return sum;
  }

 private:
  std::array<std::uint64_t, 4> lanes_{0, 1, 2, 3};
};

std::uint64_t checksumOf(Head head, std::string_view parts) {
  head.checksum = 0;
  return Checksum().add({reinterpret_cast<const char*>(&head), sizeof head}).add(parts).sum();
}

/// The checksum of what lies before `start` and from `end` on.
std::uint64_t checksumAround(std::string_view content, std::size_t start, std::size_t end) {
  return Checksum().add(content.substr(0, start)).add(content.substr(end)).sum();
}

}  // namespace

JournalRecord makeRecord(std::string_view newContent, std::string_view oldContent) {
  const auto differ = std::ranges::mismatch(newContent, oldContent);
  const auto start = static_cast<std::size_t>(differ.in1 - newContent.begin());
  std::size_t same = 0;  // at the end
  if (newContent.size() == oldContent.size())
    while (same < newContent.size() - start &&
           newContent[newContent.size() - 1 - same] == oldContent[oldContent.size() - 1 - same])
      ++same;

  JournalRecord record;
  record.newLength = newContent.size();
  record.oldLength = oldContent.size();
  record.start = start;
  record.newBytes = newContent.substr(start, newContent.size() - same - start);
  record.oldBytes = oldContent.substr(start, oldContent.size() - same - start);
  record.unchanged = checksumAround(newContent, start, newContent.size() - same);
  return record;
}

std::string encodeJournal(const JournalRecord& record) {
  Head head;
  head.newLength = record.newLength;
  head.oldLength = record.oldLength;
  head.start = record.start;
  head.unchanged = record.unchanged;
  head.newPart = record.newBytes.size();
  head.oldPart = record.oldBytes.size();
  const std::string parts = record.newBytes + record.oldBytes;
  head.checksum = checksumOf(head, parts);
  return std::string(reinterpret_cast<const char*>(&head), sizeof head) + parts;
}

std::uint64_t encodedSize(std::string_view head) {
  const auto read = headOf(head);
  return read ? sizeof(Head) + read->newPart + read->oldPart : 0;
}

std::optional<JournalRecord> decodeJournal(std::string_view bytes) {
  const auto head = headOf(bytes);
  if (!head || encodedSize(bytes) > bytes.size()) return std::nullopt;
  bytes = bytes.substr(sizeof(Head), head->newPart + head->oldPart);
  if (checksumOf(*head, bytes) != head->checksum) return std::nullopt;
  return JournalRecord{head->newLength,
                       head->oldLength,
                       head->start,
                       head->unchanged,
                       std::string(bytes.substr(0, head->newPart)),
                       std::string(bytes.substr(head->newPart))};
}

bool isInterruptedWrite(std::string_view current, const JournalRecord& record) {
  if (current.size() < std::min(record.newLength, record.oldLength)) return false;
  if (current.size() > std::max(record.newLength, record.oldLength)) return false;
  const bool sameLength = record.newLength == record.oldLength;
  const std::size_t end = sameLength ? record.start + record.newBytes.size() : current.size();
  const std::string_view part = current.substr(record.start, end - record.start);
  const std::string_view newBytes = record.newBytes;
  const std::string_view oldBytes = record.oldBytes;
  if (part == newBytes || part == oldBytes) return false;
  for (std::size_t i = 0; i < part.size(); ++i) {
    const bool isNew = i < newBytes.size() && part[i] == newBytes[i];
    const bool isOld = i < oldBytes.size() ? part[i] == oldBytes[i] : part[i] == '\0';
    if (!isNew && !isOld) return false;
  }
  return checksumAround(current, record.start, end) == record.unchanged;
}

}  // namespace ostrel::detail
