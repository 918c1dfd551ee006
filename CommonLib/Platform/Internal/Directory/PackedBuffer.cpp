#include "Platform/Internal/Directory/PackedBuffer.h"

#include <algorithm>
#include <atomic>
#include <cstring>

namespace ostrel::detail {
namespace {

struct Head {
  PackedKind kind;
  std::uint32_t count;
  std::uint64_t stamp;
  std::uint32_t table;
};

constexpr std::uint32_t wordSize = sizeof(std::uint32_t);

std::uint64_t nextStamp() {
  static std::atomic<std::uint64_t> last{0};
  return ++last;
}

std::uint64_t attributesSize(const DirectoryRecordView& record) {
  std::uint64_t size = 0;
  for (const DirectoryAttribute& attribute : record.attributes) {
    size += 3 * wordSize + attribute.name.size();
    for (const DirectoryValue& value : attribute.values) size += 2 * wordSize + value.bytes.size();
  }
  return size;
}

// Walks over the bytes of a buffer without ever leaving them.
class Walk {
 public:
  Walk(std::string_view bytes, std::uint32_t offset) : bytes_(bytes), offset_(offset) {}

  bool number(std::uint32_t& out) {
    if (bytes_.size() < wordSize || offset_ > bytes_.size() - wordSize) return false;
    std::memcpy(&out, bytes_.data() + offset_, wordSize);
    offset_ += wordSize;
    return true;
  }
  bool text(std::uint32_t size, std::string_view& out) {
    if (offset_ > bytes_.size() || size > bytes_.size() - offset_) return false;
    out = bytes_.substr(offset_, size);
    offset_ += size;
    return true;
  }
  bool skip(std::uint32_t size) {
    std::string_view passed;
    return text(size, passed);
  }
  std::uint32_t offset() const { return static_cast<std::uint32_t>(offset_); }

