#include "ostreld/AsciiXml.h"

#include <algorithm>
#include <cstdint>

#include "Containers/Utf8.h"

namespace ostrel {
namespace {

constexpr std::uint32_t replacementCharacter = 0xFFFD;

bool isAscii(char c) { return static_cast<unsigned char>(c) < 0x80; }

}  // namespace

std::string asciiXml(std::string_view xml) {
  std::string out;
  out.reserve(xml.size());
  while (!xml.empty()) {
    const auto plain = static_cast<std::size_t>(std::ranges::find_if_not(xml, isAscii) - xml.begin());
    out += xml.substr(0, plain);
    xml.remove_prefix(plain);
    if (xml.empty()) break;
    std::uint32_t character = replacementCharacter;
    const std::size_t length = decodeCharacter(xml, character);
    out += "&#" + std::to_string(character) + ';';
    xml.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return out;
}

}  // namespace ostrel
