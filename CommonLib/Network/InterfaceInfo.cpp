#include "Network/InterfaceInfo.h"

#include <cerrno>
#include <chrono>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Containers/Format.h"
#include "Platform/InterfaceAddresses.h"
#include "Platform/NameResolver.h"
#include "Platform/NetworkConfiguration.h"
#include "Platform/Socket.h"

#if defined(__clang__)
#pragma clang diagnostic ignored "-Wreturn-type-c-linkage"
#endif

namespace ostrel {
namespace {

using NameForm = NameResolver::NameForm;

constexpr std::string_view loopbackPrefix = "lo";  // meant: every interface whose name begins so, not "lo" alone

bool isDescribed(const InterfaceAddress& entry) {
  if (entry.name.empty() || entry.name.starts_with(loopbackPrefix)) return false;
  return entry.address.isIPv4() || (entry.address.isIPv6() && !entry.address.isIPv6LinkLocal());
}

// Null when the store publishes no name.
PlistValue zeroConfigurationName(NetworkConfigurationStore* store) {
  const auto name = store == nullptr ? std::nullopt : store->localHostName();
  return name ? PlistValue::stringFromUTF8(format("%@.local", *name)) : PlistValue();
}

// What a foreign text is as a value: "" for one that is not UTF-8.
PlistValue textOrEmpty(const std::string& text) {
  const PlistValue value = PlistValue::stringFromUTF8(text);
  return value.isNull() ? PlistValue("") : value;
}

std::string numericText(const SocketAddress& address) {
  const auto found = NameResolver::current().nameOf(address, NameForm::numeric);
  return found ? found->host : std::string();
}

// The description of one address; null when its numeric text, or its interface's name, is no UTF-8.
PlistValue describe(const InterfaceAddress& entry, bool resolve, const PlistValue& zeroConfName) {
  const PlistValue address = PlistValue::stringFromUTF8(numericText(entry.address));
  const PlistValue name = PlistValue::stringFromUTF8(entry.name);
  if (address.isNull() || name.isNull()) return {};

  PlistValue dnsName("");
  PlistValue serviceName("");
  if (resolve) {
    if (const auto found = NameResolver::current().nameOf(entry.address, NameForm::names)) {
      dnsName = textOrEmpty(found->host);
      serviceName = textOrEmpty(found->service);
    }
  }
  // The resolver answered the address itself; meant to hold also when both are "".
  if (dnsName == address) dnsName = zeroConfName.isNull() ? PlistValue("") : zeroConfName;

  return PlistValue::mutableDictionaryOf({{"name", name},
                                          {"family", entry.address.isIPv4() ? "AF_INET" : "AF_INET6"},
                                          {"ipAddress", address},
                                          {"dnsName", dnsName},
                                          {"serviceName", serviceName},
                                          {"subnetMask", textOrEmpty(numericText(entry.netmask))}});
}

// Meant: the last description of an interface is marked, not the first.
void markLastOf(std::vector<PlistValue>& descriptions, const std::string& interface, std::string_view key,
                const PlistValue& value) {
  for (auto description = descriptions.rbegin(); description != descriptions.rend(); ++description) {
    if (description->find("name")->stringValue() != interface) continue;
    description->set(key, value);
    return;
  }
}

void addConfiguration(std::vector<PlistValue>& descriptions, NetworkConfigurationStore& store) {
  if (const auto primary = store.primaryInterface(AddressFamily::ipv4))
    markLastOf(descriptions, *primary, "isPrimaryIPv4Interface", true);
  if (const auto primary = store.primaryInterface(AddressFamily::ipv6))
    markLastOf(descriptions, *primary, "isPrimaryIPv6Interface", true);
  for (const std::string& device : store.serviceDevices()) {
    if (const auto name = store.displayName(device))
      markLastOf(descriptions, device, "userDefinedName", PlistValue::stringFromUTF8(*name));
  }
}

std::optional<SocketAddress> ipv4AddressOf(const std::string& host, std::uint16_t port) {
  if (const auto dotted = SocketAddress::ipv4(host, port)) return dotted;
  const auto resolution = NameResolver::current().resolve(host, "", AddressFamily::ipv4);
  if (resolution.addresses.empty()) return std::nullopt;
  SocketAddress address = resolution.addresses.front();
  address.setPort(port);
  return address;
}

// The wait of an operation whose time-out 0 means none.
std::optional<std::chrono::milliseconds> waitTime(std::int64_t timeoutMilliseconds) {
  if (timeoutMilliseconds == 0) return std::nullopt;
  return std::chrono::milliseconds(timeoutMilliseconds);
}

}  // namespace

extern "C" {

bool is_ipv4_address(const PlistValue& text) { return SocketAddress::ipv4(text.stringValue()).has_value(); }

bool is_ipv6_address(const PlistValue& text) { return SocketAddress::ipv6(text.stringValue()).has_value(); }

PlistValue first_ipv4_address_of_host(const PlistValue& host) try {
  if (is_ipv4_address(host)) return host;
  if (!host.isString()) return {};
  const auto resolution = NameResolver::current().resolve(std::string(host.stringValue()), "", AddressFamily::any);
  for (const SocketAddress& address : resolution.addresses) {
    PlistValue text(address.numericHost());
    if (is_ipv4_address(text)) return text;
  }
  return {};
} catch (const std::exception&) {
  return {};  // a lookup that raises finds nothing
}

PlistValue get_host_ips() {
  PlistValue addresses = PlistValue::mutableArray();
  for (const InterfaceAddress& entry : InterfaceAddresses::current().list()) {
    if (!entry.address.isIPv4() || entry.name.starts_with(loopbackPrefix)) continue;
    addresses.append(PlistValue(entry.address.numericHost()));
  }
  return addresses.immutableCopy();
}

PlistValue get_interfaces_info(bool resolve) {
  const std::unique_ptr<NetworkConfigurationStore> store = NetworkConfiguration::current().open("ostrelcommon");
  const PlistValue zeroConfName = zeroConfigurationName(store.get());

  std::vector<PlistValue> descriptions;
  for (const InterfaceAddress& entry : InterfaceAddresses::current().list()) {
    if (!isDescribed(entry)) continue;
    PlistValue description = describe(entry, resolve, zeroConfName);
    if (!description.isNull()) descriptions.push_back(std::move(description));
  }
  if (store) addConfiguration(descriptions, *store);

  PlistValue array = PlistValue::mutableArray();
  for (const PlistValue& description : descriptions) array.append(description.immutableCopy());
  return array.immutableCopy();
}

bool is_host_reachable(const char* host, int port, std::int64_t timeoutMilliseconds) {
  if (host == nullptr || port < 0 || port > UINT16_MAX) return false;
  const auto address = ipv4AddressOf(host, static_cast<std::uint16_t>(port));
  if (!address) return false;
  const FileDescriptor socket = openStreamSocket(AF_INET);
  if (!socket || !setNonBlocking(socket.get(), true)) return false;
  if (connectSocket(socket.get(), *address)) return true;
  if (errno != EINPROGRESS || timeoutMilliseconds < 0) return false;

  const auto ready = waitUntilReady(socket.get(), waitTime(timeoutMilliseconds));
  if (!ready) return false;
  if (ready->readable) {
    // Meant: readable right after connecting counts as not reachable, also when the peer has sent something at once.
    takeSocketError(socket.get());
    return false;
  }
  return ready->writable;
}

}  // extern "C"

}  // namespace ostrel
