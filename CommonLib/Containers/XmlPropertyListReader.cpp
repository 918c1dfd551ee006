// Reads XML property lists in one pass, straight into values.
#include <algorithm>
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Containers/Internal/Base64Blocks.h"
#include "Containers/Internal/LeafText.h"
#include "Containers/Internal/PlistScratch.h"
#include "Containers/Internal/XmlScanner.h"
#include "Containers/PropertyList.h"

namespace ostrel {
namespace detail {
namespace {

enum class Element : std::uint8_t {
  string,
  key,
  integer,
  real,
  boolTrue,
  boolFalse,
  date,
  data,
  dictionary,
  array,
  none
};

constexpr std::string_view elementNames[] = {"string", "key",  "integer", "real", "true",
                                             "false",  "date", "data",    "dict", "array"};

std::string_view nameOf(Element element) { return elementNames[static_cast<std::size_t>(element)]; }

constexpr const char* repeatedKey = "a dictionary holds a key twice";

class XmlReader : public XmlScanner {
 public:
  /// `checksEachKey`: whether a key that appears twice is noticed where it stands, not at its dictionary's end.
  XmlReader(const TextInput& input, PlistForm form, bool checksEachKey = false)
      : XmlScanner(input.text(), input.encoding()),
        mutableContainers_(form == PlistForm::mutableContainers),
        checksEachKey_(checksEachKey),
        scratch_(input.text().size()) {}

  /// Null after a fault.
  PlistValue readDocument() {
    if (!readProlog() || !readRootTag() || !readValue() || !readRootEnd()) return {};
    return scratch_.pop();
  }

 private:
  // A container that is being read. Records of a listing have the same keys in the same order: each key is first
  // compared with the next one of the model, the dictionary at the same place of the record before.
  struct Frame {
    std::size_t base = 0;  // where its members begin in the scratch
    const PlistEntry* model = nullptr;
    std::uint32_t modelCount = 0;
    std::uint32_t modelNext = 0;
    bool isDictionary = false;
    bool keysFollowModel = true;  // they are some of the model's keys in its order, so no two are equal
    bool keysArePlain = true;     // none was written with references or sections
    bool lastKeyFromModel = false;
    const PlistValue* firstModel = nullptr;  // of an array: the first element of the array at the same place
  };

  bool readRootTag();
  bool readRootEnd();
  bool readValue();
  bool readKey(Frame& frame);
  bool takeModelKey(Frame& frame);
  bool readOtherKey(Frame& frame);
  bool isFirstOfItsName();
  bool readStartTag(Element& element, bool& isEmpty);
  bool readUnusualTag(Element& element, bool& isEmpty);
  bool readLeaf(Element element, bool isEmpty);
  bool readString();
  bool readInteger();
  bool readParsed(Element element, PlistValue (*parse)(std::string_view), const char* fault);
  bool readData();
  bool decodeData(const char* text, const char* end, PlistValue& data);
  bool openContainer(bool isDictionary);
  bool closeContainer(const char* tagStart);
  const PlistValue* modelOfNextValue();

  bool expectsKey() const noexcept {
    return !frames_.empty() && frames_.back().isDictionary && (scratch_.size() - frames_.back().base) % 2 == 0;
  }

