// Reads binary property lists.
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "Containers/Internal/BinaryFormat.h"
#include "Containers/Internal/ByteScan.h"
#include "Containers/Internal/PlistScratch.h"
#include "Containers/Internal/TextInput.h"
#include "Containers/PropertyList.h"

namespace ostrel {
namespace detail::binary {
namespace {

class BinaryReader {
 public:
  BinaryReader(std::string_view bytes, PlistForm form) noexcept
      : bytes_(bytes),
        begin_(bytes.data()),
        mutableContainers_(form == PlistForm::mutableContainers),
        scratch_(bytes.size() * 2) {}

  /// Null after a fault.
  PlistValue readFile() {
    if (!readTrailer() || !readTree()) return {};
    return scratch_.pop();
  }
  PlistError error() const { return {.message = fault_, .offset = faultOffset_}; }

 private:
  struct Header {  // of one object
    Marker marker = Marker::simple;
    std::size_t low = 0;    // the marker's low four bits
    std::size_t count = 0;  // bytes, UTF-16 units or members
    const char* body = nullptr;
  };
  struct Frame {
    const char* nextKey = nullptr;  // of a dictionary
    const char* nextValue = nullptr;
    const PlistEntry* modelKeys = nullptr;  // the keys, when they are those of a dictionary that was read before
    std::size_t left = 0;
    std::size_t base = 0;
    const char* keys = nullptr;
    bool isDictionary = false;
  };
  // The references of a dictionary's keys and the keys that they stood for: records of a listing have equal ones.
  struct KnownKeys {
    const char* references = nullptr;
    std::size_t count = 0;
    const PlistEntry* members = nullptr;
  };
  static constexpr std::size_t knownKeysSlots = 16;

  struct FreeArray {
    void operator()(BytesNode** array) const noexcept { std::free(static_cast<void*>(array)); }
  };

  bool readTrailer();
  bool readTree();
  bool readShortText(std::uint64_t object);
  bool readObject(std::uint64_t object);
  bool readHeader(std::uint64_t object, Header& header);
  bool readSimple(const Header& header);
  bool readInteger(const Header& header);
  bool readReal(const Header& header);
  bool readDate(const Header& header);
  bool readBytes(std::uint64_t object, const Header& header);
  BytesNode*& sharedSlot(std::uint64_t object);
  bool openContainer(const Header& header);
  bool closeContainer();
  bool readKey(Frame& frame);
  KnownKeys& knownKeysSlot(const char* references, std::size_t count) noexcept {
    return knownKeys_[(readSized(references, referenceSize_) + count) % knownKeysSlots];
  }
  bool spend(std::size_t bytes, const char* at) noexcept {
    if (bytes > expansionLeft_) return fail("shared objects make the value too large", at);
    expansionLeft_ -= bytes;
    return true;
  }

  [[gnu::cold]] bool fail(const char* fault, const char* at) noexcept {
    fault_ = fault;
    faultOffset_ = static_cast<std::size_t>(at - begin_);
    return false;
  }

  std::string_view bytes_;
  const char* begin_;
  const char* objectsEnd_ = nullptr;  // where the table of offsets begins
  std::uint64_t objectsLength_ = 0;   // from the first byte of the file
  std::size_t offsetSize_ = 0;
  std::size_t referenceSize_ = 0;
  std::uint64_t objectCount_ = 0;
  std::uint64_t root_ = 0;
  std::size_t membersLeft_ = 0;
  std::size_t expansionLeft_ = 0;
  const bool mutableContainers_;

