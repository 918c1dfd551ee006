// The parts of XML 1.0 (fifth edition) that do not depend on what the document is about. Not installed.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "Containers/Internal/ByteScan.h"
#include "Containers/Internal/TextInput.h"

namespace ostrel::detail {

/// What our writer and most others put before the element.
inline constexpr char standardProlog[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n";

/// Walks once over UTF-8 text. Every operation moves past what it read and answers true, or keeps the first fault and
/// answers false; after a fault the scanner must not be asked for more.
class XmlScanner {
 public:
  XmlScanner(std::string_view text, TextInput::Encoding encoding) noexcept
      : begin_(text.data()), at_(begin_), end_(begin_ + text.size()), encoding_(encoding) {}

  const char* fault() const noexcept { return fault_; }
  std::size_t faultOffset() const noexcept { return static_cast<std::size_t>(faultAt_ - begin_); }

 protected:
  template <std::size_t Size>
  bool isAt(const char (&literal)[Size]) const noexcept {
    return startsWith(at_, end_, literal);
  }
  template <std::size_t Size>
  bool take(const char (&literal)[Size]) noexcept {
    if (!isAt(literal)) return false;
    at_ += Size - 1;
    return true;
  }
  void skipSpace() noexcept { at_ = skipXmlSpace(at_, end_); }

  [[gnu::cold]] bool fail(const char* message, const char* at) noexcept {
    if (fault_ == nullptr) {
      fault_ = message;
      faultAt_ = at;
    }
    return false;
  }
  bool fail(const char* message) noexcept { return fail(message, at_); }

  /// The XML declaration, comments, processing instructions and the document type, up to the first element's '<'.
  bool readProlog();
  /// White space, comments and processing instructions, up to anything else or the end.
  bool readMisc();
  bool readMiscMarkup();

  /// The characters of an element whose start tag was read, through its end tag. `content` is a piece of the input
  /// when every character stands for itself (`isVerbatim`), and of a buffer that the next call overwrites otherwise.
  bool readContent(std::string_view name, std::string_view& content) {
    const char* const start = at_;
    if (!readVerbatimText()) return false;
    content = {start, static_cast<std::size_t>(at_ - start)};
    if (isAt("</")) return readEndTag(name);
    return gatherContent(name, content);
  }
  bool isVerbatim(std::string_view content) const noexcept {
    return content.data() >= begin_ && content.data() <= end_;
  }
  bool readEndTag(std::string_view name);

  /// A start tag's or declaration's name.
  bool readName(std::string_view& name);
  /// white space, name, '=' and quoted value; `found` is false when the tag ends instead.
  bool readAttribute(std::string_view& name, std::string_view& value, bool& found);

  /// Text up to the first '<', '&', carriage return or the end.
  bool readVerbatimText();

  const char* begin_;
  const char* at_;
  const char* end_;

 private:
  bool gatherContent(std::string_view name, std::string_view& content);
  bool gatherReference();
  bool gatherNumericReference();
  bool gatherCData();
  bool readMultibyteCharacter();
  bool readDeclaration();
  bool checkEncodingName(std::string_view name, const char* at);
  bool readComment();
  bool readInstruction();
  bool readThrough(std::string_view terminator, const char* unterminated);
  bool readDocumentType();
  bool readInternalSubset();
  bool readSubsetDeclaration();
  bool readQuoted(std::string_view& value);
  bool readLiteral(std::string_view& value);

  TextInput::Encoding encoding_;
  const char* fault_ = nullptr;
  const char* faultAt_ = nullptr;
  std::string gathered_;
};

}  // namespace ostrel::detail
