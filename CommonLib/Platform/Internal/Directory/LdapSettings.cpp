#include "Platform/Internal/Directory/LdapSettings.h"

#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>

#include "Containers/Utf8.h"
#include "Platform/FileDescriptor.h"
#include "Platform/HostRoot.h"

namespace ostrel::detail {
namespace {

constexpr std::size_t largestPasswordFile = 4096;

// A fault of the entry.
struct Fault {
  std::string text;
};

bool isLetterOrDigit(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'); }

bool isHost(std::string_view host, std::string_view others) {
  return !host.empty() && host.size() <= 255 && std::ranges::all_of(host, [&](char c) {
    return isLetterOrDigit(c) || others.find(c) != std::string_view::npos;
  });
}

// What stays on this machine needs no encryption.
bool isLoopback(const LdapServer& server) {
  return server.host == "localhost" || server.host == "::1" ||
         (server.host.starts_with("127.") && server.host.find_first_not_of("0123456789.") == std::string::npos);
}

std::string textAt(const PlistValue& entry, std::string_view key) {
  const PlistValue value = entry.get(key);
  if (value.isNull()) return {};
  std::string text(value.isString() ? value.stringValue() : std::string_view());
  if (text.empty() || text.find('\0') != std::string::npos || !isValidUtf8(text))
    throw Fault{"\"" + std::string(key) + "\" is no text"};
  return text;
}

std::optional<bool> flagAt(const PlistValue& entry, std::string_view key) {
  const PlistValue value = entry.get(key);
  if (value.isNull()) return std::nullopt;
  if (!value.isBoolean()) throw Fault{"\"" + std::string(key) + "\" is no boolean"};
  return value.boolValue();
}

double numberAt(const PlistValue& entry, std::string_view key, double usual, double least, double most) {
  const PlistValue value = entry.get(key);
  if (value.isNull()) return usual;
  const double number = value.isNumber() && !value.isBoolean() ? value.doubleValue() : -1;
  if (!(number >= least && number <= most)) throw Fault{"\"" + std::string(key) + "\" is out of its range"};
  return number;
}

std::chrono::milliseconds secondsAt(const PlistValue& entry, std::string_view key, std::chrono::milliseconds usual) {
  const double seconds = numberAt(entry, key, static_cast<double>(usual.count()) / 1000, 0.1, 600);
  return std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
}

std::vector<LdapServer> serversIn(const PlistValue& entry) {
  const PlistValue urls = entry.get("Servers");
  if (!urls.isArray() || urls.count() == 0) throw Fault{"\"Servers\" is no array of URLs"};
  const std::optional<bool> requireTLS = flagAt(entry, "RequireTLS");
  std::vector<LdapServer> servers;
  for (const PlistValue& url : urls.elements()) {
    auto server = url.isString() ? ldapServer(url.stringValue()) : std::nullopt;
    if (!server) throw Fault{"\"Servers\" has an entry that is no URL of an LDAP server"};
    server->startTLS = !server->encryptedFromStart && requireTLS.value_or(!isLoopback(*server));
    servers.push_back(*server);
  }
  return servers;
}

// Whoever may read this file may change the directory.
LdapCredentials credentialsFrom(const std::string& path, const std::string& dn) {
  const FileDescriptor file = openFile(path, O_RDONLY | O_NONBLOCK);
  if (!file) throw Fault{"\"BindPasswordFile\" cannot be opened"};
  const auto status = descriptorStatus(file.get());
  if (!status || !status->isRegularFile() || (status->user != 0 && status->user != geteuid()) ||
      (status->mode & 077U) != 0)
    throw Fault{"\"BindPasswordFile\" is no file of root's or the daemon's that only they may read"};
  auto bytes = readToEnd(file.get(), largestPasswordFile);
  if (!bytes) throw Fault{"\"BindPasswordFile\" cannot be read or is too large"};
  std::string& text = *bytes;
  LdapCredentials credentials(dn, std::string_view(text).substr(0, text.find('\n')));
  explicit_bzero(text.data(), text.size());
  if (credentials.password.empty()) throw Fault{"\"BindPasswordFile\" holds no password"};
  return credentials;
}

LdapCredentials credentialsIn(const PlistValue& entry) {
  const std::string dn = textAt(entry, "BindDN");
  const std::string file = textAt(entry, "BindPasswordFile");
  // A name without a password would bind as nobody (RFC 4513, 5.1.2).
  if (dn.empty() != file.empty()) throw Fault{"\"BindDN\" and \"BindPasswordFile\" belong together"};
  if (dn.empty()) return {};
  return credentialsFrom(hostPath(file), dn);
}

std::map<std::string, std::string, std::less<>> attributesIn(const PlistValue& entry, std::string_view type) {
  std::map<std::string, std::string, std::less<>> attributes;
  const PlistValue names = entry.get("Attributes").get(type);
  if (!names.isNull() && !names.isDictionary()) throw Fault{"\"Attributes\" is no dictionary of dictionaries"};
  for (const auto& [name, value] : names.entries()) {
    const std::string ldapName(value.isString() ? value.stringValue() : std::string_view());
    if (!isLdapName(ldapName)) throw Fault{"\"Attributes\" has a value that is no name of an LDAP attribute"};
    attributes.emplace(name.stringValue(), ldapName);
  }
  return attributes;
}

void refuseUnknownKeys(const PlistValue& dictionary, std::span<const std::string_view> known, const char* where) {
  for (const auto& [name, value] : dictionary.entries())
    if (std::ranges::find(known, name.stringValue()) == known.end())
      throw Fault{"the unknown key \"" + std::string(name.stringValue()) + "\"" + where};
}

// Those below the host root, where there are any.
std::string hostsCertificates() {
  constexpr const char* file = "/etc/ssl/certs/ca-certificates.crt";
  const std::string belowRoot = hostPath(file);
  return fileStatus(belowRoot) ? belowRoot : file;
}

LdapSettings settingsIn(const std::string& path, const PlistValue& entry) {
  constexpr std::array<std::string_view, 17> keys = {
      "Kind",           "Path",           "Servers",         "RequireTLS",  "CAFile",
      "Base",           "UsersContainer", "GroupsContainer", "BindDN",      "BindPasswordFile",
      "ConnectTimeout", "AnswerTimeout",  "PageSize",        "Connections", "ReadOnly",
      "LocallyHosted",  "Attributes"};
  constexpr std::array<std::string_view, 2> types = {"Users", "Groups"};
  refuseUnknownKeys(entry, keys, "");
  const PlistValue attributes = entry.get("Attributes");
  if (!attributes.isNull() && !attributes.isDictionary()) throw Fault{"\"Attributes\" is no dictionary"};
  refuseUnknownKeys(attributes, types, " in \"Attributes\"");
  const LdapSettings usual;
  const std::string caFile = textAt(entry, "CAFile");
  return {.path = path,
          .servers = serversIn(entry),
          .base = textAt(entry, "Base"),
          .usersContainer = textAt(entry, "UsersContainer"),
          .groupsContainer = textAt(entry, "GroupsContainer"),
          .caFile = caFile.empty() ? hostsCertificates() : hostPath(caFile),
          .credentials = credentialsIn(entry),
          .connectTimeout = secondsAt(entry, "ConnectTimeout", usual.connectTimeout),
          .answerTimeout = secondsAt(entry, "AnswerTimeout", usual.answerTimeout),
          .pageSize = static_cast<std::uint32_t>(numberAt(entry, "PageSize", usual.pageSize, 1, 100000)),
          .connections = static_cast<std::uint32_t>(numberAt(entry, "Connections", usual.connections, 1, 256)),
          .readOnly = flagAt(entry, "ReadOnly").value_or(false),
          .locallyHosted = flagAt(entry, "LocallyHosted").value_or(false),
          .userAttributes = attributesIn(entry, "Users"),
          .groupAttributes = attributesIn(entry, "Groups")};
}

}  // namespace

LdapCredentials::~LdapCredentials() { explicit_bzero(password.data(), password.size()); }

bool isLdapName(std::string_view name) {
  const auto isLetter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
  return !name.empty() && name.size() <= 128 && isLetter(name.front()) &&
         std::ranges::all_of(name, [](char c) { return isLetterOrDigit(c) || c == '-'; });
}

std::optional<LdapServer> ldapServer(std::string_view url) {
  constexpr std::uint16_t plainPort = 389;
  constexpr std::uint16_t encryptedPort = 636;
  LdapServer server;
  server.encryptedFromStart = url.starts_with("ldaps://");
  if (!server.encryptedFromStart && !url.starts_with("ldap://")) return std::nullopt;
  std::string_view rest = url.substr(url.find("//") + 2);
  if (rest.ends_with('/')) rest.remove_suffix(1);
  const bool isBracketed = rest.starts_with('[');
  const std::size_t hostEnd = isBracketed ? rest.find(']') : rest.find(':');
  server.host = rest.substr(isBracketed ? 1 : 0, isBracketed ? hostEnd - 1 : hostEnd);
  if (isBracketed && hostEnd == std::string_view::npos) return std::nullopt;
  if (!isHost(server.host, isBracketed ? ":.%" : ".-_")) return std::nullopt;
  rest = hostEnd == std::string_view::npos ? std::string_view() : rest.substr(hostEnd + (isBracketed ? 1 : 0));
  server.port = server.encryptedFromStart ? encryptedPort : plainPort;
  if (!rest.empty()) {
    rest.remove_prefix(1);
    const auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), server.port);
    if (error != std::errc() || end != rest.data() + rest.size() || server.port == 0) return std::nullopt;
  }
  server.url = std::string(server.encryptedFromStart ? "ldaps://" : "ldap://") +
               (isBracketed ? "[" + server.host + "]" : server.host) + ":" + std::to_string(server.port);
  return server;
}

std::optional<LdapSettings> readLdapSettings(const std::string& path, const PlistValue& entry, std::string& fault) {
  try {
    return settingsIn(path, entry);
  } catch (const Fault& found) {
    fault = found.text;
    return std::nullopt;
  }
}

}  // namespace ostrel::detail
