// The inner loops over text, sixteen bytes a step where the processor has SSE2 (every x86-64 has). Not installed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace ostrel::detail {

inline bool isXmlSpace(char c) noexcept { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

/// True for the bytes of XML text that stand for themselves wherever they stand: ASCII without controls and without
/// the characters that begin or end markup.
inline bool isPlainText(char c) noexcept { return c >= ' ' && c != '<' && c != '>' && c != '&'; }

#ifdef __SSE2__

inline constexpr std::ptrdiff_t scanWidth = 16;

inline __m128i load16(const char* at) noexcept { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(at)); }

inline unsigned maskOf(__m128i lanes) noexcept { return static_cast<unsigned>(_mm_movemask_epi8(lanes)); }

/// A bit for each of sixteen bytes that is not plain text. Bytes above ASCII are negative, so they are below ' '.
inline unsigned notPlainText(__m128i bytes) noexcept {
  const __m128i markup = _mm_or_si128(_mm_cmpeq_epi8(bytes, _mm_set1_epi8('&')),
                                      // '<' and '>' differ in one bit
                                      _mm_cmpeq_epi8(_mm_or_si128(bytes, _mm_set1_epi8(2)), _mm_set1_epi8('>')));
  return maskOf(_mm_or_si128(markup, _mm_cmplt_epi8(bytes, _mm_set1_epi8(' '))));
}

inline unsigned notSpace(__m128i bytes) noexcept {
  const __m128i blanks =
      _mm_or_si128(_mm_cmpeq_epi8(bytes, _mm_set1_epi8('\t')), _mm_cmpeq_epi8(bytes, _mm_set1_epi8(' ')));
  const __m128i ends =
      _mm_or_si128(_mm_cmpeq_epi8(bytes, _mm_set1_epi8('\n')), _mm_cmpeq_epi8(bytes, _mm_set1_epi8('\r')));
  return maskOf(_mm_or_si128(blanks, ends)) ^ 0xFFFF;
}

#endif

/// The first byte that is not plain text, or `end`.
inline const char* skipPlainText(const char* at, const char* end) noexcept {
#ifdef __SSE2__
  for (; end - at >= scanWidth; at += scanWidth) {
    if (const unsigned found = notPlainText(load16(at)); found != 0) return at + __builtin_ctz(found);
  }
#endif
  while (at != end && isPlainText(*at)) ++at;
  return at;
}

/// The first byte that is not XML white space, or `end`.
inline const char* skipXmlSpace(const char* at, const char* end) noexcept {
#ifdef __SSE2__
  for (; end - at >= scanWidth; at += scanWidth) {
    if (const unsigned found = notSpace(load16(at)); found != 0) return at + __builtin_ctz(found);
  }
#endif
  while (at != end && isXmlSpace(*at)) ++at;
  return at;
}

inline bool isAscii(std::string_view bytes) noexcept {
  const char* at = bytes.data();
  const char* const end = at + bytes.size();
#ifdef __SSE2__
  for (; end - at >= scanWidth; at += scanWidth) {
    if (maskOf(load16(at)) != 0) return false;
  }
#endif
  std::uint64_t seen = 0;
  for (; end - at >= 4; at += 4) {
    std::uint32_t word = 0;
    std::memcpy(&word, at, sizeof word);
    seen |= word;
  }
  for (; at != end; ++at) seen |= static_cast<unsigned char>(*at);
  return (seen & 0x80808080) == 0;
}

/// True when the bytes from `at` begin with `literal`.
template <std::size_t Size>
inline bool startsWith(const char* at, const char* end, const char (&literal)[Size]) noexcept {
  return end - at >= static_cast<std::ptrdiff_t>(Size - 1) && std::memcmp(at, literal, Size - 1) == 0;
}

}  // namespace ostrel::detail
