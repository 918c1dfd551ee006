// Writes binary property lists.
#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "Containers/Internal/BinaryFormat.h"
#include "Containers/Internal/ByteScan.h"
#include "Containers/Internal/OutputBuffer.h"
#include "Containers/Internal/PlistStorage.h"
#include "Containers/PropertyList.h"
#include "Containers/Utf8.h"

namespace ostrel {
namespace detail::binary {
namespace {

using Reference = std::uint32_t;

/// Values in a tree, keys included; an answer above `limit` is only known to be above it.
std::size_t countValues(const PlistValue& value, std::size_t limit, std::size_t depth = 0) {
  std::size_t count = 1;
  if (depth == maximumPlistDepth) return count;  // refused later
  for (const PlistEntry& entry : value.entries()) {
    if (count > limit) return count;
    count += 1 + countValues(entry.value, limit - std::min(limit, count), depth + 1);
  }
  for (const PlistValue& element : value.elements()) {
    if (count > limit) return count;
    count += countValues(element, limit - std::min(limit, count), depth + 1);
  }
  return count;
}

/// The size of the objects, if nothing is stored once.
std::size_t estimate(const PlistValue& value, std::size_t depth = 0) {
  constexpr std::size_t object = 10;  // a marker with its count, a reference, an offset
  if (depth > maximumPlistDepth) return 0;
  std::size_t size = object + value.stringValue().size() + value.dataBytes().size();
  for (const PlistEntry& entry : value.entries()) size += 4 + estimate(entry.value, depth + 1);
  for (const PlistValue& element : value.elements()) size += estimate(element, depth + 1);
  return size;
}

/// Leaves are stored once and each container after its members, so that one pass is enough: references are known when
/// they are written. Equal leaves are found in a table in which a new leaf takes the place of an older one that has
/// the same hash: constant time a leaf whatever the leaves are, at the price of a second copy now and then.
class BinaryWriter {
 public:
  std::optional<std::string> writeFile(const PlistValue& value) {
    out_.expectFrom(value, [](const PlistValue& whole) { return estimate(whole); });
    if (!write(value)) return std::nullopt;
    return out_.finish();
  }

  std::optional<PlistPieces> writePieces(const PlistValue& value) {
    std::vector<Payload> payloads;
    payloads_ = &payloads;
    if (!write(value)) return std::nullopt;
    PlistPieces made{{}, std::make_unique<std::string>(out_.finish()), 0};
    const std::string_view packed = *made.packed;
    made.size = packed.size() + payloadBytes_;
    made.pieces.reserve(payloads.size() * 2 + 1);
    std::size_t taken = 0;
    for (const Payload& payload : payloads) {
      made.pieces.push_back({packed.substr(taken, payload.position - taken), false});
      made.pieces.push_back({payload.bytes, true});
      taken = payload.position;
    }
    made.pieces.push_back({packed.substr(taken), false});
    return made;
  }

 private:
  /// The bytes of a data value that stand elsewhere, and where they belong in what is written here.
  struct Payload {
    std::size_t position;
    std::string_view bytes;
  };

  bool write(const PlistValue& value) {
    constexpr std::size_t manyValues = 0x10000;
    const std::size_t count = countValues(value, manyValues);
    offsets_.reserve(count);
    referenceSize_ = count <= 0x100 ? 1 : count <= manyValues ? 2 : 4;
    known_.resize(std::clamp<std::size_t>(std::bit_ceil(count * 2), 64, 8192));
    out_.append(magic);
    Reference root = 0;
    if (!writeValue(value, 0, root)) return false;
    writeTable(root);
    return true;
  }

  struct Known {
    const PlistValue* value = nullptr;
    Reference reference = 0;
    std::uint32_t hash = 0;  // its high half: most leaves that differ are told apart here
  };
  // A dictionary that was written before at the same depth, and its keys' references.
  struct Model {
    std::span<const PlistEntry> entries;
    std::vector<Reference> keys;
  };

