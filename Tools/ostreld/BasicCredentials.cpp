#include "ostreld/BasicCredentials.h"

#include <string.h>
#include <strings.h>

#include <algorithm>

#include "Containers/Base64.h"
#include "Containers/Utf8.h"

namespace ostrel {
namespace {

constexpr std::string_view scheme = "Basic ";
constexpr std::size_t longestUser = 255;
constexpr std::size_t longestPassword = 511;  // what crypt(3) takes

bool isText(std::string_view text) {
  return isValidUtf8(text) && std::ranges::none_of(text, [](char c) {
           const auto byte = static_cast<unsigned char>(c);
           return byte < 0x20 || byte == 0x7F;
         });
}

void wipe(std::string& text) {
  explicit_bzero(text.data(), text.size());
  text.clear();
}

}  // namespace

BasicCredentials::~BasicCredentials() { wipe(password); }

std::optional<BasicCredentials> readBasicCredentials(std::string_view header) {
  if (header.size() <= scheme.size() || strncasecmp(header.data(), scheme.data(), scheme.size()) != 0) {
    return std::nullopt;
  }
  header.remove_prefix(std::min(header.find_first_not_of(' ', scheme.size()), header.size()));
  auto decoded = decodeBase64(header);
  if (!decoded) return std::nullopt;
  const std::size_t colon = decoded->find(':');
  std::optional<BasicCredentials> credentials;
  if (colon != std::string::npos && colon > 0 && colon <= longestUser &&
      decoded->size() - colon - 1 <= longestPassword && isText(*decoded)) {
    credentials.emplace(decoded->substr(0, colon), decoded->substr(colon + 1));
  }
  wipe(*decoded);
  return credentials;
}

}  // namespace ostrel