  const bool mutableContainers_;
  const bool checksEachKey_;
  PlistScratch scratch_;
  std::vector<Frame> frames_;
  std::vector<std::set<std::string, std::less<>>> seenKeys_;  // of each frame; only where each key is checked
};

// The element around the value.

bool XmlReader::readRootTag() {
  const char* const start = at_;
  ++at_;
  std::string_view name;
  if (!readName(name)) return false;
  if (name != "plist") return fail("the document's element is not <plist>", start);
  for (bool hasVersion = false;;) {
    std::string_view attribute;
    std::string_view value;
    bool found = false;
    if (!readAttribute(attribute, value, found)) return false;
    if (!found) break;
    if (attribute != "version") return fail("unknown attribute of <plist>", attribute.data());
    if (hasVersion) return fail("an attribute appears twice", attribute.data());
    hasVersion = true;
  }
  if (isAt("/>")) return fail("<plist> holds no value", start);
  return take(">") || fail("malformed tag", start);
}

bool XmlReader::readRootEnd() {
  if (!readMisc()) return false;
  if (!isAt("</")) return fail(isAt("<") ? "<plist> holds more than one value" : "text outside elements");
  if (!readEndTag("plist") || !readMisc()) return false;
  return at_ == end_ || fail("content after the document's element");
}

// Values.

/// One value with everything in it, onto the scratch.
bool XmlReader::readValue() {
  do {
    skipSpace();
    if (at_ == end_) return fail("the document ends within an element");
    if (*at_ != '<') return fail("text outside elements");
    if (isAt("</")) {
      if (!closeContainer(at_)) return false;
      continue;
    }
    if (isAt("<!--") || isAt("<?")) {
      if (!readMiscMarkup()) return false;
      continue;
    }
    if (expectsKey()) {
      const char* const key = at_;
      if (!readKey(frames_.back())) return false;
      if (checksEachKey_ && !isFirstOfItsName()) return fail(repeatedKey, key);
      continue;
    }
    const char* const start = at_;
    Element element = Element::none;
    bool isEmpty = false;
    if (!readStartTag(element, isEmpty)) return false;
    if (element == Element::key)
      return fail(frames_.empty() ? "<key> outside a dictionary" : "a key has no value", start);
    if (element == Element::dictionary || element == Element::array) {
      if (!openContainer(element == Element::dictionary)) return fail("containers are nested too deeply", start);
      if (isEmpty && !closeContainer(nullptr)) return false;
    } else if (!readLeaf(element, isEmpty)) {
      return false;
    }
  } while (!frames_.empty() || scratch_.size() == 0);
  return true;
}

bool XmlReader::openContainer(bool isDictionary) {
  if (frames_.size() == maximumPlistDepth) return false;
  Frame frame{.base = scratch_.size(), .isDictionary = isDictionary};
  const PlistValue* model = modelOfNextValue();
  if (model != nullptr && isDictionary && model->isDictionary() && PlistStorage::hasPlainKeys(*model)) {
    frame.model = model->entries().data();
    frame.modelCount = static_cast<std::uint32_t>(model->count());
  } else if (model != nullptr && !isDictionary && model->isArray() && model->count() != 0) {
    frame.firstModel = model->elements().data();
  }
  frames_.push_back(frame);
  return true;
}

/// The value at the same place of the record before, which stays where it is until the whole document is read.
const PlistValue* XmlReader::modelOfNextValue() {
  if (frames_.empty()) return nullptr;
  const Frame& frame = frames_.back();
  if (frame.isDictionary) return frame.lastKeyFromModel ? &frame.model[frame.modelNext - 1].value : nullptr;
  return scratch_.size() == frame.base ? frame.firstModel : &scratch_.top();
}

/// `tagStart` is where the end tag begins; nothing for an empty-element tag.
bool XmlReader::closeContainer(const char* tagStart) {
  if (frames_.empty()) return fail("<plist> holds no value");
  const Frame frame = frames_.back();
  if (tagStart != nullptr) {
    if (frame.isDictionary ? !take("</dict>") && !readEndTag("dict") : !take("</array>") && !readEndTag("array"))
      return false;
  }
  if (!frame.isDictionary) {
    scratch_.foldArray(frame.base, mutableContainers_);
  } else {
    if (!expectsKey()) return fail("a key has no value", tagStart);
    using Keys = PlistStorage::Keys;
    const Keys keys = frame.keysFollowModel && frame.model != nullptr ? Keys::knownDistinct : Keys::unchecked;
    if (!scratch_.foldDictionary(frame.base, mutableContainers_, keys)) return fail(repeatedKey, tagStart);
    if (frame.keysArePlain) PlistStorage::markPlainKeys(scratch_.top());
  }
  frames_.pop_back();
  return true;
}

// Keys.

bool XmlReader::readKey(Frame& frame) {
  if (take("<key>")) return takeModelKey(frame) || readOtherKey(frame);
  const char* const start = at_;
  Element element = Element::none;
  bool isEmpty = false;
  if (!readStartTag(element, isEmpty)) return false;
  if (element != Element::key) return fail("a dictionary holds a value without a key", start);
  if (!isEmpty) return readOtherKey(frame);
  frame.lastKeyFromModel = frame.keysFollowModel = false;
  scratch_.pushString({});
  return true;
}

/// Compares what follows <key> with the model's next key as bytes. Those hold no markup: they stood in the input.
bool XmlReader::takeModelKey(Frame& frame) {
  constexpr std::string_view endTag = "</key>";
  if (frame.modelNext == frame.modelCount) return false;
  const PlistValue& key = frame.model[frame.modelNext].key;
  const std::string_view text = key.stringValue();
  const auto left = static_cast<std::size_t>(end_ - at_);
  if (left < text.size() + endTag.size()) return false;
  if (std::memcmp(at_, text.data(), text.size()) != 0) return false;
  if (std::memcmp(at_ + text.size(), endTag.data(), endTag.size()) != 0) return false;
  at_ += text.size() + endTag.size();
  ++frame.modelNext;
  frame.lastKeyFromModel = true;
  scratch_.push(PlistStorage::shareUnpublished(key));
  return true;
}

bool XmlReader::readOtherKey(Frame& frame) {
  constexpr std::uint32_t reach = 8;  // members that a record may lack in a row before it is no longer like its model
  std::string_view content;
  if (!readContent("key", content)) return false;
  frame.lastKeyFromModel = false;
  frame.keysArePlain = frame.keysArePlain && isVerbatim(content);
  const std::uint32_t limit = std::min(frame.modelCount, frame.modelNext + reach);
  for (std::uint32_t i = frame.modelNext; i < limit; ++i) {
    if (frame.model[i].keyText() != content) continue;
    frame.modelNext = i + 1;
    frame.lastKeyFromModel = true;
    scratch_.push(PlistStorage::shareUnpublished(frame.model[i].key));
    return true;
  }
  frame.keysFollowModel = false;
  scratch_.pushString(content);
  return true;
}

bool XmlReader::isFirstOfItsName() {
  seenKeys_.resize(frames_.size());
  auto& seen = seenKeys_.back();
  if (scratch_.size() == frames_.back().base + 1) seen.clear();
  return seen.emplace(std::as_const(scratch_.top()).stringValue()).second;
}

// Tags.

inline bool XmlReader::readStartTag(Element& element, bool& isEmpty) {
  const auto is = [&element](Element found) {
    element = found;
    return true;
  };
  if (end_ - at_ >= 2) {
    switch (at_[1]) {
      case 's':
        if (take("<string>")) return is(Element::string);
        break;
      case 'i':
        if (take("<integer>")) return is(Element::integer);
        break;
      case 'd':
        if (take("<dict>")) return is(Element::dictionary);
        if (take("<data>")) return is(Element::data);
        if (take("<date>")) return is(Element::date);
        break;
      case 'a':
        if (take("<array>")) return is(Element::array);
        break;
      case 't':
        if (take("<true/>")) return isEmpty = is(Element::boolTrue);
        break;
      case 'f':
        if (take("<false/>")) return isEmpty = is(Element::boolFalse);
        break;
      case 'r':
        if (take("<real>")) return is(Element::real);
        break;
      default:
        break;
    }
  }
  return readUnusualTag(element, isEmpty);
}

/// A tag with white space or in a form that writers seldom choose.
bool XmlReader::readUnusualTag(Element& element, bool& isEmpty) {
  const char* const start = at_;
  if (isAt("<!")) return fail("markup is not allowed here");
  ++at_;
  std::string_view name;
  if (!readName(name)) return false;
  const auto* const known = std::find(std::begin(elementNames), std::end(elementNames), name);
  if (known == std::end(elementNames)) return fail("unknown element", start);
  element = static_cast<Element>(known - std::begin(elementNames));
  skipSpace();
  isEmpty = take("/>");
  return isEmpty || take(">") || fail("only <plist> has attributes");
}

// Leaves.

bool XmlReader::readLeaf(Element element, bool isEmpty) {
  switch (element) {
    case Element::string:
      if (!isEmpty) return readString();
      scratch_.pushString({});
      return true;
    case Element::boolTrue:
    case Element::boolFalse:
      scratch_.push(element == Element::boolTrue);
      return isEmpty || (isAt("</") ? readEndTag(nameOf(element)) : fail("a boolean element is not empty"));
    case Element::data:
      if (!isEmpty) return readData();
      scratch_.push(PlistData{});
      return true;
    default:
      break;
  }
  if (isEmpty) return fail("an empty element holds no value");
  if (element == Element::integer) return readInteger();
  if (element == Element::real) return readParsed(element, parseReal, "not a real number within range");
  return readParsed(element, parseDate, "not a date");
}

bool XmlReader::readString() {
  std::string_view content;
  if (!readContent("string", content)) return false;
  constexpr std::ptrdiff_t width = 16;  // short text of the input is taken by two loads
  if (content.size() <= PlistStorage::inlineCapacity && isVerbatim(content) && end_ - content.data() >= width) {
    scratch_.push(PlistStorage::makeShortString(content.data(), content.size()));
  } else {
    scratch_.pushString(content);
  }
  return true;
}

/// Nearly every integer is a few digits; all others take the general way.
bool XmlReader::readInteger() {
  const char* digit = at_;
  std::int64_t number = 0;
  const char* const limit = at_ + std::min<std::ptrdiff_t>(end_ - at_, 18);
  for (; digit != limit && *digit >= '0' && *digit <= '9'; ++digit) number = number * 10 + (*digit - '0');
  if (digit == at_ || !startsWith(digit, end_, "</integer>"))
    return readParsed(Element::integer, parseInteger, "not an integer within range");
  at_ = digit + std::string_view("</integer>").size();
  scratch_.push(number);
  return true;
}

bool XmlReader::readParsed(Element element, PlistValue (*parse)(std::string_view), const char* fault) {
  const char* const start = at_;
  std::string_view content;
  if (!readContent(nameOf(element), content)) return false;
  PlistValue value = parse(content);
  if (value.isNull()) return fail(fault, start);
  scratch_.push(std::move(value));
  return true;
}

bool XmlReader::readData() {
  const char* const start = at_;
  PlistValue data;
  // Base64 is checked by its decoder: what that refuses is gathered, if it holds references, comments or sections.
  const auto* tag = static_cast<const char*>(std::memchr(at_, '<', static_cast<std::size_t>(end_ - at_)));
  const bool isWhole = tag != nullptr && startsWith(tag, end_, "</data>");
  if (isWhole && decodeData(at_, tag, data)) {
    at_ = tag + std::string_view("</data>").size();
    scratch_.push(std::move(data));
    return true;
  }
  std::string_view content;
  if (!readContent("data", content)) return false;
  const bool isDecoded =
      !(isWhole && isVerbatim(content)) && decodeData(content.data(), content.data() + content.size(), data);
  if (!isDecoded) return fail("malformed base64", start);
  scratch_.push(std::move(data));
  return true;
}

/// White space may stand anywhere. Padding must be there, and the bits that the last digit leaves over must be zero.
bool XmlReader::decodeData(const char* text, const char* end, PlistValue& data) {
  char* bytes = nullptr;
  data = PlistStorage::allocateData(static_cast<std::size_t>(end - text) / 4 * 3 + 3, bytes);
  char* out = bytes;
  int group[4];
  std::size_t digits = 0;
  std::size_t padding = 0;
  while (text != end) {
    if (digits == 0 && padding == 0) decodeBase64Groups(text, end, out);
    if (text == end) break;
    const char c = *text++;
    if (isXmlSpace(c)) {
      text = skipXmlSpace(text, end);
      continue;
    }
    if (c == '=' && digits + ++padding <= 4 && digits >= 2) continue;
    const int digit = base64Digit(c);
    if (digit < 0 || padding != 0) return false;
    group[digits++] = digit;
    if (digits < 4) continue;
    *out++ = static_cast<char>(group[0] << 2 | group[1] >> 4);
    *out++ = static_cast<char>(group[1] << 4 | group[2] >> 2);
    *out++ = static_cast<char>(group[2] << 6 | group[3]);
    digits = 0;
  }
  if (digits != 0) {
    if (digits + padding != 4) return false;
    const int unused = digits == 2 ? group[1] & 15 : group[2] & 3;
    if (unused != 0) return false;
    *out++ = static_cast<char>(group[0] << 2 | group[1] >> 4);
    if (digits == 3) *out++ = static_cast<char>(group[1] << 4 | group[2] >> 2);
  } else if (padding != 0) {
    return false;
  }
  PlistStorage::shrinkData(data, static_cast<std::size_t>(out - bytes));
  return true;
}

}  // namespace
}  // namespace detail

PlistValue readXmlPropertyList(std::string_view bytes, PlistForm form, PlistError* error) {
  const detail::TextInput input(bytes);
  if (!input.isValid()) {
    if (error != nullptr) *error = input.encodingError();
    return {};
  }
  detail::XmlReader reader(input, form);
  PlistValue value = reader.readDocument();
  if (!value.isNull() || error == nullptr) return value;
  *error = input.error(reader.fault(), reader.faultOffset());
  if (reader.fault() != detail::repeatedKey) return value;
  // A second reading, for its place only.
  detail::XmlReader slowReader(input, form, true);
  slowReader.readDocument();
  *error = input.error(slowReader.fault(), slowReader.faultOffset());
  return value;
}

}  // namespace ostrel