  bool writeValue(const PlistValue& value, std::size_t depth, Reference& reference);
  bool writeArray(const PlistValue& value, std::size_t depth, Reference& reference);
  bool writeDictionary(const PlistValue& value, std::size_t depth, Reference& reference);
  bool writeKeys(std::span<const PlistEntry> entries, std::size_t depth);
  void writeContainer(Marker marker, std::size_t count, std::size_t base, Reference& reference);
  bool writeText(const PlistValue& value, Reference& reference);
  bool writeWideText(std::string_view text, Reference& reference);
  void writeData(std::string_view bytes, Reference& reference);
  void writeInteger(const PlistValue& value, Reference& reference);
  void writeWord(unsigned char marker, std::uint64_t bits, Reference& reference);
  void writeTable(Reference root);

  /// Begins an object of the given number of members, bytes or units.
  void beginCounted(Marker marker, std::size_t count);
  Reference begin() {
    offsets_.push_back(archiveSize());
    return static_cast<Reference>(offsets_.size() - 1);
  }
  std::size_t archiveSize() const noexcept { return out_.size() + payloadBytes_; }
  /// The place in the table for a leaf; holds an equal leaf when `found`.
  Known& find(const PlistValue& leaf, std::uint64_t hash, bool& found);

  OutputBuffer out_;
  std::vector<Payload>* payloads_ = nullptr;  // where payloads are put down instead of being copied
  std::size_t payloadBytes_ = 0;
  std::vector<std::uint64_t> offsets_;
  std::vector<Reference> pending_;  // references of the containers that are being written
  std::vector<Known> known_;
  std::array<Reference, 2> booleans_{};
  std::array<bool, 2> booleanWritten_{};
  std::vector<Model> models_;
  std::size_t referenceSize_ = 0;
};

std::uint64_t mix(std::uint64_t hash, std::uint64_t bits) noexcept {
  hash = (hash ^ bits) * 0x9E3779B97F4A7C15;
  return hash ^ hash >> 32;
}

std::uint64_t wordAt(const char* at) noexcept {
  std::uint64_t word = 0;
  std::memcpy(&word, at, sizeof word);
  return word;
}

/// Of a short text all of it, of a longer one its length and three samples: equal hashes of different texts cost a
/// comparison and no more.
std::uint64_t hashOf(const PlistValue& string) noexcept {
  const std::string_view text = string.stringValue();
  const char* const at = text.data();
  if (text.size() <= PlistStorage::inlineCapacity)  // it fills the handle, with its length
    return mix(mix(wordAt(at), text.size()), wordAt(at + 8));
  return mix(mix(mix(text.size(), wordAt(at)), wordAt(at + text.size() / 2 - 4)), wordAt(at + text.size() - 8));
}

std::uint64_t bitsOf(const PlistValue& leaf) noexcept {
  if (leaf.isDate()) return std::bit_cast<std::uint64_t>(leaf.dateValue().secondsSince1970);
  return leaf.isReal() ? std::bit_cast<std::uint64_t>(leaf.doubleValue()) : leaf.uint64Value();
}

/// Equal as the format tells values apart: 1, 1.0 and true differ, and so do 0.0 and -0.0.
bool sameLeaf(const PlistValue& left, const PlistValue& right) noexcept {
  if (left.isIdentical(right)) return true;
  return left.isString() && right.isString() && left.stringValue() == right.stringValue();
}

inline BinaryWriter::Known& BinaryWriter::find(const PlistValue& leaf, std::uint64_t hash, bool& found) {
  Known& known = known_[hash & (known_.size() - 1)];
  found =
      known.value != nullptr && known.hash == static_cast<std::uint32_t>(hash >> 32) && sameLeaf(*known.value, leaf);
  return known;
}

bool BinaryWriter::writeValue(const PlistValue& value, std::size_t depth, Reference& reference) {
  switch (value.kind()) {
    case PlistValue::Kind::string:
      return writeText(value, reference);
    case PlistValue::Kind::array:
      return writeArray(value, depth, reference);
    case PlistValue::Kind::dictionary:
      return writeDictionary(value, depth, reference);
    case PlistValue::Kind::data:
      writeData(value.dataBytes(), reference);
      return true;
    case PlistValue::Kind::boolean: {
      const std::size_t which = value.boolValue() ? 1 : 0;
      if (!booleanWritten_[which]) {
        booleanWritten_[which] = true;
        booleans_[which] = begin();
        out_.append(which == 1 ? std::string_view("\x09", 1) : std::string_view("\x08", 1));
      }
      reference = booleans_[which];
      return true;
    }
    case PlistValue::Kind::number:
    case PlistValue::Kind::date: {
      bool found = false;
      const std::uint64_t hash = mix(static_cast<std::uint64_t>(value.kind()), bitsOf(value));
      Known& known = find(value, hash, found);
      if (!found) {
        if (value.isReal()) {
          writeWord(0x23, bitsOf(value), reference);
        } else if (value.isDate()) {
          if (!std::isfinite(value.dateValue().secondsSince1970)) return false;
          writeWord(markerDate, std::bit_cast<std::uint64_t>(value.dateValue().secondsSince1970 - dateEpoch),
                    reference);
        } else {
          writeInteger(value, reference);
        }
        known = {&value, reference, static_cast<std::uint32_t>(hash >> 32)};
      }
      reference = known.reference;
      return true;
    }
    case PlistValue::Kind::null:
      break;
  }
  return false;
}

// Leaves.

void BinaryWriter::beginCounted(Marker marker, std::size_t count) {
  const auto high = static_cast<unsigned>(marker) << 4;
  char* out = out_.reserve(16);
  if (count < longCount) {
    *out++ = static_cast<char>(high | count);
  } else {
    const unsigned power = count <= 0xFF ? 0 : count <= 0xFFFF ? 1 : count <= 0xFFFFFFFF ? 2 : 3;
    *out++ = static_cast<char>(high | longCount);
    *out++ = static_cast<char>(0x10 | power);
    out = writeSized(out, count, std::size_t{1} << power);
  }
  out_.advanceTo(out);
}

void BinaryWriter::writeWord(unsigned char marker, std::uint64_t bits, Reference& reference) {
  reference = begin();
  char* const out = out_.reserve(9);
  *out = static_cast<char>(marker);
  out_.advanceTo(writeSized(out + 1, bits, 8));
}

/// In the fewest bytes. Those of 1, 2 and 4 bytes have no sign: negative numbers take 8, those above 2^63 - 1 take 16.
void BinaryWriter::writeInteger(const PlistValue& value, Reference& reference) {
  reference = begin();
  const std::uint64_t bits = value.uint64Value();
  const bool isBig = bits > INT64_MAX && value.doubleValue() > 0;
  const unsigned power = isBig ? 4 : bits <= 0xFF ? 0 : bits <= 0xFFFF ? 1 : bits <= 0xFFFFFFFF ? 2 : 3;
  char* out = out_.reserve(24);
  *out++ = static_cast<char>(0x10 | power);
  if (isBig) out = writeSized(out, 0, 8);
  out_.advanceTo(writeSized(out, bits, std::min(std::size_t{1} << power, std::size_t{8})));
}

void BinaryWriter::writeData(std::string_view bytes, Reference& reference) {
  reference = begin();
  beginCounted(Marker::data, bytes.size());
  if (payloads_ == nullptr) return out_.append(bytes);
  payloads_->push_back({out_.size(), bytes});
  payloadBytes_ += bytes.size();
}

bool BinaryWriter::writeText(const PlistValue& value, Reference& reference) {
  const std::string_view text = value.stringValue();
  const bool shares = text.size() <= sharedTextLimit;
  Known* known = nullptr;
  std::uint64_t hash = 0;
  if (shares) {
    bool found = false;
    hash = hashOf(value);
    known = &find(value, hash, found);
    if (found) {
      reference = known->reference;
      return true;
    }
  }
  if (isAscii(text)) {
    reference = begin();
    beginCounted(Marker::ascii, text.size());
    if (text.size() <= PlistStorage::inlineCapacity) {
      char* const out = out_.reserve(sizeof value);
      std::memcpy(out, text.data(), sizeof value);  // the whole handle: a copy of fixed size is one store
      out_.advanceTo(out + text.size());
    } else {
      out_.append(text);
    }
  } else if (!writeWideText(text, reference)) {
    return false;
  }
  if (shares) *known = {&value, reference, static_cast<std::uint32_t>(hash >> 32)};
  return true;
}

bool BinaryWriter::writeWideText(std::string_view text, Reference& reference) {
  std::string units;
  const auto append = [&units](std::uint32_t unit) {
    units += static_cast<char>(unit >> 8);
    units += static_cast<char>(unit);
  };
  while (!text.empty()) {
    std::uint32_t character = 0;
    const std::size_t length = decodeCharacter(text, character);
    if (length == 0) return false;
    if (character > 0xFFFF) {
      append(0xD800 + ((character - 0x10000) >> 10));
      append(0xDC00 + ((character - 0x10000) & 0x3FF));
    } else {
      append(character);
    }
    text.remove_prefix(length);
  }
  reference = begin();
  beginCounted(Marker::utf16, units.size() / 2);
  out_.append(units);
  return true;
}

// Containers.

bool BinaryWriter::writeArray(const PlistValue& value, std::size_t depth, Reference& reference) {
  if (depth == maximumPlistDepth) return false;
  const std::size_t base = pending_.size();
  for (const PlistValue& element : value.elements()) {
    Reference member = 0;
    if (!writeValue(element, depth + 1, member)) return false;
    pending_.push_back(member);
  }
  writeContainer(Marker::array, value.count(), base, reference);
  return true;
}

bool BinaryWriter::writeDictionary(const PlistValue& value, std::size_t depth, Reference& reference) {
  if (depth == maximumPlistDepth) return false;
  const std::size_t base = pending_.size();
  if (!writeKeys(value.entries(), depth)) return false;
  for (const PlistEntry& entry : value.entries()) {
    Reference member = 0;
    if (!writeValue(entry.value, depth + 1, member)) return false;
    pending_.push_back(member);
  }
  writeContainer(Marker::dictionary, value.count(), base, reference);
  return true;
}

/// Records of a listing have the same keys: those are not looked up again.
bool BinaryWriter::writeKeys(std::span<const PlistEntry> entries, std::size_t depth) {
  if (models_.size() <= depth) models_.resize(depth + 1);
  Model& model = models_[depth];
  const bool same = std::ranges::equal(entries, model.entries, [](const PlistEntry& left, const PlistEntry& right) {
    return left.key.isIdentical(right.key);
  });
  if (!same) {
    model.keys.clear();
    model.entries = entries;
    for (const PlistEntry& entry : entries) {
      Reference key = 0;
      if (!writeText(entry.key, key)) return false;
      model.keys.push_back(key);
    }
  }
  pending_.insert(pending_.end(), model.keys.begin(), model.keys.end());
  return true;
}

void BinaryWriter::writeContainer(Marker marker, std::size_t count, std::size_t base, Reference& reference) {
  reference = begin();
  beginCounted(marker, count);
  for (std::size_t i = base; i < pending_.size(); ++i) {
    out_.advanceTo(writeSized(out_.reserve(8), pending_[i], referenceSize_));
  }
  pending_.resize(base);
}

void BinaryWriter::writeTable(Reference root) {
  const std::uint64_t table = archiveSize();
  const std::size_t offsetSize = table <= 0xFF ? 1 : table <= 0xFFFF ? 2 : table <= 0xFFFFFFFF ? 4 : 8;
  for (const std::uint64_t offset : offsets_) out_.advanceTo(writeSized(out_.reserve(8), offset, offsetSize));
  char* const trailer = out_.reserve(trailerSize);
  std::memset(trailer, 0, trailerSize);
  trailer[offsetSizeAt] = static_cast<char>(offsetSize);
  trailer[referenceSizeAt] = static_cast<char>(referenceSize_);
  writeSized(trailer + objectCountAt, offsets_.size(), 8);
  writeSized(trailer + rootAt, root, 8);
  writeSized(trailer + tableAt, table, 8);
  out_.advanceTo(trailer + trailerSize);
}

}  // namespace
}  // namespace detail::binary

std::optional<std::string> writeBinaryPropertyList(const PlistValue& value) {
  detail::binary::BinaryWriter writer;  // not `BinaryWriter()`, which would clear its whole buffer first
  return writer.writeFile(value);
}

std::optional<PlistPieces> writeBinaryPropertyListPieces(const PlistValue& value) {
  detail::binary::BinaryWriter writer;  // as above
  return writer.writePieces(value);
}

}  // namespace ostrel
