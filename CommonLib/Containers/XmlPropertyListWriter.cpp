// Writes XML property lists.
#include <algorithm>
#include <optional>

#include "Containers/Internal/Base64Blocks.h"
#include "Containers/Internal/ByteScan.h"
#include "Containers/Internal/LeafText.h"
#include "Containers/Internal/OutputBuffer.h"
#include "Containers/PropertyList.h"
#include "Containers/Utf8.h"

namespace ostrel {
namespace detail {
namespace {

constexpr std::string_view header =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n";
constexpr std::string_view footer = "</plist>\n";

class XmlWriter {
 public:
  std::optional<std::string> writeDocument(const PlistValue& value) {
    out_.append(header);
    if (!writeValue(value, 0)) return std::nullopt;
    out_.append(footer);
    return out_.finish();
  }

 private:
  bool writeValue(const PlistValue& value, std::size_t depth);
  bool writeDictionary(const PlistValue& value, std::size_t depth);
  bool writeArray(const PlistValue& value, std::size_t depth);
  bool writeText(std::string_view open, std::string_view text, std::string_view close);
  bool writeEscaped(std::string_view text);
  bool writeNumber(const PlistValue& value);
  bool writeDate(const PlistValue& value);
  void writeData(std::string_view bytes, std::size_t depth);

  void indent(std::size_t depth) {
    char* const out = out_.reserve(depth);
    std::memset(out, '\t', depth);
    out_.advanceTo(out + depth);
  }
  bool put(std::string_view text) {
    out_.append(text);
    return true;
  }

  OutputBuffer out_;
};

bool XmlWriter::writeValue(const PlistValue& value, std::size_t depth) {
  indent(depth);
  switch (value.kind()) {
    case PlistValue::Kind::string:
      return writeText("<string>", value.stringValue(), "</string>\n");
    case PlistValue::Kind::number:
      return writeNumber(value);
    case PlistValue::Kind::boolean:
      return put(value.boolValue() ? "<true/>\n" : "<false/>\n");
    case PlistValue::Kind::date:
      return writeDate(value);
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
  if (value.count() == 0) return put("<dict/>\n");
  out_.append("<dict>\n");
  for (const PlistEntry& entry : value.entries()) {
    indent(depth + 1);
    if (!writeText("<key>", entry.keyText(), "</key>\n") || !writeValue(entry.value, depth + 1)) return false;
  }
  indent(depth);
  return put("</dict>\n");
}

bool XmlWriter::writeArray(const PlistValue& value, std::size_t depth) {
  if (depth == maximumPlistDepth) return false;
  if (value.count() == 0) return put("<array/>\n");
  out_.append("<array>\n");
  for (const PlistValue& element : value.elements()) {
    if (!writeValue(element, depth + 1)) return false;
  }
  indent(depth);
  return put("</array>\n");
}

bool XmlWriter::writeText(std::string_view open, std::string_view text, std::string_view close) {
  out_.append(open);
  if (!writeEscaped(text)) return false;
  return put(close);
}

/// False for what XML cannot carry. A carriage return is written as a reference, because readers turn it into a line
/// feed otherwise.
bool XmlWriter::writeEscaped(std::string_view text) {
  const char* at = text.data();
  const char* const end = at + text.size();
  const char* start = at;
  const auto replace = [&](std::string_view replacement) {
    out_.append({start, static_cast<std::size_t>(at - start)});
    out_.append(replacement);
    start = ++at;
  };
  for (;;) {
    at = skipPlainText(at, end);
    if (at == end) break;
    if (*at == '<') {
      replace("&lt;");
    } else if (*at == '>') {
      replace("&gt;");
    } else if (*at == '&') {
      replace("&amp;");
    } else if (*at == '\r') {
      replace("&#13;");
    } else if (*at == '\t' || *at == '\n') {
      ++at;
    } else {
      const std::string_view rest(at, static_cast<std::size_t>(end - at));
      const std::size_t length = *at < 0 ? leadingCharacterLength(rest) : 0;
      if (length == 0 || rest.starts_with("\xEF\xBF\xBE") || rest.starts_with("\xEF\xBF\xBF")) return false;
      at += length;
    }
  }
  out_.append({start, static_cast<std::size_t>(end - start)});
  return true;
}

bool XmlWriter::writeNumber(const PlistValue& value) {
  char text[leafTextCapacity];
  const bool isReal = value.isReal();
  char* const end = isReal ? writeReal(text, value.doubleValue()) : writeInteger(text, value);
  out_.append(isReal ? "<real>" : "<integer>");
  out_.append({text, static_cast<std::size_t>(end - text)});
  return put(isReal ? "</real>\n" : "</integer>\n");
}

bool XmlWriter::writeDate(const PlistValue& value) {
  char text[leafTextCapacity];
  const char* const end = detail::writeDate(text, value.dateValue());
  if (end == nullptr) return false;
  out_.append("<date>");
  out_.append({text, static_cast<std::size_t>(end - text)});
  return put("</date>\n");
}

/// Lines of at most 76 columns, a tab counting eight, indented like the element.
void XmlWriter::writeData(std::string_view bytes, std::size_t depth) {
  constexpr std::size_t deepest = 8;
  const std::size_t bytesPerLine = (76 - 8 * std::min(depth, deepest)) / 4 * 3;
  out_.append("<data>\n");
  while (!bytes.empty()) {
    const std::string_view line = bytes.substr(0, bytesPerLine);
    indent(std::min(depth, deepest));
    char* const out = encodeBase64Block(out_.reserve(80), line.data(), line.size());
    *out = '\n';
    out_.advanceTo(out + 1);
    bytes.remove_prefix(line.size());
  }
  indent(depth);
  out_.append("</data>\n");
}

}  // namespace
}  // namespace detail

std::optional<std::string> writeXmlPropertyList(const PlistValue& value) {
  return detail::XmlWriter().writeDocument(value);
}

}  // namespace ostrel
