// Writes XML property lists.
#include <algorithm>
#include <optional>

#include "Containers/Internal/Base64Blocks.h"
#include "Containers/Internal/ByteScan.h"
#include "Containers/Internal/LeafText.h"
#include "Containers/Internal/OutputBuffer.h"
#include "Containers/Internal/PlistStorage.h"
#include "Containers/Internal/XmlScanner.h"
#include "Containers/PropertyList.h"
#include "Containers/Utf8.h"

namespace ostrel {
namespace detail {
namespace {

constexpr std::string_view rootTag = "<plist version=\"1.0\">\n";
constexpr std::string_view footer = "</plist>\n";

// Characters are written through plain pointers into room that was reserved for the worst case.
constexpr std::size_t longestEscape = 5;
constexpr std::size_t chunk = 1024;      // of text, at a time
constexpr std::size_t tagsAndMore = 64;  // the tags around a value, and what a wide store may write too much
static_assert(chunk * longestEscape + 2 * tagsAndMore < OutputBuffer::maximumReserve);
static_assert(leafTextCapacity + 2 * tagsAndMore < OutputBuffer::maximumReserve);

template <std::size_t Size>
char* put(char* out, const char (&literal)[Size]) noexcept {
  std::memcpy(out, literal, Size - 1);
  return out + Size - 1;
}

/// Tabs for the levels that anybody reads: without a bound, a small document of deep nesting becomes a huge one of
/// tabs.
constexpr std::size_t deepestIndent = 16;

char* putIndent(char* out, std::size_t depth) noexcept {
  std::memset(out, '\t', deepestIndent);  // of fixed size: one store
  return out + std::min(depth, deepestIndent);
}

/// Writes the character at `at`, which is not plain text, as XML has it; nullptr for one that XML cannot carry. A
/// carriage return is written as a reference, because readers turn it into a line feed otherwise.
char* putSpecial(char* out, const char*& at, const char* end) noexcept {
  switch (*at) {
    case '<':
      ++at;
      return put(out, "&lt;");
    case '>':
      ++at;
      return put(out, "&gt;");
    case '&':
      ++at;
      return put(out, "&amp;");
    case '\r':
      ++at;
      return put(out, "&#13;");
    case '\t':
    case '\n':
      *out = *at++;
      return out + 1;
    default:
      break;
  }
  const std::string_view rest(at, static_cast<std::size_t>(end - at));
  const std::size_t length = *at < 0 ? leadingCharacterLength(rest) : 0;
  if (length == 0 || rest.starts_with("\xEF\xBF\xBE") || rest.starts_with("\xEF\xBF\xBF")) return nullptr;
  at += length;
  return std::copy(rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(length), out);
}

/// Writes text from `at` until `limit` is reached, or a little beyond it. `end` is where the text ends.
char* putEscaped(char* out, const char*& at, const char* limit, const char* end) noexcept {
  while (at < limit) {
#ifdef __SSE2__
    if (end - at >= scanWidth) {
      std::memcpy(out, at, scanWidth);
      const unsigned found = notPlainText(load16(at));
      const std::ptrdiff_t plain = found == 0 ? scanWidth : __builtin_ctz(found);
      at += plain;
      out += plain;
      if (found == 0) continue;
    }
#endif
    if (isPlainText(*at)) {
      *out++ = *at++;
    } else if (out = putSpecial(out, at, end); out == nullptr) {
      return nullptr;
    }
  }
  return out;
}

class XmlWriter {
 public:
  std::optional<std::string> writeDocument(const PlistValue& value) {
    out_.expectFrom(value,
                    [](const PlistValue& root) { return sizeof standardProlog + rootTag.size() + estimate(root, 0); });
    out_.append(standardProlog);
    out_.append(rootTag);
    if (!writeValue(value, 0)) return std::nullopt;
    out_.append(footer);
    return out_.finish();
  }

 private:
  static std::size_t estimate(const PlistValue& value, std::size_t depth);
  bool writeValue(const PlistValue& value, std::size_t depth);
  bool writeDictionary(const PlistValue& value, std::size_t depth);
  bool writeArray(const PlistValue& value, std::size_t depth);
  bool writeNumber(const PlistValue& value, std::size_t depth);
  bool writeDate(const PlistValue& value, std::size_t depth);
  void writeData(std::string_view bytes, std::size_t depth);

  /// One line: indentation, start tag, escaped text, end tag.
  template <std::size_t OpenSize, std::size_t CloseSize>
  bool writeText(const PlistValue& string, std::size_t depth, const char (&open)[OpenSize],
                 const char (&close)[CloseSize]);

  template <std::size_t Size>
  bool writeLine(std::size_t depth, const char (&literal)[Size]) {
    out_.advanceTo(put(putIndent(out_.reserve(deepestIndent + tagsAndMore), depth), literal));
    return true;
  }

