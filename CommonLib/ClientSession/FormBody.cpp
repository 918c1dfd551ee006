#include "ClientSession/FormBody.h"

#include <array>
#include <cstdint>
#include <cstring>

namespace ostrel {
namespace {

// What a URL may hold as it stands is kept, and then "&", "+" and "/" are escaped as well: legal in a URL, but the
// first two mean something to a form decoder. No escape holds one of the three, so that one pass does both steps.
constexpr std::string_view plainCharacters =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_.!~*'();?:@=$,";

/// What one byte becomes: one or three characters.
struct Written {
  char text[3];
  std::uint8_t length;
};

constexpr std::array<Written, 256> makeTable() {
  constexpr char digits[] = "0123456789ABCDEF";
  std::array<Written, 256> table{};
  for (unsigned byte = 0; byte < table.size(); ++byte) table[byte] = {{'%', digits[byte >> 4U], digits[byte & 15U]}, 3};
  for (const char character : plainCharacters) table[static_cast<unsigned char>(character)] = {{character, 0, 0}, 1};
  return table;
}
constexpr std::array<Written, 256> writtenForms = makeTable();

}  // namespace

std::string encodeFormBody(std::string_view text) {
  constexpr std::string_view field = "input=";
  std::string body(field);
  body.resize(field.size() + 3 * text.size() + sizeof(Written));  // were every byte escaped
  char* out = body.data() + field.size();
  for (const char character : text) {
    const Written& written = writtenForms[static_cast<unsigned char>(character)];
    std::memcpy(out, &written, sizeof written);  // always the whole entry: no branch that escapes would mispredict
    out += written.length;
  }
  body.resize(static_cast<std::size_t>(out - body.data()));
  return body;
}

}  // namespace ostrel
