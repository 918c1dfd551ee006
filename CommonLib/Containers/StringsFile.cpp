// Reads "strings" files: the texts of a program by their keys.
#include <cstdint>
#include <string>
#include <utility>

#include "Containers/Internal/ByteScan.h"
#include "Containers/Internal/TextInput.h"
#include "Containers/PropertyList.h"
#include "Containers/Utf8.h"

namespace ostrel {
namespace detail {
namespace {

bool isWordCharacter(char c) noexcept {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         std::string_view("_$/:.-").find(c) != std::string_view::npos;
}

int digitOf(char c, int base) noexcept {
  int digit = 99;
  if (c >= '0' && c <= '9') digit = c - '0';
  if (c >= 'a' && c <= 'f') digit = c - 'a' + 10;
  if (c >= 'A' && c <= 'F') digit = c - 'A' + 10;
  return digit < base ? digit : -1;
}

class StringsReader {
 public:
  StringsReader(std::string_view text, PlistForm form)
      : begin_(text.data()),
        at_(begin_),
        end_(begin_ + text.size()),
        mutableContainers_(form == PlistForm::mutableContainers) {}

  /// Null after a fault.
  PlistValue readFile() {
    for (;;) {
      if (!skipBlanks()) return {};
      if (at_ == end_) break;
      if (!readPair()) return {};
    }
    return mutableContainers_ ? texts_ : texts_.immutableCopy();
  }
  const char* fault() const noexcept { return fault_; }
  std::size_t faultOffset() const noexcept { return static_cast<std::size_t>(faultAt_ - begin_); }

 private:
  bool skipBlanks();
  bool readPair();
  bool readText(PlistValue& text);
  bool readQuoted(PlistValue& text);
  bool readEscape();
  bool readUtf16Escape();
  bool readHexUnit(std::uint32_t& unit);

  bool isAt(char c) const noexcept { return at_ != end_ && *at_ == c; }
  [[gnu::cold]] bool fail(const char* fault, const char* at) noexcept {
    fault_ = fault;
    faultAt_ = at;
    return false;
  }

