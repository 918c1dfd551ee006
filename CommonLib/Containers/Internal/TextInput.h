// Text from outside in one of the encodings that property-list text comes in. Not installed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "Containers/PropertyList.h"

namespace ostrel::detail {

/// Appends UTF-16 text as UTF-8. Returns the number of bytes read, which is less than the size at an unpaired
/// surrogate or an odd byte at the end.
std::size_t appendUtf16(std::string& text, std::string_view bytes, bool bigEndian);

/// Text as UTF-8 without a byte-order mark. UTF-8 input is not copied and not checked; UTF-16 input is recognised by
/// its mark, checked and converted.
class TextInput {
 public:
  enum class Encoding : std::uint8_t { utf8, utf16LittleEndian, utf16BigEndian };

  explicit TextInput(std::string_view bytes);

  /// False when the input is UTF-16 that holds an unpaired surrogate or half a character; `error` says where.
  bool isValid() const noexcept { return valid_; }
  std::string_view text() const noexcept { return text_; }
  Encoding encoding() const noexcept { return encoding_; }

  /// The error at a place of `text()`, in terms of the input's own bytes.
  PlistError error(std::string message, std::size_t textOffset) const;
  /// The error of an input that is not valid.
  PlistError encodingError() const { return error("invalid UTF-16", text_.size()); }

 private:
  std::string converted_;
  std::string_view text_;
  std::size_t markLength_ = 0;
  Encoding encoding_ = Encoding::utf8;
  bool valid_ = true;
};

}  // namespace ostrel::detail
