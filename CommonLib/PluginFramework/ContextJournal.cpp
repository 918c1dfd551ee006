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
  std::uint64_t checksum = 0;
};
static_assert(sizeof(Head) == 32);

constexpr std::uint64_t mix(std::uint64_t hash, std::uint64_t word) {
  hash = (hash ^ word) * 0x9E3779B97F4A7C15U;
  return hash ^ (hash >> 29);
}

/// Tells a torn record from a whole one; no defence against an adversary, who could write the file itself. Four lanes,
/// since one would wait for its multiplication at every word.
std::uint64_t checksum(std::uint64_t newLength, std::uint64_t oldLength, std::string_view bytes) {
  std::array<std::uint64_t, 4> lanes{newLength, oldLength, 2, 3};
  std::array<std::uint64_t, 4> words{};
  while (!bytes.empty()) {
    words = {};
    const std::size_t size = std::min(bytes.size(), sizeof words);
    std::memcpy(words.data(), bytes.data(), size);
    for (std::size_t i = 0; i < lanes.size(); ++i) lanes[i] = mix(lanes[i], words[i]);
    bytes.remove_prefix(size);
  }
  std::uint64_t sum = 1;
  for (const std::uint64_t lane : lanes) sum = mix(sum, lane);
  return sum;
}

}  // namespace

std::string encodeJournal(std::string_view newBytes, std::string_view oldBytes) {
  std::string bytes(sizeof(Head), '\0');
  bytes.reserve(sizeof(Head) + newBytes.size() + oldBytes.size());
  bytes += newBytes;
  bytes += oldBytes;
  Head head;
  head.newLength = newBytes.size();
  head.oldLength = oldBytes.size();
  head.checksum = checksum(head.newLength, head.oldLength, std::string_view(bytes).substr(sizeof head));
  std::memcpy(bytes.data(), &head, sizeof head);
  return bytes;
}

std::optional<JournalRecord> decodeJournal(std::string_view bytes) {
  Head head;
  const auto magic = head.magic;
  if (bytes.size() < sizeof head) return std::nullopt;
  std::memcpy(&head, bytes.data(), sizeof head);
  bytes.remove_prefix(sizeof head);
  if (head.magic != magic || head.newLength > bytes.size() || head.oldLength > bytes.size() - head.newLength)
    return std::nullopt;
  bytes = bytes.substr(0, head.newLength + head.oldLength);
  if (checksum(head.newLength, head.oldLength, bytes) != head.checksum) return std::nullopt;
  return JournalRecord{std::string(bytes.substr(0, head.newLength)), std::string(bytes.substr(head.newLength))};
}

bool isInterruptedWrite(std::string_view current, const JournalRecord& record) {
  const std::string_view newBytes = record.newBytes;
  const std::string_view oldBytes = record.oldBytes;
  if (current == newBytes || current == oldBytes) return false;
  if (current.size() < std::min(newBytes.size(), oldBytes.size())) return false;
  if (current.size() > std::max(newBytes.size(), oldBytes.size())) return false;
  for (std::size_t i = 0; i < current.size(); ++i) {
    const bool isNew = i < newBytes.size() && current[i] == newBytes[i];
    const bool isOld = i < oldBytes.size() ? current[i] == oldBytes[i] : current[i] == '\0';
    if (!isNew && !isOld) return false;
  }
  return true;
}

}  // namespace ostrel::detail
