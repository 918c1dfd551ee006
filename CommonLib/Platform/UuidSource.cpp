#include "Platform/UuidSource.h"

#include <sys/random.h>

#include <array>
#include <cstddef>
#include <cstdint>

namespace ostrel {
namespace {

class HostUuidSource final : public UuidSource {
 public:
  std::string make() override {
    std::array<std::uint8_t, 16> bytes{};
    // So few bytes come whole, or not at all (getrandom(2)).
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) return {};
    bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0FU) | 0x40U);  // version 4
    bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3FU) | 0x80U);  // the variant of RFC 4122
    return canonicalText(bytes);
  }

 private:
  static std::string canonicalText(const std::array<std::uint8_t, 16>& bytes) {
    constexpr const char* digits = "0123456789ABCDEF";
    std::string text;
    for (std::size_t at = 0; at < bytes.size(); ++at) {
      if (at == 4 || at == 6 || at == 8 || at == 10) text.push_back('-');
      text.push_back(digits[bytes[at] >> 4U]);
      text.push_back(digits[bytes[at] & 0x0FU]);
    }
    return text;
  }
};

}  // namespace

std::atomic<UuidSource*>& UuidSource::slot() {
  static HostUuidSource host;
  static std::atomic<UuidSource*> slot{&host};
  return slot;
}

}  // namespace ostrel
