#include "Containers/Base64.h"

#include <array>
#include <cstring>

#include "Containers/Internal/Base64Blocks.h"

#if defined(__x86_64__)
#include <tmmintrin.h>
#endif

namespace ostrel {
namespace detail {
namespace {

constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint32_t noDigit = 0xFF000000;

/// Two characters for each twelve bits: half the look-ups of one character for each six.
constexpr auto pairs = [] {
  std::array<std::array<char, 2>, 4096> table{};
  for (std::size_t i = 0; i < table.size(); ++i) table[i] = {alphabet[i >> 6], alphabet[i & 63]};
  return table;
}();

/// For each of the four places in a group, the digit at its final place in 24 bits.
constexpr auto digits = [] {
  std::array<std::array<std::uint32_t, 256>, 4> table{};
  for (auto& place : table) place.fill(noDigit);
  for (std::uint32_t digit = 0; digit < 64; ++digit) {
    for (std::size_t place = 0; place < 4; ++place) {
      table[place][static_cast<unsigned char>(alphabet[digit])] = digit << (18 - 6 * place);
    }
  }
  return table;
}();

unsigned byteAt(const char* bytes, std::size_t at) noexcept { return static_cast<unsigned char>(bytes[at]); }

void writePair(char* out, unsigned twelveBits) noexcept { std::memcpy(out, pairs[twelveBits].data(), 2); }

}  // namespace

char* encodeBase64Block(char* out, const char* bytes, std::size_t count) noexcept {
  for (; count >= 3; count -= 3, bytes += 3, out += 4) {
    const unsigned group = byteAt(bytes, 0) << 16 | byteAt(bytes, 1) << 8 | byteAt(bytes, 2);
    writePair(out, group >> 12);
    writePair(out + 2, group & 0xFFF);
  }
  if (count == 0) return out;
  const unsigned group = byteAt(bytes, 0) << 16 | (count == 2 ? byteAt(bytes, 1) << 8 : 0);
  writePair(out, group >> 12);
  writePair(out + 2, group & 0xFFF);
  if (count == 1) out[2] = '=';
  out[3] = '=';
  return out + 4;
}

#if defined(__x86_64__)
namespace {

/// Sixteen characters at a step, where the processor can look a byte up in a register (SSSE3). Stops before the first
/// character outside the alphabet, and early enough that its stores of 16 bytes, 12 of them used, stay within the room
/// for the whole text. The method: https://arxiv.org/abs/1704.00605, section 4.
[[gnu::target("ssse3")]] void decodeBlocks(const char*& text, const char* end, char*& out) noexcept {
  // Which class a character is of, by its high and its low half: no bit in common means that it is of the alphabet.
  const __m128i classByHigh =
      _mm_setr_epi8(0x10, 0x10, 0x01, 0x02, 0x04, 0x08, 0x04, 0x08, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10);
  const __m128i classByLow =
      _mm_setr_epi8(0x15, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x13, 0x1A, 0x1B, 0x1B, 0x1B, 0x1A);
  // What to add to a character to have its six bits, by its high half; "/" takes the place before the other signs.
  const __m128i distance = _mm_setr_epi8(0, 16, 19, 4, -65, -65, -71, -71, 0, 0, 0, 0, 0, 0, 0, 0);
  const __m128i slash = _mm_set1_epi8('/');  // 0x2F: also masks the bits that a lookup takes
  const __m128i order = _mm_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1);
  for (; end - text >= 24; text += 16, out += 12) {
    const __m128i characters = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text));
    const __m128i high = _mm_and_si128(_mm_srli_epi32(characters, 4), slash);
    const __m128i low = _mm_and_si128(characters, slash);
    const __m128i strange = _mm_and_si128(_mm_shuffle_epi8(classByHigh, high), _mm_shuffle_epi8(classByLow, low));
    if (_mm_movemask_epi8(_mm_cmpeq_epi8(strange, _mm_setzero_si128())) != 0xFFFF) return;
    const __m128i isSlash = _mm_cmpeq_epi8(characters, slash);
    const __m128i sixBits = _mm_add_epi8(characters, _mm_shuffle_epi8(distance, _mm_add_epi8(isSlash, high)));
    const __m128i twelveBits = _mm_maddubs_epi16(sixBits, _mm_set1_epi32(0x01400140));
    const __m128i groups = _mm_madd_epi16(twelveBits, _mm_set1_epi32(0x00011000));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_shuffle_epi8(groups, order));
  }
}

}  // namespace
#endif

void decodeBase64Groups(const char*& text, const char* end, char*& out) noexcept {
#if defined(__x86_64__)
  static const bool looksUpBytes = __builtin_cpu_supports("ssse3");
  if (looksUpBytes) decodeBlocks(text, end, out);
#endif
  for (; end - text >= 4; text += 4, out += 3) {
    const std::uint32_t group = digits[0][byteAt(text, 0)] | digits[1][byteAt(text, 1)] | digits[2][byteAt(text, 2)] |
                                digits[3][byteAt(text, 3)];
    if (group >= noDigit) return;
    out[0] = static_cast<char>(group >> 16);
    out[1] = static_cast<char>(group >> 8);
    out[2] = static_cast<char>(group);
  }
}

int base64Digit(char character) noexcept {
  const std::uint32_t digit = digits[3][static_cast<unsigned char>(character)];
  return digit == noDigit ? -1 : static_cast<int>(digit);
}

}  // namespace detail

std::string encodeBase64(std::string_view bytes) {
  std::string text((bytes.size() + 2) / 3 * 4, '\0');
  detail::encodeBase64Block(text.data(), bytes.data(), bytes.size());
  return text;
}

std::optional<std::string> decodeBase64(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  std::string bytes(text.size() / 4 * 3, '\0');
  const char* next = text.data();
  const char* const end = next + text.size();
  char* out = bytes.data();
  detail::decodeBase64Groups(next, end, out);
  if (next != end) {
    if (end - next != 4 || next[3] != '=') return std::nullopt;
    const int first = detail::base64Digit(next[0]);
    const int second = detail::base64Digit(next[1]);
    if (first < 0 || second < 0) return std::nullopt;
    *out++ = static_cast<char>(first << 2 | second >> 4);
    if (next[2] == '=') {
      if ((second & 15) != 0) return std::nullopt;
    } else {
      const int third = detail::base64Digit(next[2]);
      if (third < 0 || (third & 3) != 0) return std::nullopt;
      *out++ = static_cast<char>(second << 4 | third >> 2);
    }
  }
  bytes.resize(static_cast<std::size_t>(out - bytes.data()));
  return bytes;
}

}  // namespace ostrel
