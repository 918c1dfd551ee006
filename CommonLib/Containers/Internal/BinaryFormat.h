// The layout of binary property lists, version "00". Not installed.
//
// The file is: the magic; the objects, each a marker byte (kind in the high four bits, size or count in the low four),
// a count of its own where those are 15, and its bytes; a table of the objects' offsets; and a trailer of 32 bytes.
// All numbers are big-endian. Containers hold references: indexes into the table.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace ostrel::detail::binary {

inline constexpr std::string_view magic = "bplist00";
inline constexpr std::size_t trailerSize = 32;
// The trailer: 6 bytes unused, size of an offset, size of a reference, then three numbers of 8 bytes: how many objects
// there are, which is the root, where the table of offsets is.
inline constexpr std::size_t offsetSizeAt = 6;
inline constexpr std::size_t referenceSizeAt = 7;
inline constexpr std::size_t objectCountAt = 8;
inline constexpr std::size_t rootAt = 16;
inline constexpr std::size_t tableAt = 24;

enum class Marker : std::uint8_t {
  simple = 0x0,
  integer = 0x1,
  real = 0x2,
  date = 0x3,
  data = 0x4,
  ascii = 0x5,
  utf16 = 0x6,
  identifier = 0x8,
  array = 0xA,
  dictionary = 0xD
};
inline constexpr std::uint8_t markerFalse = 0x08;
inline constexpr std::uint8_t markerTrue = 0x09;
inline constexpr std::uint8_t markerDate = 0x33;
inline constexpr std::size_t longCount = 15;

/// Dates count seconds from 2001-01-01T00:00:00Z.
inline constexpr double dateEpoch = 978307200;

/// A text that is stored once however often it occurs has at most this many bytes, and a reader lets what is stored
/// once occur so often that it comes to this many times the file: more is an attack on whoever handles the value.
inline constexpr std::size_t sharedTextLimit = 128;
inline constexpr std::size_t expansionLimit = 256;

inline std::uint64_t fromBigEndian(std::uint64_t value) noexcept {
  return std::endian::native == std::endian::little ? __builtin_bswap64(value) : value;
}

/// A number of 1 to 8 bytes. Requires: eight bytes are readable.
inline std::uint64_t readSized(const char* at, std::size_t size) noexcept {
  std::uint64_t value = 0;
  std::memcpy(&value, at, sizeof value);
  return fromBigEndian(value) >> (64 - 8 * size);
}

/// Writes the low 1 to 8 bytes of a number. Requires: eight bytes are writable.
inline char* writeSized(char* out, std::uint64_t value, std::size_t size) noexcept {
  value = fromBigEndian(value << (64 - 8 * size));
  std::memcpy(out, &value, sizeof value);
  return out + size;
}

}  // namespace ostrel::detail::binary
