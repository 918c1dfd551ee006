// How records, node names and node attributes lie in a caller's data buffer.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "Platform/DirectoryNode.h"
#include "Platform/DirectoryService.h"

namespace ostrel::detail {

// A buffer begins with a head: what it holds, how many entries, the stamp of this filling, where the table of the
// entries' offsets lies. All numbers are unaligned and in host byte order. An entry is a record:
//   attribute count, type length, name length (32 bits each), type, name, attributes, each
//     size of what follows, value count, name length (32 bits each), name, values, each
//       identifier, length (32 bits each), bytes
// or the path of a node. Readers trust nothing that they read: callers can write to their buffers.

enum class PackedKind : std::uint32_t { records = 0x6f647231, nodes = 0x6f646e31 };

/// Fills a buffer with entries as long as they fit.
class PackedBufferWriter {
 public:
  /// Empties the buffer, which is borrowed.
  PackedBufferWriter(DirectoryDataBuffer& buffer, PackedKind kind);

  /// False, and nothing added, when it does not fit.
  bool addRecord(const DirectoryRecordView& record);
  bool addNode(std::string_view path);
  std::uint32_t count() const { return static_cast<std::uint32_t>(offsets_.size()); }
  /// Completes the buffer; an empty one too.
  void finish();

 private:
  bool fits(std::uint64_t size) const;
  void put(std::uint32_t number);
  void put(std::string_view bytes);

  DirectoryDataBuffer& buffer_;
  PackedKind kind_;
  std::uint32_t used_;
  std::vector<std::uint32_t> offsets_;
};

/// Where an attribute, or the values of one, lie; of which filling.
struct PackedPlace {
  std::uint64_t stamp = 0;
  std::uint32_t offset = 0;  ///< of the first attribute, the first value
  std::uint32_t count = 0;
  std::uint32_t seenIndex = 1;  ///< the index whose offset is known, for reading in order
  std::uint32_t seenOffset = 0;
};

struct PackedRecord {
  std::string_view type;
  std::string_view name;
  PackedPlace attributes;
};

struct PackedAttribute {
  std::string_view name;
  PackedPlace values;
};

/// Reads a filled buffer. The views that it answers point into the buffer.
class PackedBufferReader {
 public:
  /// Requires: `valid` is asked before anything else.
  PackedBufferReader(const DirectoryDataBuffer& buffer, PackedKind kind);
  bool valid() const { return valid_; }
  std::uint64_t stamp() const { return stamp_; }
  std::uint32_t count() const { return count_; }

  // Absent when the index (from 1) is past the last entry, and when the bytes make no sense.
  std::optional<std::string_view> node(std::uint32_t index) const;
  std::optional<PackedRecord> record(std::uint32_t index) const;
  /// Both move the place on to where the entry was found.
  std::optional<PackedAttribute> attribute(PackedPlace& attributes, std::uint32_t index) const;
  std::optional<DirectoryValue> value(PackedPlace& values, std::uint32_t index) const;

 private:
  std::optional<std::uint32_t> offsetOf(std::uint32_t index) const;

  std::string_view bytes_;
  bool valid_ = false;
  std::uint64_t stamp_ = 0;
  std::uint32_t count_ = 0;
  std::uint32_t table_ = 0;
};

}  // namespace ostrel::detail
