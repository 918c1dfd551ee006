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
  std::string body = "input=";
  body.reserve(body.size() + text.size() + text.size() / 2);
  for (std::size_t i = 0; i < text.size();) {
    std::size_t end = i;
    while (end < text.size() && isPlain[static_cast<unsigned char>(text[end])]) ++end;
    body.append(text, i, end - i);
    if (end < text.size()) {
      const auto byte = static_cast<unsigned char>(text[end++]);
      const char escape[] = {'%', digits[byte >> 4U], digits[byte & 15U]};
      body.append(escape, sizeof escape);
    }
    i = end;
  }
  return body;
}

}  // namespace ostrel
