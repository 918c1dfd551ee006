#include "ClientSession/FormBody.h"

#include <array>

namespace ostrel {
namespace {

// What a URL may hold as it stands is kept, and then "&", "+" and "/" are escaped as well: legal in a URL, but the
// first two mean something to a form decoder. No escape holds one of the three, so that one pass does both steps.
constexpr std::string_view plainCharacters =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_.!~*'();?:@=$,";

constexpr std::array<bool, 256> makePlainTable() {
  std::array<bool, 256> table{};
  for (const char character : plainCharacters) table[static_cast<unsigned char>(character)] = true;
  return table;
}
constexpr std::array<bool, 256> isPlain = makePlainTable();

}  // namespace

std::string encodeFormBody(std::string_view text) {
  constexpr char digits[] = "0123456789ABCDEF";
  constexpr std::string_view field = "input=";
  std::string body(field);
  body.resize(field.size() + 3 * text.size());  // were every byte escaped
  char* out = body.data() + field.size();
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    if (isPlain[byte]) {
      *out++ = character;
      continue;
    }
    *out++ = '%';
    *out++ = digits[byte >> 4U];
    *out++ = digits[byte & 15U];
  }
  body.resize(static_cast<std::size_t>(out - body.data()));
  return body;
}

}  // namespace ostrel
