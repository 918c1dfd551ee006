#include "Containers/Utf8.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace ostrel {
namespace {

bool isContinuation(unsigned char byte) noexcept { return (byte & 0xC0) == 0x80; }

/// Length of the character at the start of `bytes`, which is not ASCII; 0 when it is not valid. RFC 3629 section 4.
std::size_t sequenceLength(const unsigned char* bytes, std::size_t left) noexcept {
  const unsigned char lead = bytes[0];
  if (lead >= 0xC2 && lead <= 0xDF) return left >= 2 && isContinuation(bytes[1]) ? 2 : 0;
  if (lead >= 0xE0 && lead <= 0xEF) {
    if (left < 3 || !isContinuation(bytes[1]) || !isContinuation(bytes[2])) return 0;
    if (lead == 0xE0 && bytes[1] < 0xA0) return 0;
    if (lead == 0xED && bytes[1] > 0x9F) return 0;
    return 3;
  }
  if (lead >= 0xF0 && lead <= 0xF4) {
    if (left < 4 || !isContinuation(bytes[1]) || !isContinuation(bytes[2]) || !isContinuation(bytes[3])) return 0;
    if (lead == 0xF0 && bytes[1] < 0x90) return 0;
    if (lead == 0xF4 && bytes[1] > 0x8F) return 0;
    return 4;
  }
  return 0;
}

}  // namespace

std::size_t leadingCharacterLength(std::string_view bytes) noexcept {
  if (bytes.empty()) return 0;
  const auto* text = reinterpret_cast<const unsigned char*>(bytes.data());
  return text[0] < 0x80 ? 1 : sequenceLength(text, bytes.size());
}

std::size_t decodeCharacter(std::string_view bytes, std::uint32_t& character) noexcept {
  const std::size_t length = leadingCharacterLength(bytes);
  if (length == 0) return 0;
  const auto* text = reinterpret_cast<const unsigned char*>(bytes.data());
  constexpr unsigned char leadBits[] = {0, 0x7F, 0x1F, 0x0F, 0x07};
  character = text[0] & leadBits[length];
  for (std::size_t i = 1; i < length; ++i) character = character << 6 | (text[i] & 0x3FU);
  return length;
}

std::size_t validUtf8Prefix(std::string_view bytes) noexcept {
  const auto* text = reinterpret_cast<const unsigned char*>(bytes.data());
  std::size_t at = 0;
  while (at < bytes.size()) {
    std::uint64_t word = 0;
    while (bytes.size() - at >= sizeof word) {  // eight ASCII bytes a step
      std::memcpy(&word, text + at, sizeof word);
      if ((word & 0x8080808080808080) != 0) break;
      at += sizeof word;
    }
    if (at == bytes.size()) break;
    const std::size_t length = text[at] < 0x80 ? 1 : sequenceLength(text + at, bytes.size() - at);
    if (length == 0) break;
    at += length;
  }
  return at;
}

namespace {

/// Number of bytes of the control character that a text begins with, 0 for another one.
std::size_t controlLength(std::string_view text) noexcept {
  const auto byte = [text](std::size_t at) { return static_cast<unsigned char>(text[at]); };
  if (byte(0) < 0x20 || byte(0) == 0x7F) return 1;
  return byte(0) == 0xC2 && text.size() > 1 && byte(1) >= 0x80 && byte(1) <= 0x9F ? 2 : 0;
}

}  // namespace

void appendEscapingControls(std::string& out, std::string_view text, std::string (*escape)(char byte)) {
  while (!text.empty()) {
    const std::size_t control = controlLength(text);
    for (const char byte : text.substr(0, control)) out += escape(byte);
    if (control == 0) out += text.front();
    text.remove_prefix(std::max<std::size_t>(control, 1));
  }
}

void appendUtf8(std::string& text, char32_t character) {
  const auto continuation = [character](unsigned shift) {
    return static_cast<char>(0x80 | ((character >> shift) & 0x3F));
  };
  if (character < 0x80) {
    text += static_cast<char>(character);
  } else if (character < 0x800) {
    text += static_cast<char>(0xC0 | (character >> 6));
    text += continuation(0);
  } else if (character < 0x10000) {
    text += static_cast<char>(0xE0 | (character >> 12));
    text += continuation(6);
    text += continuation(0);
  } else {
    text += static_cast<char>(0xF0 | (character >> 18));
    text += continuation(12);
    text += continuation(6);
    text += continuation(0);
  }
}

}  // namespace ostrel
