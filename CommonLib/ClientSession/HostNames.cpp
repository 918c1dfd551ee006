// The names under which this host knows itself.
#include <string_view>

#include "ClientSession/OstrelDaemonSession.h"
#include "Containers/Format.h"
#include "Containers/Utf8.h"
#include "Platform/InterfaceAddresses.h"
#include "Platform/NameResolver.h"
#include "Platform/NetworkConfiguration.h"

namespace ostrel {
namespace {

/// The first IPv4 address of this host other than the loopback address.
std::optional<SocketAddress> firstHostAddress() {
  for (const InterfaceAddress& entry : InterfaceAddresses::current().list()) {
    if (entry.address.isIPv4() && entry.address.numericHost() != "127.0.0.1") return entry.address;
  }
  return std::nullopt;
}

std::optional<std::string> nameOfHost(const SocketAddress& address) {
  const auto found = NameResolver::current().nameOf(address, NameResolver::NameForm::names);
  // The resolver answers the number itself when there is no name.
  if (!found || found->host.empty() || found->host == address.numericHost() || !isValidUtf8(found->host))
    return std::nullopt;
  if (found->host.ends_with(".in-addr.arpa")) return std::nullopt;
  return found->host;
}

}  // namespace

OstrelDaemonSession::Text OstrelDaemonSession::zeroConfName() {
  const auto store = NetworkConfiguration::current().open("Vellumdock");
  if (store == nullptr) return std::nullopt;
  const auto name = store->localHostName();
  if (!name) return std::nullopt;
  return format("%@%@", *name, ".local");
}

std::string OstrelDaemonSession::defaultHostNameWithResolve(bool resolve) {
  const auto address = firstHostAddress();
  if (resolve && address) {
    if (auto name = nameOfHost(*address)) return *name;
  }
  return zeroConfName().value_or("127.0.0.1");
}

}  // namespace ostrel