 private:
  std::string_view bytes_;
  std::size_t offset_;
};

// Walks from the place that was seen last to `index`, each step with `pass`. Absent when there is no such entry.
template <class Pass>
std::optional<Walk> walkTo(std::string_view bytes, PackedPlace& place, std::uint32_t index, Pass&& pass) {
  if (index == 0 || index > place.count) return std::nullopt;
  const bool ahead = place.seenOffset != 0 && index >= place.seenIndex;
  std::uint32_t at = ahead ? place.seenIndex : 1;
  Walk walk(bytes, ahead ? place.seenOffset : place.offset);
  for (; at < index; ++at)
    if (!pass(walk)) return std::nullopt;
  place.seenIndex = index;
  place.seenOffset = walk.offset();
  return walk;
}

}  // namespace

PackedBufferWriter::PackedBufferWriter(DirectoryDataBuffer& buffer, PackedKind kind)
    : buffer_(buffer), kind_(kind), used_(sizeof(Head)) {
  buffer_.length = 0;
}

bool PackedBufferWriter::fits(std::uint64_t size) const {
  return used_ + size + (offsets_.size() + 1) * wordSize <= buffer_.capacity;
}

void PackedBufferWriter::put(std::uint32_t number) {
  std::memcpy(buffer_.bytes() + used_, &number, wordSize);
  used_ += wordSize;
}

void PackedBufferWriter::put(std::string_view bytes) {
  if (!bytes.empty()) std::memcpy(buffer_.bytes() + used_, bytes.data(), bytes.size());
  used_ += static_cast<std::uint32_t>(bytes.size());
}

bool PackedBufferWriter::addRecord(const DirectoryRecordView& record) {
  if (!fits(3 * wordSize + record.type.size() + record.name.size() + attributesSize(record))) return false;
  offsets_.push_back(used_);
  put(static_cast<std::uint32_t>(record.attributes.size()));
  put(static_cast<std::uint32_t>(record.type.size()));
  put(static_cast<std::uint32_t>(record.name.size()));
  put(record.type);
  put(record.name);
  for (const DirectoryAttribute& attribute : record.attributes) {
    const std::uint32_t sizeAt = used_;
    used_ += wordSize;
    put(static_cast<std::uint32_t>(attribute.values.size()));
    put(static_cast<std::uint32_t>(attribute.name.size()));
    put(attribute.name);
    for (const DirectoryValue& value : attribute.values) {
      put(value.identifier);
      put(static_cast<std::uint32_t>(value.bytes.size()));
      put(value.bytes);
    }
    const std::uint32_t size = used_ - sizeAt - wordSize;
    std::memcpy(buffer_.bytes() + sizeAt, &size, wordSize);
  }
  return true;
}

bool PackedBufferWriter::addNode(std::string_view path) {
  if (!fits(wordSize + path.size())) return false;
  offsets_.push_back(used_);
  put(static_cast<std::uint32_t>(path.size()));
  put(path);
  return true;
}

void PackedBufferWriter::finish() {
  if (buffer_.capacity < sizeof(Head)) return;  // then nothing fitted either
  const Head head{kind_, count(), nextStamp(), used_};
  std::memcpy(buffer_.bytes(), &head, sizeof head);
  for (const std::uint32_t offset : offsets_) put(offset);
  buffer_.length = used_;
}

PackedBufferReader::PackedBufferReader(const DirectoryDataBuffer& buffer, PackedKind kind)
    : bytes_(buffer.bytes(), std::min(buffer.length, buffer.capacity)) {
  Head head{};
  if (bytes_.size() < sizeof head) return;
  std::memcpy(&head, bytes_.data(), sizeof head);
  valid_ = head.kind == kind && head.table <= bytes_.size() && head.count <= (bytes_.size() - head.table) / wordSize;
  stamp_ = head.stamp;
  count_ = head.count;
  table_ = head.table;
}

std::optional<std::uint32_t> PackedBufferReader::offsetOf(std::uint32_t index) const {
  if (index == 0 || index > count_) return std::nullopt;
  std::uint32_t offset = 0;
  std::memcpy(&offset, bytes_.data() + table_ + std::size_t{index - 1} * wordSize, wordSize);
  return offset;
}

std::optional<std::string_view> PackedBufferReader::node(std::uint32_t index) const {
  const auto offset = offsetOf(index);
  if (!offset) return std::nullopt;
  Walk walk(bytes_, *offset);
  std::uint32_t size = 0;
  std::string_view path;
  if (!walk.number(size) || !walk.text(size, path)) return std::nullopt;
  return path;
}

std::optional<PackedRecord> PackedBufferReader::record(std::uint32_t index) const {
  const auto offset = offsetOf(index);
  if (!offset) return std::nullopt;
  Walk walk(bytes_, *offset);
  PackedRecord record;
  std::uint32_t typeSize = 0;
  std::uint32_t nameSize = 0;
  if (!walk.number(record.attributes.count) || !walk.number(typeSize) || !walk.number(nameSize) ||
      !walk.text(typeSize, record.type) || !walk.text(nameSize, record.name))
    return std::nullopt;
  record.attributes.stamp = stamp_;
  record.attributes.offset = walk.offset();
  return record;
}

std::optional<PackedAttribute> PackedBufferReader::attribute(PackedPlace& attributes, std::uint32_t index) const {
  auto walk = walkTo(bytes_, attributes, index, [](Walk& from) {
    std::uint32_t size = 0;
    return from.number(size) && from.skip(size);
  });
  if (!walk) return std::nullopt;
  PackedAttribute attribute;
  std::uint32_t size = 0;
  std::uint32_t nameSize = 0;
  if (!walk->number(size) || !walk->number(attribute.values.count) || !walk->number(nameSize) ||
      !walk->text(nameSize, attribute.name))
    return std::nullopt;
  attribute.values.stamp = stamp_;
  attribute.values.offset = walk->offset();
  return attribute;
}

std::optional<DirectoryValue> PackedBufferReader::value(PackedPlace& values, std::uint32_t index) const {
  auto walk = walkTo(bytes_, values, index, [](Walk& from) {
    std::uint32_t identifier = 0;
    std::uint32_t size = 0;
    return from.number(identifier) && from.number(size) && from.skip(size);
  });
  if (!walk) return std::nullopt;
  DirectoryValue value;
  std::uint32_t size = 0;
  if (!walk->number(value.identifier) || !walk->number(size) || !walk->text(size, value.bytes)) return std::nullopt;
  return value;
}

}  // namespace ostrel::detail
