#include "HostFacts/InterfaceDictionary.h"

#include <sys/socket.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Platform/InterfaceAddresses.h"
#include "Platform/NetworkConfiguration.h"

namespace ostrel {
namespace {

struct Link {
  std::string name;
  std::string ethernetAddress;  // "" for none
};

// The text behind the interface's name, its separators those that clients know.
std::string ethernetAddress(const InterfaceAddress& entry) {
  std::string text = linkLayerText(entry);
  const std::size_t colon = text.find(':');
  if (colon == std::string::npos) return {};
  text.erase(0, colon + 1);
  std::ranges::replace(text, '.', ':');
  return text;
}

std::vector<Link> links() {
  std::vector<Link> found;
  for (const InterfaceAddress& entry : InterfaceAddresses::current().list()) {
    if (entry.address.family() == AF_PACKET && !entry.name.empty())
      found.push_back({entry.name, ethernetAddress(entry)});
  }
  return found;
}

void setKnownText(PlistValue& description, std::string_view key, const std::optional<std::string>& text) {
  if (text) description.set(key, PlistValue::stringFromUTF8(*text));  // a null value is not set
}

void setKnownTexts(PlistValue& description, std::string_view key, const std::vector<std::string>& texts) {
  if (texts.empty()) return;
  PlistValue array = PlistValue::mutableArray();
  for (const std::string& text : texts) array.append(PlistValue(text));
  description.set(key, array.immutableCopy());
}

void addServices(PlistValue& description, const std::string& interface, const std::vector<IPv4ServiceState>& services) {
  for (const IPv4ServiceState& service : services) {
    if (service.interface != interface) continue;
    setKnownText(description, "router", service.router);
    setKnownText(description, "hostname", service.hostName);
    description.set("isActive", true);
  }
}

void addState(PlistValue& description, const std::string& interface, const std::vector<IPv4InterfaceState>& states) {
  for (const IPv4InterfaceState& state : states) {
    if (state.interface != interface) continue;
    setKnownTexts(description, "ipv4Addresses", state.addresses);
    setKnownTexts(description, "ipv4SubnetMasks", state.subnetMasks);
    setKnownTexts(description, "ipv4BroadcastAddresses", state.broadcastAddresses);
    description.set("hasIPV4", true);
  }
}

}  // namespace

PlistValue NIGetInterfaceDictionary() {
  const std::unique_ptr<NetworkConfigurationStore> store = NetworkConfiguration::current().open("NetworkInterfaceInfo");
  if (!store) return {};
  const std::vector<Link> found = links();
  const std::vector<IPv4ServiceState> services = store->ipv4Services();
  const std::vector<IPv4InterfaceState> states = store->ipv4Interfaces();

  PlistValue interfaces = PlistValue::mutableDictionary();
  for (const Link& link : found) {
    const PlistValue name = PlistValue::stringFromUTF8(link.name);
    if (name.isNull()) continue;
    PlistValue description =
        PlistValue::mutableDictionaryOf({{"interfaceName", name}, {userDefinedNameProperty, name}});
    setKnownText(description, userDefinedNameProperty, store->displayName(link.name));
    setKnownText(description, hardwareProperty, store->interfaceType(link.name));
    addServices(description, link.name, services);
    addState(description, link.name, states);
    if (!link.ethernetAddress.empty()) description.set("ethernetAddr", link.ethernetAddress);
    interfaces.set(link.name, description.immutableCopy());
  }
  return interfaces.immutableCopy();
}

}  // namespace ostrel