  const char* begin_;
  const char* at_;
  const char* end_;
  const bool mutableContainers_;
  PlistValue texts_ = PlistValue::mutableDictionary();
  std::string gathered_;
  const char* fault_ = "";
  const char* faultAt_ = begin_;
};

/// White space and comments.
bool StringsReader::skipBlanks() {
  for (;;) {
    at_ = skipXmlSpace(at_, end_);
    const std::string_view rest(at_, static_cast<std::size_t>(end_ - at_));
    const bool isLine = rest.starts_with("//");
    if (!isLine && !rest.starts_with("/*")) return true;
    const std::size_t length = isLine ? rest.find_first_of("\r\n") : rest.find("*/", 2);
    if (length == std::string_view::npos && !isLine) return fail("unterminated comment", at_);
    const std::string_view comment = rest.substr(0, length);
    if (const std::size_t valid = validUtf8Prefix(comment); valid != comment.size())
      return fail("invalid UTF-8", at_ + valid);
    at_ += comment.size() + (isLine ? 0 : 2);
  }
}

/// `key = value;`, or `key;` for a key that is its own value.
bool StringsReader::readPair() {
  const char* const start = at_;
  PlistValue key;
  if (!readText(key) || !skipBlanks()) return false;
  if (texts_.contains(key.stringValue())) return fail("a key appears twice", start);
  PlistValue value = key;
  if (isAt('=')) {
    ++at_;
    if (!skipBlanks() || !readText(value) || !skipBlanks()) return false;
  }
  if (!isAt(';')) return fail("';' is missing", at_);
  ++at_;
  return texts_.set(key.stringValue(), std::move(value));
}

bool StringsReader::readText(PlistValue& text) {
  if (isAt('"') || isAt('\'')) return readQuoted(text);
  const char* const start = at_;
  while (at_ != end_ && isWordCharacter(*at_)) ++at_;
  if (at_ == start) return fail("a text is missing", at_);
  text = PlistValue(std::string_view(start, static_cast<std::size_t>(at_ - start)));
  return true;
}

bool StringsReader::readQuoted(PlistValue& text) {
  const char* const opening = at_;
  const char quote = *at_++;
  gathered_.clear();
  for (;;) {
    const char* const start = at_;
    while (at_ != end_ && *at_ != quote && *at_ != '\\' && (*at_ < 0 || *at_ >= ' ' || isXmlSpace(*at_))) ++at_;
    const std::string_view plain(start, static_cast<std::size_t>(at_ - start));
    if (const std::size_t valid = validUtf8Prefix(plain); valid != plain.size())
      return fail("invalid UTF-8", start + valid);
    gathered_ += plain;
    if (at_ == end_) return fail("unterminated text", opening);
    if (*at_ == quote) break;
    if (*at_ != '\\') return fail("control character", at_);
    if (!readEscape()) return false;
  }
  ++at_;
  text = PlistValue(gathered_);
  return true;
}

bool StringsReader::readEscape() {
  constexpr std::string_view names = "\"'\\\n?abfnrtv";
  constexpr std::string_view meanings = "\"'\\\n?\a\b\f\n\r\t\v";
  const char* const start = at_++;
  if (at_ == end_) return fail("unterminated text", start);
  if (*at_ == 'U' || *at_ == 'u') return readUtf16Escape();
  if (const std::size_t which = names.find(*at_); which != std::string_view::npos) {
    gathered_ += meanings[which];
    ++at_;
    return true;
  }
  std::uint32_t character = 0;
  const char* const digits = at_;
  for (; at_ != end_ && at_ - digits < 3 && digitOf(*at_, 8) >= 0; ++at_)
    character = character * 8 + static_cast<std::uint32_t>(digitOf(*at_, 8));
  if (at_ == digits || character > 0xFF) return fail("unknown escape", start);
  appendUtf8(gathered_, character);
  return true;
}

bool StringsReader::readHexUnit(std::uint32_t& unit) {
  if (end_ - at_ < 5) return false;
  unit = 0;
  for (++at_; const char c : std::string_view(at_, 4)) {
    if (digitOf(c, 16) < 0) return false;
    unit = unit * 16 + static_cast<std::uint32_t>(digitOf(c, 16));
  }
  at_ += 4;
  return true;
}

/// A UTF-16 unit in four hexadecimal digits. A character beyond U+FFFF is two of them.
bool StringsReader::readUtf16Escape() {
  const char* const start = at_ - 1;
  std::uint32_t character = 0;
  if (!readHexUnit(character)) return fail("malformed escape", start);
  if (character >= 0xD800 && character < 0xDC00) {
    std::uint32_t low = 0;
    if (!isAt('\\') || end_ - at_ < 6 || (at_[1] != 'U' && at_[1] != 'u')) return fail("unpaired surrogate", start);
    ++at_;
    if (!readHexUnit(low)) return fail("malformed escape", start);
    if (low < 0xDC00 || low > 0xDFFF) return fail("unpaired surrogate", start);
    character = 0x10000 + ((character - 0xD800) << 10) + (low - 0xDC00);
  } else if (character >= 0xDC00 && character < 0xE000) {
    return fail("unpaired surrogate", start);
  }
  appendUtf8(gathered_, character);
  return true;
}

}  // namespace
}  // namespace detail

PlistValue readStringsFile(std::string_view bytes, PlistForm form, PlistError* error) {
  const detail::TextInput input(bytes);
  if (!input.isValid()) {
    if (error != nullptr) *error = input.encodingError();
    return {};
  }
  detail::StringsReader reader(input.text(), form);
  PlistValue value = reader.readFile();
  if (value.isNull() && error != nullptr) *error = input.error(reader.fault(), reader.faultOffset());
  return value;
}

}  // namespace ostrel
