// The hexadecimal buffer codec of Envelope.h.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "PluginFramework/Envelope.h"

namespace ostrel {
namespace {

constexpr std::size_t longestHexText = 2U * 1024 * 1024 + 4;

bool isDigit(unsigned char c) { return c >= '0' && c <= '9'; }

// Other characters than digits are not refused, and the two nibbles differ in what they make of them: callers rely on
// text that decoded so far to decode alike.
unsigned highNibble(unsigned char c) { return isDigit(c) ? c - unsigned{'0'} : (c - 55U) & 0xFU; }
unsigned lowNibble(unsigned char c) {
  if (isDigit(c)) return c - unsigned{'0'};
  return c >= 'A' && c <= 'F' ? c - 55U : c - 87U;
}

}  // namespace

const char* hexencode_buffer(const void* bytes, std::size_t length, char*& outText) {
  outText = nullptr;
  if (length > (SIZE_MAX - 2) / 2) return errors::cannotAllocate;
  char* text = static_cast<char*>(std::malloc(length * 2 + 2));
  if (text == nullptr) return errors::cannotAllocate;
  const auto* from = static_cast<const unsigned char*>(bytes);
  char* to = text;
  for (std::size_t i = 0; i < length; ++i) {
    *to++ = "0123456789ABCDEF"[from[i] >> 4];
    *to++ = "0123456789ABCDEF"[from[i] & 0xF];
  }
  *to = '\0';
  outText = text;
  return nullptr;
}

const char* hexdecode_buffer(const char* text, unsigned char*& outBytes, std::size_t& outLength) {
  outBytes = nullptr;
  const std::size_t length = std::strlen(text);
  if (length > longestHexText) return errors::cannotAllocate;
  auto* bytes = static_cast<unsigned char*>(std::malloc(length / 2 + 1));
  if (bytes == nullptr) return errors::cannotAllocate;

  const auto* from = reinterpret_cast<const unsigned char*>(text);
  std::size_t written = 0;
  for (std::size_t i = 0; i < length;) {
    if (from[i] > ' ' && from[i + 1] > ' ') {  // the NUL at the end is not above a space
      bytes[written++] = static_cast<unsigned char>(highNibble(from[i]) << 4 | lowNibble(from[i + 1]));
      i += 2;
    } else {
      ++i;
    }
  }
  outBytes = bytes;
  outLength = written;
  return nullptr;
}

}  // namespace ostrel