  PlistScratch scratch_;
  std::vector<Frame> frames_;
  // Text and data that do not live in a handle, by object; not counted: they live as long as the reader's values.
  std::unique_ptr<BytesNode*[], FreeArray> shared_;
  std::array<KnownKeys, knownKeysSlots> knownKeys_{};
  const char* fault_ = "";
  std::size_t faultOffset_ = 0;
};

// The file.

bool BinaryReader::readTrailer() {
  if (!bytes_.starts_with(magic)) return fail("not a binary property list", begin_);
  if (bytes_.size() < magic.size() + trailerSize + 2) return fail("the file is too short", begin_);
  const char* const trailer = begin_ + bytes_.size() - trailerSize;
  offsetSize_ = static_cast<unsigned char>(trailer[offsetSizeAt]);
  referenceSize_ = static_cast<unsigned char>(trailer[referenceSizeAt]);
  objectCount_ = readSized(trailer + objectCountAt, 8);
  root_ = readSized(trailer + rootAt, 8);
  const std::uint64_t table = readSized(trailer + tableAt, 8);
  if (offsetSize_ < 1 || offsetSize_ > 8) return fail("bad offset size", trailer + offsetSizeAt);
  if (referenceSize_ < 1 || referenceSize_ > 8) return fail("bad reference size", trailer + referenceSizeAt);
  const std::size_t space = bytes_.size() - trailerSize;  // of all objects and the table
  if (table <= magic.size() || table >= space) return fail("bad place of the offset table", trailer + tableAt);
  if (objectCount_ > space - table || objectCount_ * offsetSize_ != space - table)
    return fail("the offset table does not fill its place", trailer + objectCountAt);
  if (root_ >= objectCount_) return fail("the root is not an object", trailer + rootAt);
  objectsEnd_ = begin_ + table;
  objectsLength_ = table;
  // Every reference takes a byte of the file: only containers that are used twice can lead to more members than that.
  membersLeft_ = bytes_.size();
  expansionLeft_ = bytes_.size() * expansionLimit;
  return true;
}

bool BinaryReader::readTree() {
  if (!readObject(root_)) return false;
  while (!frames_.empty()) {
    const std::size_t depth = frames_.size();
    Frame& frame = frames_.back();
    while (frame.left != 0) {
      --frame.left;
      if (frame.isDictionary && !readKey(frame)) return false;
      const std::uint64_t object = readSized(frame.nextValue, referenceSize_);
      frame.nextValue += referenceSize_;
      if (readShortText(object)) continue;
      if (!readObject(object)) return false;
      if (frames_.size() != depth) break;  // a container was opened, and `frame` may have moved
    }
    if (frames_.size() == depth && !closeContainer()) return false;
  }
  return true;
}

/// The commonest member, read straight into a handle: ASCII of at most fourteen bytes. False, and nothing done, for
/// everything else.
inline bool BinaryReader::readShortText(std::uint64_t object) {
#ifdef __SSE2__
  if (object >= objectCount_) return false;
  const std::uint64_t offset = readSized(objectsEnd_ + object * offsetSize_, offsetSize_);
  if (offset < magic.size() || offset >= objectsLength_) return false;
  const char* const start = begin_ + offset;
  const unsigned length = static_cast<unsigned char>(*start) & 15U;
  const bool isShort = static_cast<unsigned char>(*start) >> 4 == static_cast<unsigned>(Marker::ascii) &&
                       length <= PlistStorage::inlineCapacity;
  // sixteen bytes are readable wherever an object is: the trailer follows
  if (!isShort || objectsLength_ - offset <= length || length > expansionLeft_) return false;
  if ((maskOf(load16(start + 1)) & ((1U << length) - 1)) != 0) return false;
  expansionLeft_ -= length;
  scratch_.push(PlistStorage::makeShortString(start + 1, length));
  return true;
#else
  return object != object;
#endif
}

// Objects.

inline bool BinaryReader::readHeader(std::uint64_t object, Header& header) {
  if (object >= objectCount_) return fail("a reference to no object", objectsEnd_);
  const char* const entry = objectsEnd_ + object * offsetSize_;
  const std::uint64_t offset = readSized(entry, offsetSize_);
  if (offset < magic.size() || offset >= objectsLength_) return fail("an object lies outside the file", entry);
  const char* const start = begin_ + offset;
  const auto byte = static_cast<unsigned char>(*start);
  header.marker = static_cast<Marker>(byte >> 4);
  header.low = header.count = byte & 15;
  header.body = start + 1;
  if (header.low != longCount || byte < 0x40) return true;
  if (objectsEnd_ - start < 3) return fail("an object is cut off", start);
  const auto sizeByte = static_cast<unsigned char>(start[1]);
  if ((sizeByte & 0xFC) != 0x10) return fail("malformed count", start);
  const std::size_t size = std::size_t{1} << (sizeByte & 3);
  if (static_cast<std::size_t>(objectsEnd_ - start) < 2 + size) return fail("an object is cut off", start);
  header.count = readSized(start + 2, size);
  header.body = start + 2 + size;
  return true;
}

/// One leaf onto the scratch, or one container onto the frames.
bool BinaryReader::readObject(std::uint64_t object) {
  Header header;
  if (!readHeader(object, header)) return false;
  switch (header.marker) {
    case Marker::simple:
      return readSimple(header);
    case Marker::integer:
      return readInteger(header);
    case Marker::real:
      return readReal(header);
    case Marker::date:
      return readDate(header);
    case Marker::data:
    case Marker::ascii:
    case Marker::utf16:
      return readBytes(object, header);
    case Marker::array:
    case Marker::dictionary:
      return openContainer(header);
    default:
      return fail("unknown kind of object", header.body - 1);
  }
}

bool BinaryReader::readSimple(const Header& header) {
  if (header.low != markerFalse && header.low != markerTrue) return fail("unknown kind of object", header.body - 1);
  scratch_.push(header.low == markerTrue);
  return true;
}

/// Of 1, 2 and 4 bytes without a sign, of 8 bytes with one; of 16 bytes what fits into 64 bits either way.
bool BinaryReader::readInteger(const Header& header) {
  if (header.low > 4) return fail("malformed number", header.body - 1);
  const std::size_t size = std::size_t{1} << header.low;
  if (static_cast<std::size_t>(objectsEnd_ - header.body) < size) return fail("an object is cut off", header.body - 1);
  if (size < 16) {
    scratch_.push(static_cast<std::int64_t>(readSized(header.body, size)));
    return true;
  }
  const std::uint64_t high = readSized(header.body, 8);
  const std::uint64_t low = readSized(header.body + 8, 8);
  if (high == 0) {
    scratch_.push(low);
  } else if (high == ~std::uint64_t{} && low > INT64_MAX) {
    scratch_.push(static_cast<std::int64_t>(low));
  } else {
    return fail("a number beyond 64 bits", header.body - 1);
  }
  return true;
}

bool BinaryReader::readReal(const Header& header) {
  if (header.low != 2 && header.low != 3) return fail("malformed number", header.body - 1);
  const std::size_t size = std::size_t{1} << header.low;
  if (static_cast<std::size_t>(objectsEnd_ - header.body) < size) return fail("an object is cut off", header.body - 1);
  const std::uint64_t bits = readSized(header.body, size);
  scratch_.push(size == 8 ? std::bit_cast<double>(bits)
                          : static_cast<double>(std::bit_cast<float>(static_cast<std::uint32_t>(bits))));
  return true;
}

bool BinaryReader::readDate(const Header& header) {
  if (header.low != 3) return fail("malformed date", header.body - 1);
  if (objectsEnd_ - header.body < 8) return fail("an object is cut off", header.body - 1);
  const auto seconds = std::bit_cast<double>(readSized(header.body, 8));
  if (!std::isfinite(seconds)) return fail("not a date", header.body - 1);
  scratch_.push(PlistDate{seconds + dateEpoch});
  return true;
}

/// Text and data. What does not live in a handle is made once and shared between the references to it.
bool BinaryReader::readBytes(std::uint64_t object, const Header& header) {
  const std::size_t unit = header.marker == Marker::utf16 ? 2 : 1;
  const auto left = static_cast<std::size_t>(objectsEnd_ - header.body);
  if (header.count > left / unit) return fail("an object is cut off", header.body - 1);
  if (!spend(header.count, header.body - 1)) return false;
  if (header.marker == Marker::ascii && header.count <= PlistStorage::inlineCapacity) {
    if (!isAscii({header.body, header.count})) return fail("a text is not ASCII", header.body - 1);
    // sixteen bytes are readable: the trailer follows
    scratch_.push(PlistStorage::makeShortString(header.body, header.count));
    return true;
  }
  BytesNode*& node = sharedSlot(object);
  const bool isData = header.marker == Marker::data;
  if (node != nullptr) {
    scratch_.push(PlistStorage::shareUnpublished(node, isData));
    return true;
  }
  std::string_view bytes(header.body, header.count);
  std::string converted;
  if (header.marker == Marker::ascii && !isAscii(bytes)) return fail("a text is not ASCII", header.body - 1);
  if (header.marker == Marker::utf16) {
    if (appendUtf16(converted, {header.body, header.count * 2}, true) != header.count * 2)
      return fail("invalid UTF-16", header.body - 1);
    bytes = converted;
  }
  if (!isData && bytes.size() <= PlistStorage::inlineCapacity) {
    scratch_.pushString(bytes);
  } else {
    scratch_.push(PlistStorage::makeBytes(bytes, isData, scratch_.arena(), node));
  }
  return true;
}

/// Zeroed memory from the system costs nothing where it is not touched.
BytesNode*& BinaryReader::sharedSlot(std::uint64_t object) {
  if (shared_ == nullptr) {
    // NOLINTNEXTLINE(bugprone-sizeof-expression): the slots are pointers
    shared_.reset(static_cast<BytesNode**>(std::calloc(objectCount_, sizeof(BytesNode*))));
    if (shared_ == nullptr) throw std::bad_alloc();
  }
  return shared_[object];
}

// Containers.

bool BinaryReader::openContainer(const Header& header) {
  const char* const start = header.body - 1;
  const bool isDictionary = header.marker == Marker::dictionary;
  const std::size_t references = isDictionary ? 2 : 1;
  const auto left = static_cast<std::size_t>(objectsEnd_ - header.body);
  if (header.count > left / (references * referenceSize_)) return fail("an object is cut off", start);
  if (header.count * references > membersLeft_) return fail("containers are used too often or hold themselves", start);
  if (frames_.size() == maximumPlistDepth) return fail("containers are nested too deeply or hold themselves", start);
  membersLeft_ -= header.count * references;
  Frame frame{.nextValue = header.body, .left = header.count, .base = scratch_.size(), .isDictionary = isDictionary};
  if (isDictionary && header.count != 0) {
    const std::size_t keysSize = header.count * referenceSize_;
    frame.keys = frame.nextKey = header.body;
    frame.nextValue = header.body + keysSize;
    const KnownKeys& known = knownKeysSlot(frame.keys, header.count);
    if (known.count == header.count && std::memcmp(known.references, frame.keys, keysSize) == 0)
      frame.modelKeys = known.members;
  }
  frames_.push_back(frame);
  return true;
}

bool BinaryReader::readKey(Frame& frame) {
  if (frame.modelKeys != nullptr) {
    const PlistEntry& model = *frame.modelKeys++;
    if (!spend(model.keyText().size(), frame.keys)) return false;
    scratch_.push(PlistStorage::shareUnpublished(model.key));
    return true;
  }
  Header header;
  const std::uint64_t object = readSized(frame.nextKey, referenceSize_);
  frame.nextKey += referenceSize_;
  if (!readHeader(object, header)) return false;
  if (header.marker != Marker::ascii && header.marker != Marker::utf16)
    return fail("a key is not text", header.body - 1);
  return readBytes(object, header);
}

bool BinaryReader::closeContainer() {
  const Frame frame = frames_.back();
  frames_.pop_back();
  if (!frame.isDictionary) {
    scratch_.foldArray(frame.base, mutableContainers_);
    return true;
  }
  using Keys = PlistStorage::Keys;
  const Keys keys = frame.modelKeys != nullptr ? Keys::knownDistinct : Keys::unchecked;
  if (!scratch_.foldDictionary(frame.base, mutableContainers_, keys))
    return fail("a dictionary holds a key twice", frame.keys);
  const auto entries = scratch_.top().entries();
  if (!entries.empty()) {
    knownKeysSlot(frame.keys, entries.size()) = {
        .references = frame.keys, .count = entries.size(), .members = entries.data()};
  }
  return true;
}

}  // namespace
}  // namespace detail::binary

PlistValue readBinaryPropertyList(std::string_view bytes, PlistForm form, PlistError* error) {
  detail::binary::BinaryReader reader(bytes, form);
  PlistValue value = reader.readFile();
  if (value.isNull() && error != nullptr) *error = reader.error();
  return value;
}

}  // namespace ostrel