  OutputBuffer out_;
};

/// The size of what will be written, if no text needs escapes.
std::size_t XmlWriter::estimate(const PlistValue& value, std::size_t depth) {
  constexpr std::size_t tags = 19;  // <string></string> and a line feed, or a key's
  if (depth > maximumPlistDepth) return 0;
  if (value.isString()) return depth + tags + value.stringValue().size();
  if (value.isData()) return 2 * depth + tags + value.dataBytes().size() * 3 / 2;
  std::size_t size = 2 * depth + tags + 10;
  for (const PlistEntry& entry : value.entries())
    size += depth + tags + entry.keyText().size() + estimate(entry.value, depth + 1);
  for (const PlistValue& element : value.elements()) size += estimate(element, depth + 1);
  return size;
}

template <std::size_t OpenSize, std::size_t CloseSize>
inline bool XmlWriter::writeText(const PlistValue& string, std::size_t depth, const char (&open)[OpenSize],
                                 const char (&close)[CloseSize]) {
  const std::string_view text = string.stringValue();
  char* out = put(putIndent(out_.reserve(deepestIndent + chunk * longestEscape + tagsAndMore), depth), open);
#ifdef __SSE2__
  if (text.size() <= PlistStorage::inlineCapacity) {  // then it lives in the handle, which is as wide as a load
    const unsigned found = notPlainText(load16(text.data())) & ((1U << text.size()) - 1);
    if (found == 0) {
      std::memcpy(out, text.data(), scanWidth);
      out_.advanceTo(put(out + text.size(), close));
      return true;
    }
  }
#endif
  const char* at = text.data();
  const char* const end = at + text.size();
  for (;;) {
    const char* const limit = at + std::min<std::ptrdiff_t>(end - at, chunk - tagsAndMore);
    out = putEscaped(out, at, limit, end);
    if (out == nullptr) return false;
    if (at == end) break;
    out_.advanceTo(out);
    out = out_.reserve(chunk * longestEscape + tagsAndMore);
  }
  out_.advanceTo(put(out, close));
  return true;
}

bool XmlWriter::writeValue(const PlistValue& value, std::size_t depth) {
  switch (value.kind()) {
    case PlistValue::Kind::string:
      return writeText(value, depth, "<string>", "</string>\n");
    case PlistValue::Kind::number:
      return writeNumber(value, depth);
    case PlistValue::Kind::boolean:
      return value.boolValue() ? writeLine(depth, "<true/>\n") : writeLine(depth, "<false/>\n");
    case PlistValue::Kind::date:
      return writeDate(value, depth);
    case PlistValue::Kind::data:
      writeData(value.dataBytes(), depth);
      return true;
    case PlistValue::Kind::dictionary:
      return writeDictionary(value, depth);
    case PlistValue::Kind::array:
      return writeArray(value, depth);
    case PlistValue::Kind::null:
      break;
  }
  return false;
}

bool XmlWriter::writeDictionary(const PlistValue& value, std::size_t depth) {
  if (depth == maximumPlistDepth) return false;
  const auto entries = value.entries();
  if (entries.empty()) return writeLine(depth, "<dict/>\n");
  writeLine(depth, "<dict>\n");
  for (const PlistEntry& entry : entries) {
    if (!writeText(entry.key, depth + 1, "<key>", "</key>\n")) return false;
    if (entry.value.isString() ? !writeText(entry.value, depth + 1, "<string>", "</string>\n")
                               : !writeValue(entry.value, depth + 1))
      return false;
  }
  return writeLine(depth, "</dict>\n");
}

bool XmlWriter::writeArray(const PlistValue& value, std::size_t depth) {
  if (depth == maximumPlistDepth) return false;
  const auto elements = value.elements();
  if (elements.empty()) return writeLine(depth, "<array/>\n");
  writeLine(depth, "<array>\n");
  for (const PlistValue& element : elements) {
    if (!writeValue(element, depth + 1)) return false;
  }
  return writeLine(depth, "</array>\n");
}

bool XmlWriter::writeNumber(const PlistValue& value, std::size_t depth) {
  char* out = putIndent(out_.reserve(deepestIndent + leafTextCapacity + tagsAndMore), depth);
  if (value.isReal()) {
    out = put(writeReal(put(out, "<real>"), value.doubleValue()), "</real>\n");
  } else {
    out = put(writeInteger(put(out, "<integer>"), value), "</integer>\n");
  }
  out_.advanceTo(out);
  return true;
}

bool XmlWriter::writeDate(const PlistValue& value, std::size_t depth) {
  char* const start = put(putIndent(out_.reserve(deepestIndent + leafTextCapacity + tagsAndMore), depth), "<date>");
  char* const end = detail::writeDate(start, value.dateValue());
  if (end == nullptr) return false;
  out_.advanceTo(put(end, "</date>\n"));
  return true;
}

/// Lines of at most 76 columns, a tab counting eight, indented like the element.
void XmlWriter::writeData(std::string_view bytes, std::size_t depth) {
  constexpr std::size_t deepest = 8;
  const std::size_t lineDepth = std::min(depth, deepest);
  const std::size_t bytesPerLine = (76 - 8 * lineDepth) / 4 * 3;
  writeLine(depth, "<data>\n");
  while (!bytes.empty()) {
    const std::string_view line = bytes.substr(0, bytesPerLine);
    char* const out = encodeBase64Block(putIndent(out_.reserve(chunk), lineDepth), line.data(), line.size());
    *out = '\n';
    out_.advanceTo(out + 1);
    bytes.remove_prefix(line.size());
  }
  writeLine(depth, "</data>\n");
}

}  // namespace
}  // namespace detail

std::optional<std::string> writeXmlPropertyList(const PlistValue& value) {
  detail::XmlWriter writer;  // not `XmlWriter()`, which would clear its whole buffer first
  return writer.writeDocument(value);
}

}  // namespace ostrel
