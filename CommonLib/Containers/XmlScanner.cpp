#include "Containers/Internal/XmlScanner.h"

#include <algorithm>
#include <cstdint>

#include "Containers/Utf8.h"
#include "Containers/XmlText.h"

namespace ostrel::detail {
namespace {

bool isNameStart(char c) noexcept {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == ':' || c < 0;
}
bool isNameCharacter(char c) noexcept { return isNameStart(c) || (c >= '0' && c <= '9') || c == '-' || c == '.'; }

bool equalsIgnoringCase(std::string_view text, std::string_view upper) noexcept {
  return std::ranges::equal(text, upper, [](char a, char b) { return (a >= 'a' && a <= 'z' ? a - 32 : a) == b; });
}

int hexDigit(char c) noexcept {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

struct NamedEntity {
  std::string_view reference;
  char character;
};
constexpr NamedEntity namedEntities[] = {
    {"&lt;", '<'}, {"&gt;", '>'}, {"&amp;", '&'}, {"&quot;", '"'}, {"&apos;", '\''}};

}  // namespace

// Text.

bool XmlScanner::readVerbatimText() {
  const char* const start = at_;
  for (;;) {
    at_ = skipPlainText(at_, end_);
    if (at_ == end_) return true;
    switch (*at_) {
      case '<':
      case '&':
      case '\r':
        return true;
      case '>':
        if (at_ - start >= 2 && at_[-1] == ']' && at_[-2] == ']') return fail("\"]]>\" in text", at_ - 2);
        [[fallthrough]];
      case '\t':
      case '\n':
        ++at_;
        break;
      default:
        if (!readMultibyteCharacter()) return false;
    }
  }
}

bool XmlScanner::readMultibyteCharacter() {
  if (*at_ >= 0) return fail("control character");
  const std::string_view rest(at_, std::min<std::size_t>(4, static_cast<std::size_t>(end_ - at_)));
  const std::size_t length = leadingCharacterLength(rest);
  if (length == 0) return fail("invalid UTF-8");
  if (rest.starts_with("\xEF\xBF\xBE") || rest.starts_with("\xEF\xBF\xBF")) return fail("character outside XML");
  at_ += length;
  return true;
}

bool XmlScanner::gatherContent(std::string_view name, std::string_view& content) {
  gathered_.assign(content);
  for (;;) {
    if (at_ == end_) return fail("the document ends within an element");
    if (*at_ == '&') {
      if (!gatherReference()) return false;
    } else if (*at_ == '\r') {
      gathered_ += '\n';
      at_ += isAt("\r\n") ? 2 : 1;
    } else if (isAt("</")) {
      content = gathered_;
      return readEndTag(name);
    } else if (isAt("<![CDATA[")) {
      if (!gatherCData()) return false;
    } else if (*at_ == '<') {
      if (!isAt("<!--") && !isAt("<?")) return fail("an element that holds text holds another element");
      if (!readMiscMarkup()) return false;
    }
    const char* const start = at_;
    if (!readVerbatimText()) return false;
    gathered_.append(start, at_);
  }
}

bool XmlScanner::gatherReference() {
  if (isAt("&#")) return gatherNumericReference();
  for (const auto& [reference, character] : namedEntities) {
    if (std::string_view(at_, static_cast<std::size_t>(end_ - at_)).starts_with(reference)) {
      gathered_ += character;
      at_ += reference.size();
      return true;
    }
  }
  return fail("unknown entity");
}

bool XmlScanner::gatherNumericReference() {
  const char* const start = at_;
  at_ += 2;
  const std::uint32_t base = take("x") ? 16 : 10;
  const char* const digits = at_;
  std::uint32_t character = 0;
  for (; at_ != end_ && *at_ != ';'; ++at_) {
    const int digit = hexDigit(*at_);
    if (digit < 0 || static_cast<std::uint32_t>(digit) >= base) return fail("malformed character reference", start);
    character = std::min<std::uint32_t>(character * base + static_cast<std::uint32_t>(digit), 0x110000);
  }
  if (at_ == end_ || at_ == digits) return fail("malformed character reference", start);
  if (!isXmlCharacter(character)) return fail("reference to a character outside XML", start);
  ++at_;
  appendUtf8(gathered_, character);
  return true;
}

bool XmlScanner::gatherCData() {
  const char* const opening = at_;
  at_ += std::string_view("<![CDATA[").size();
  for (const char* start = at_;;) {
    at_ = skipPlainText(at_, end_);
    if (at_ == end_) return fail("unterminated CDATA section", opening);
    if (*at_ == '>' && at_ - start >= 2 && at_[-1] == ']' && at_[-2] == ']') {
      gathered_.append(start, at_ - 2);
      ++at_;
      return true;
    }
    if (*at_ == '\r') {
      gathered_.append(start, at_);
      gathered_ += '\n';
      at_ += isAt("\r\n") ? 2 : 1;
      start = at_;
    } else if (isPlainText(*at_) || *at_ == '<' || *at_ == '>' || *at_ == '&' || *at_ == '\t' || *at_ == '\n') {
      ++at_;
    } else if (!readMultibyteCharacter()) {
      return false;
    }
  }
}

// Tags.

bool XmlScanner::readName(std::string_view& name) {
  const char* const start = at_;
  if (at_ == end_ || !isNameStart(*at_)) return fail("a name is missing");
  while (at_ != end_ && isNameCharacter(*at_)) ++at_;
  name = {start, static_cast<std::size_t>(at_ - start)};
  return isValidUtf8(name) || fail("invalid UTF-8", start);
}

bool XmlScanner::readEndTag(std::string_view name) {
  const char* const start = at_;
  at_ += 2;
  const bool same = std::string_view(at_, static_cast<std::size_t>(end_ - at_)).starts_with(name);
  if (!same || end_ - at_ == static_cast<std::ptrdiff_t>(name.size())) return fail("mismatched end tag", start);
  at_ += name.size();
  if (*at_ == '>') {
    ++at_;
    return true;
  }
  skipSpace();
  return take(">") || fail("mismatched end tag", start);
}

bool XmlScanner::readAttribute(std::string_view& name, std::string_view& value, bool& found) {
  const char* const start = at_;
  skipSpace();
  found = !isAt(">") && !isAt("/>") && !isAt("?>");
  if (!found) return true;
  if (at_ == start) return fail("white space is missing");
  if (!readName(name)) return false;
  skipSpace();
  if (!take("=")) return fail("an attribute has no value");
  skipSpace();
  return readQuoted(value);
}

/// An attribute's value. References are refused: no attribute that is read here needs one.
bool XmlScanner::readQuoted(std::string_view& value) {
  if (!readLiteral(value)) return false;
  const std::size_t markup = value.find_first_of("<&");
  return markup == std::string_view::npos || fail("markup in a quoted value", value.data() + markup);
}

/// Anything between quotes, such as an address with '&' in it.
bool XmlScanner::readLiteral(std::string_view& value) {
  if (at_ == end_ || (*at_ != '"' && *at_ != '\'')) return fail("a quoted value is missing");
  const char quote = *at_;
  const char* const start = ++at_;
  while (at_ != end_ && *at_ != quote) {
    if (*at_ >= ' ' || isXmlSpace(*at_)) {
      ++at_;
    } else if (!readMultibyteCharacter()) {
      return false;
    }
  }
  if (at_ == end_) return fail("unterminated quoted value", start - 1);
  value = {start, static_cast<std::size_t>(at_ - start)};
  ++at_;
  return true;
}

// Around the element.

bool XmlScanner::readProlog() {
  if (encoding_ == TextInput::Encoding::utf8 && take(standardProlog)) {
    if (!readMisc()) return false;
  } else {
    if (isAt("<?xml") && end_ - at_ > 5 && isXmlSpace(at_[5]) && !readDeclaration()) return false;
    if (!readMisc()) return false;
    if (isAt("<!DOCTYPE") && !(readDocumentType() && readMisc())) return false;
  }
  if (at_ == end_) return fail("the document holds no element");
  return *at_ == '<' || fail("text outside the document's element");
}

bool XmlScanner::readDeclaration() {
  at_ += std::string_view("<?xml").size();
  constexpr std::string_view order[] = {"version", "encoding", "standalone"};
  std::size_t next = 0;
  for (;;) {
    std::string_view name;
    std::string_view value;
    bool found = false;
    if (!readAttribute(name, value, found)) return false;
    if (!found) break;
    while (next < std::size(order) && order[next] != name && next != 0) ++next;
    if (next == std::size(order) || order[next] != name) return fail("malformed XML declaration", name.data());
    ++next;
    if (name == "version" && value != "1.0") return fail("this version of XML is not supported", value.data());
    if (name == "encoding" && !checkEncodingName(value, value.data())) return false;
    if (name == "standalone" && value != "yes" && value != "no") return fail("malformed XML declaration", value.data());
  }
  if (next == 0) return fail("malformed XML declaration");
  return take("?>") || fail("malformed XML declaration");
}

bool XmlScanner::checkEncodingName(std::string_view name, const char* at) {
  using Encoding = TextInput::Encoding;
  const bool wide = encoding_ != Encoding::utf8;
  if (equalsIgnoringCase(name, "UTF-8")) return !wide || fail("the text is not in the encoding that it declares", at);
  if (equalsIgnoringCase(name, "US-ASCII") || equalsIgnoringCase(name, "ASCII")) {
    const bool ascii = !wide && isAscii({begin_, static_cast<std::size_t>(end_ - begin_)});
    return ascii || fail("the text is not in the encoding that it declares", at);
  }
  const bool little = equalsIgnoringCase(name, "UTF-16LE");
  const bool big = equalsIgnoringCase(name, "UTF-16BE");
  if (!little && !big && !equalsIgnoringCase(name, "UTF-16")) return fail("this encoding is not supported", at);
  const bool same =
      wide && !(little && encoding_ == Encoding::utf16BigEndian) && !(big && encoding_ == Encoding::utf16LittleEndian);
  return same || fail("the text is not in the encoding that it declares", at);
}

bool XmlScanner::readMisc() {
  for (;;) {
    skipSpace();
    if (!isAt("<!--") && !isAt("<?")) return true;
    if (!readMiscMarkup()) return false;
  }
}

bool XmlScanner::readMiscMarkup() { return isAt("<?") ? readInstruction() : readComment(); }

/// Characters up to and with the first `terminator`, which ends in '>'.
bool XmlScanner::readThrough(std::string_view terminator, const char* unterminated) {
  const char* const start = at_;
  for (;;) {
    at_ = skipPlainText(at_, end_);
    if (at_ == end_) return fail(unterminated, start);
    if (*at_ >= ' ' || isXmlSpace(*at_)) {
      ++at_;
      if (std::string_view(start, static_cast<std::size_t>(at_ - start)).ends_with(terminator)) return true;
    } else if (!readMultibyteCharacter()) {
      return false;
    }
  }
}

bool XmlScanner::readComment() {
  at_ += std::string_view("<!--").size();
  const char* const start = at_;
  if (!readThrough("-->", "unterminated comment")) return false;
  const std::string_view text(start, static_cast<std::size_t>(at_ - start) - 3);
  const std::size_t hyphens = text.find("--");
  if (hyphens != std::string_view::npos) return fail("\"--\" in a comment", start + hyphens);
  return !text.ends_with('-') || fail("\"--\" in a comment", at_ - 4);
}

bool XmlScanner::readInstruction() {
  at_ += std::string_view("<?").size();
  std::string_view target;
  if (!readName(target)) return false;
  if (equalsIgnoringCase(target, "XML")) return fail("misplaced XML declaration", target.data());
  if (at_ != end_ && !isXmlSpace(*at_) && !isAt("?>")) return fail("malformed processing instruction");
  return readThrough("?>", "unterminated processing instruction");
}

// Document type.

bool XmlScanner::readDocumentType() {
  at_ += std::string_view("<!DOCTYPE").size();
  const auto spaceThen = [this](auto&& step) {
    const char* const before = at_;
    skipSpace();
    return at_ == before ? fail("white space is missing") : step();
  };
  std::string_view ignored;
  const auto quoted = [&] { return readLiteral(ignored); };
  if (!spaceThen([&] { return readName(ignored); })) return false;
  const char* const afterName = at_;
  skipSpace();
  const bool isPublic = isAt("PUBLIC");
  if (isPublic || isAt("SYSTEM")) {
    if (at_ == afterName) return fail("white space is missing");
    at_ += 6;
    if (isPublic && !spaceThen(quoted)) return false;
    if (!spaceThen(quoted)) return false;
    skipSpace();
  }
  if (take("[") && !readInternalSubset()) return false;
  skipSpace();
  return take(">") || fail("malformed document type");
}

bool XmlScanner::readInternalSubset() {
  for (;;) {
    if (!readMisc()) return false;
    if (take("]")) return true;
    if (isAt("<!ENTITY")) return fail("entity declarations are refused");
    if (!isAt("<!ELEMENT") && !isAt("<!ATTLIST") && !isAt("<!NOTATION")) return fail("malformed document type");
    if (!readSubsetDeclaration()) return false;
  }
}

/// A declaration is passed over: it says nothing that a reader of property lists does not know.
bool XmlScanner::readSubsetDeclaration() {
  const char* const start = at_;
  ++at_;
  for (;;) {
    if (at_ == end_) return fail("unterminated declaration", start);
    const char c = *at_;
    if (c == '>') break;
    std::string_view ignored;
    if (c == '"' || c == '\'') {
      if (!readLiteral(ignored)) return false;
    } else if (c == '<' || c == '%' || c == '&') {
      return fail("malformed declaration");
    } else if (c >= ' ' || isXmlSpace(c)) {
      ++at_;
    } else if (!readMultibyteCharacter()) {
      return false;
    }
  }
  ++at_;
  return true;
}

}  // namespace ostrel::detail
