#include "Platform/Internal/Directory/PasswordHash.h"

#include <crypt.h>
#include <string.h>

#include <memory>

namespace ostrel::detail {
namespace {

struct Wipe {
  void operator()(crypt_data* data) const {
    explicit_bzero(data, sizeof *data);
    delete data;
  }
};

bool isPassword(std::string_view password) {
  return password.size() < CRYPT_MAX_PASSPHRASE_SIZE && password.find('\0') == std::string_view::npos;
}

std::optional<std::string> crypted(std::string_view password, const std::string& setting) {
  const std::unique_ptr<crypt_data, Wipe> data(new crypt_data{});
  std::string terminated(password);
  const char* hash = crypt_r(terminated.c_str(), setting.c_str(), data.get());
  explicit_bzero(terminated.data(), terminated.size());
  if (hash == nullptr || *hash == '*') return std::nullopt;
  return hash;
}

bool equalInConstantTime(std::string_view left, std::string_view right) {
  if (left.size() != right.size()) return false;
  unsigned difference = 0;
  for (std::size_t at = 0; at < left.size(); ++at)
    difference |= static_cast<unsigned>(static_cast<unsigned char>(left[at]) ^ static_cast<unsigned char>(right[at]));
  return difference == 0;
}

}  // namespace

std::optional<std::string> hashPassword(std::string_view password) {
  if (!isPassword(password)) return std::nullopt;
  char setting[CRYPT_GENSALT_OUTPUT_SIZE];
  if (crypt_gensalt_rn("$y$", 0, nullptr, 0, setting, sizeof setting) == nullptr) return std::nullopt;
  return crypted(password, setting);
}

bool passwordMatches(std::string_view password, const std::string& hash) {
  if (password.empty() || !isPassword(password)) return false;
  const auto given = hash.empty() ? std::nullopt : crypted(password, hash);
  if (given) return equalInConstantTime(*given, hash);
  hashPassword(password);  // for the time that it takes
  return false;
}

}  // namespace ostrel::detail
