#include "ostreld/Authenticator.h"

#include <openssl/crypto.h>

#include <utility>

namespace ostrel {

bool equalInConstantTime(std::string_view left, std::string_view right) {
  return left.size() == right.size() && CRYPTO_memcmp(left.data(), right.data(), left.size()) == 0;
}

Authenticator::Authenticator(std::vector<std::string> sessionIdentifiers)
    : sessionIdentifiers_(std::move(sessionIdentifiers)) {}

std::optional<Authenticator::Caller> Authenticator::authenticate(std::string_view sessionIdentifier,
                                                                 std::string_view /*authorization*/) const {
  if (sessionIdentifier.empty()) return std::nullopt;
  for (const std::string& known : sessionIdentifiers_) {
    if (equalInConstantTime(known, sessionIdentifier)) return Caller{known.substr(0, known.find('@')), known};
  }
  return std::nullopt;
}

}  // namespace ostrel
