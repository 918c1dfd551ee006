#include "PluginFramework/Internal/ContextJournal.h"

#include <algorithm>
#include <cstring>
#include <type_traits>

#include "Platform/FileDescriptor.h"
#include "Platform/HostBoot.h"

namespace ostrel::detail {
namespace {

struct RecordHead {
  std::array<char, 8> magic{'o', 's', 't', 'r', 'e', 'l', 'r', '2'};
  RecordPlace place;
  std::uint64_t oldLength = 0;
  std::uint64_t newLength = 0;
  std::uint64_t extents = 0;
  std::uint64_t bodySize = 0;  // the extents, then their old bytes, then their new bytes
  std::uint64_t checksum = 0;  // of head and body
};

constexpr std::uint64_t mix(std::uint64_t hash, std::uint64_t word) {
  hash = (hash ^ word) * 0x9E3779B97F4A7C15U;
  return hash ^ (hash >> 29);
}

/// Four lanes, since one would wait for its multiplication at every word.
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

template <class Block>
std::string_view bytesOf(const Block& block) {
  static_assert(std::has_unique_object_representations_v<Block>, "no padding, whose bytes are anything");
  return {reinterpret_cast<const char*>(&block), sizeof block};
}

/// The checksum of a block, its own field counting as 0, and of what follows it.
template <class Block>
std::uint64_t checksumOf(Block block, std::string_view rest = {}) {
  block.checksum = 0;
  return Checksum().add(bytesOf(block)).add(rest).sum();
}

template <class Block>
bool readBlock(int journal, std::uint64_t position, Block& block) {
  const auto magic = block.magic;
  return readAt(journal, &block, sizeof block, position) == sizeof block && block.magic == magic;
}

bool readBytes(int journal, std::uint64_t position, std::uint64_t size, std::string& bytes) {
  bytes.resize(size);
  return readAt(journal, bytes.data(), size, position) == static_cast<ssize_t>(size);
}

/// Takes the body of a record apart. False when its numbers do not belong together.
bool decodeBody(std::string_view body, std::uint64_t extents, JournalRecord& record) {
  if (extents > body.size() / sizeof(Extent)) return false;
  std::string_view bytes = body.substr(extents * sizeof(Extent));
  std::uint64_t least = 0;  // where the next change may begin
  for (std::uint64_t i = 0; i < extents; ++i) {
    Extent extent;
    std::memcpy(&extent, body.data() + i * sizeof extent, sizeof extent);
    if (extent.offset < least || extent.offset > record.oldLength ||
        extent.oldLength > record.oldLength - extent.offset || extent.offset > record.newLength ||
        extent.newLength > record.newLength - extent.offset || extent.oldLength > bytes.size() ||
        extent.newLength > bytes.size() - extent.oldLength)
      return false;
    least = extent.offset + extent.newLength;
    record.changes.push_back({extent.offset, std::string(bytes.substr(0, extent.oldLength)),
                              std::string(bytes.substr(extent.oldLength, extent.newLength))});
    bytes.remove_prefix(extent.oldLength + extent.newLength);
  }
  return bytes.empty();
}

}  // namespace

std::uint64_t bootMark() {
  const std::string& identifier = HostBoot::current().identifier();
  return identifier.empty() ? 0 : Checksum().add(identifier).sum();
}

JournalHead makeHead(std::string_view base, std::int64_t modified) {
  JournalHead head;
  head.boot = bootMark();
  head.baseLength = base.size();
  head.baseModified = modified;
  head.baseChecksum = Checksum().add(base).sum();
  head.checksum = checksumOf(head);
  return head;
}

std::string encodeStart(const JournalHead& head, const JournalStatus& status) {
  std::string start(bytesOf(head));
  start.resize(journalStatusAt);
  start += encodeStatus(status);
  start.resize(journalBaseAt);
  return start;
}

std::string encodeStatus(JournalStatus status) {
  status.checksum = checksumOf(status);
  return std::string(bytesOf(status));
}

std::optional<JournalStatus> readStatus(int journal) {
  JournalStatus status;
  const bool whole = readBlock(journal, journalStatusAt, status) && checksumOf(status) == status.checksum;
  return whole ? std::optional(status) : std::nullopt;
}

std::string encodeRecord(const Delta& delta, std::string_view old, const PlistPieces& archive,
                         const RecordPlace& place) {
  RecordHead head;
  std::size_t size = sizeof head + delta.extents.size() * sizeof(Extent);
  for (const Extent& extent : delta.extents) size += extent.oldLength + extent.newLength;
  std::string record;
  record.reserve(size);
  record.append(sizeof head, '\0');
  for (const Extent& extent : delta.extents) record += bytesOf(extent);
  for (const Extent& extent : delta.extents) {
    record += old.substr(extent.offset, extent.oldLength);
    appendRange(archive, extent.offset, extent.newLength, record);
  }
  head.place = place;
  head.oldLength = delta.oldLength;
  head.newLength = delta.newLength;
  head.extents = delta.extents.size();
  head.bodySize = record.size() - sizeof head;
  head.checksum = checksumOf(head, std::string_view(record).substr(sizeof head));
  std::memcpy(record.data(), &head, sizeof head);
  return record;
}

std::optional<JournalReplay> JournalReplay::begin(int journal) {
  JournalHead head;
  const auto status = descriptorStatus(journal);
  if (!status || status->size < journalBaseAt) return std::nullopt;
  if (!readBlock(journal, 0, head) || checksumOf(head) != head.checksum) return std::nullopt;
  if (head.baseLength > status->size - journalBaseAt) return std::nullopt;
  std::string base;
  if (!readBytes(journal, journalBaseAt, head.baseLength, base)) return std::nullopt;
  if (Checksum().add(base).sum() != head.baseChecksum) return std::nullopt;
  return JournalReplay(journal, status->size, head, std::move(base));
}

std::optional<JournalRecord> JournalReplay::next() const {
  RecordHead head;
  if (position_ > size_ || size_ - position_ < sizeof head || !readBlock(journal_, position_, head))
    return std::nullopt;
  if (head.place.epoch != head_.checksum || head.place.position != position_ || head.oldLength != content_.size() ||
      head.bodySize > size_ - position_ - sizeof head)
    return std::nullopt;
  std::string body;
  if (!readBytes(journal_, position_ + sizeof head, head.bodySize, body)) return std::nullopt;
  if (checksumOf(head, body) != head.checksum) return std::nullopt;

  JournalRecord record{head.place, head.oldLength, head.newLength, {}, position_ + sizeof head + head.bodySize};
  if (!decodeBody(body, head.extents, record)) return std::nullopt;
  const bool fits = std::ranges::all_of(record.changes, [&](const JournalRecord::Change& change) {
    return std::string_view(content_).substr(change.offset, change.oldBytes.size()) == change.oldBytes;
  });
  return fits ? std::optional(std::move(record)) : std::nullopt;
}

void JournalReplay::apply(const JournalRecord& record) {
  content_.resize(std::max(record.oldLength, record.newLength));
  for (const JournalRecord::Change& change : record.changes)
    content_.replace(change.offset, change.newBytes.size(), change.newBytes);
  content_.resize(record.newLength);
  position_ = record.end;
}

bool isMixture(std::string_view current, std::string_view before, std::string_view after) {
  if (current == before || current == after) return false;
  if (current.size() < std::min(before.size(), after.size())) return false;
  if (current.size() > std::max(before.size(), after.size())) return false;
  for (std::size_t i = 0; i < current.size(); ++i) {
    const bool isNew = i < after.size() && current[i] == after[i];
    const bool isOld = i < before.size() ? current[i] == before[i] : current[i] == '\0';
    if (!isNew && !isOld) return false;
  }
  return true;
}

}  // namespace ostrel::detail
