#include "Network/NetworkChangeContext.h"

#include <string_view>
#include <utility>
#include <vector>

#include "Containers/Format.h"

namespace ostrel {
namespace {

constexpr const char* oldStateKey = "oldState";
constexpr const char* newStateKey = "newState";
constexpr const char* hostKey = "dnsName";
constexpr const char* addressKey = "ipAddress";
constexpr std::string_view selfAssignedPrefix = "169.254.";

// Meant: neighbouring white space yields empty words, which count.
std::vector<std::string_view> splitAtWhiteSpace(std::string_view text) {
  constexpr std::string_view whiteSpace = " \t\n\v\f\r";
  std::vector<std::string_view> words;
  for (;;) {
    const std::size_t end = text.find_first_of(whiteSpace);
    words.push_back(text.substr(0, end));
    if (end == std::string_view::npos) return words;
    text.remove_prefix(end + 1);
  }
}

// A state of one description; a null host leaves its key out.
PlistValue stateOf(std::string_view address, const PlistValue& host) {
  return PlistValue::arrayOf({PlistValue::dictionaryOf(
      {{"name", "en0"}, {"family", "AF_INET"}, {addressKey, PlistValue(address)}, {hostKey, host}})});
}

// A key that is no string finds nothing; it is not taken for "".
PlistValue member(const PlistValue& dictionary, const PlistValue& key) {
  return key.isString() ? dictionary.get(key.stringValue()) : PlistValue();
}

}  // namespace

std::shared_ptr<NetworkChangeContext> NetworkChangeContext::networkChangeContextWithNotification(
    const Notification& notification) {
  return std::make_shared<NetworkChangeContext>(notification, sourceNotification);
}

std::shared_ptr<NetworkChangeContext> NetworkChangeContext::networkChangeContextWithChangeIPRequest(
    const PlistValue& request) {
  return std::make_shared<NetworkChangeContext>(request, sourceChangeIPRequest);
}

NetworkChangeContext::NetworkChangeContext(const Data& data, std::int32_t source) : _changeSource(source) {
  const auto* request = std::get_if<PlistValue>(&data);
  const auto* notification = std::get_if<Notification>(&data);
  if (source == sourceChangeIPRequest && request != nullptr && !request->isNull())
    setChangeInfoFromChangeIPRequest(*request);
  if (source == sourceNotification && notification != nullptr) setChangeInfoFromNotification(*notification);
}

std::int32_t NetworkChangeContext::changeSource() const {
  const MutexLock lock(mutex_);
  return _changeSource;
}

void NetworkChangeContext::setChangeSource(std::int32_t source) {
  const MutexLock lock(mutex_);
  _changeSource = source;
}

PlistValue NetworkChangeContext::changeInfo() const {
  const MutexLock lock(mutex_);
  return _changeInfo;
}

void NetworkChangeContext::setChangeInfo(PlistValue info) {
  const MutexLock lock(mutex_);
  _changeInfo.swap(info);
}

PlistValue NetworkChangeContext::resultMessage() const {
  const MutexLock lock(mutex_);
  return _resultMessage;
}

void NetworkChangeContext::setResultMessage(PlistValue message) {
  const MutexLock lock(mutex_);
  _resultMessage.swap(message);
}

void NetworkChangeContext::setChangeInfoFromNotification(const Notification& notification) {
  setChangeSource(sourceNotification);
  setChangeInfo(notification.userInfo);
}

void NetworkChangeContext::setChangeInfoFromChangeIPRequest(const PlistValue& request) {
  setChangeSource(sourceChangeIPRequest);
  setResultMessage({});
  const std::vector<std::string_view> words = splitAtWhiteSpace(request.stringValue());
  if (words.size() != 2 && words.size() != 4) {
    setResultMessage("invalid parameters count for changeip request");
    return;
  }
  const bool hasHosts = words.size() == 4;
  const PlistValue oldHost = hasHosts ? PlistValue(words[2]) : PlistValue();
  const PlistValue newHost = hasHosts ? PlistValue(words[3]) : PlistValue();
  setChangeInfo(PlistValue::dictionaryOf(
      {{"changes", "en0"}, {oldStateKey, stateOf(words[0], oldHost)}, {newStateKey, stateOf(words[1], newHost)}}));
}

PlistValue NetworkChangeContext::findItemState(const PlistValue& state, const PlistValue& interface) const {
  if (!interface.isString()) return {};
  const PlistValue descriptions = member(changeInfo(), state);
  for (const PlistValue& description : descriptions.elements()) {
    if (description.get("name") == interface) return description;
  }
  return {};
}

PlistValue NetworkChangeContext::getSetting(const PlistValue& key, const PlistValue& state,
                                            const PlistValue& interface) const {
  return member(findItemState(state, interface), key);
}

PlistValue NetworkChangeContext::allInterfacesForState(const PlistValue& state) const {
  PlistValue names = PlistValue::mutableArray();
  const PlistValue descriptions = member(changeInfo(), state);
  for (const PlistValue& description : descriptions.elements()) {
    const PlistValue name = description.get("name");
    if (name.isString()) names.append(name);
  }
  return names;
}

PlistValue NetworkChangeContext::defaultInterfaceForState(const PlistValue& state) {
  const PlistValue interfaces = allInterfacesForState(state);
  for (const PlistValue& interface : interfaces.elements()) {
    if (hasValidConfigurationForInterface(interface, state)) return interface;
  }
  return {};
}

PlistValue NetworkChangeContext::defaultInterface() { return defaultInterfaceForState(newStateKey); }

bool NetworkChangeContext::isInterfaceEnabled(const PlistValue& interface, const PlistValue& state) {
  setResultMessage({});
  const PlistValue address = getSetting(addressKey, state, interface);
  if (!address.stringValue().empty()) return true;
  setResultMessage(format("Detected DISABLED network configuration for interface: %@ (addr=%@)", interface, address));
  return false;
}

bool NetworkChangeContext::isAddressSelfAssignedForState(const PlistValue& state, const PlistValue& interface) {
  setResultMessage({});
  const PlistValue address = getSetting(addressKey, state, interface);
  if (!address.stringValue().starts_with(selfAssignedPrefix)) return false;
  setResultMessage(format("Detected SELF-ASSIGNED ADDRESS for interface: %@ (addr=%@)", interface, address));
  return true;
}

bool NetworkChangeContext::hasValidConfigurationForInterface(const PlistValue& interface, const PlistValue& state) {
  setResultMessage({});
  const char* reason = nullptr;
  if (!isInterfaceEnabled(interface, state))
    reason = "disabled network interface";
  else if (isAddressSelfAssignedForState(state, interface))
    reason = "self-assigned address on interface";
  if (reason == nullptr) return true;
  setResultMessage(format("Invalid configuration on interface %@ (%@).", interface, reason));
  return false;
}

bool NetworkChangeContext::hasValidConfigurationForInterface(const PlistValue& interface) {
  return hasValidConfigurationForInterface(interface, newStateKey);
}

bool NetworkChangeContext::hasValidNetworkConfiguration() {
  setResultMessage({});
  bool anyIsValid = false;
  const PlistValue interfaces = allInterfacesForState(newStateKey);
  for (const PlistValue& interface : interfaces.elements()) {
    if (hasValidConfigurationForInterface(interface)) anyIsValid = true;
  }
  return anyIsValid;
}

bool NetworkChangeContext::hasSettingChanged(const PlistValue& key, const PlistValue& interface) const {
  // Null equals null, and nothing else.
  return getSetting(key, oldStateKey, interface) != getSetting(key, newStateKey, interface);
}

bool NetworkChangeContext::hasSettingChanged(const PlistValue& key) {
  return hasSettingChanged(key, defaultInterface());
}

bool NetworkChangeContext::hasHostChanged() { return hasSettingChanged(hostKey); }

bool NetworkChangeContext::hasAddrChanged() { return hasSettingChanged(addressKey); }

PlistValue NetworkChangeContext::newHost() { return settingOfDefaultInterface(hostKey, newStateKey); }

PlistValue NetworkChangeContext::newAddr() { return settingOfDefaultInterface(addressKey, newStateKey); }

PlistValue NetworkChangeContext::oldHost() { return settingOfDefaultInterface(hostKey, oldStateKey); }

PlistValue NetworkChangeContext::oldAddr() { return settingOfDefaultInterface(addressKey, oldStateKey); }

PlistValue NetworkChangeContext::settingOfDefaultInterface(const char* key, const char* state) {
  return getSetting(key, state, defaultInterfaceForState(state));
}

// Meant: both answer false, since a default interface has no self-assigned address; callers test them all the same.
bool NetworkChangeContext::isNewAddressSelfAssigned() {
  return isAddressSelfAssignedForState(newStateKey, defaultInterface());
}

bool NetworkChangeContext::isOldAddressSelfAssigned() {
  return isAddressSelfAssignedForState(oldStateKey, defaultInterfaceForState(oldStateKey));
}

PlistValue NetworkChangeContext::newHostForHost(const PlistValue& host) {
  return newSettingForOldSetting(hostKey, host);
}

PlistValue NetworkChangeContext::newAddrForAddr(const PlistValue& address) {
  return newSettingForOldSetting(addressKey, address);
}

PlistValue NetworkChangeContext::newSettingForOldSetting(const char* key, const PlistValue& oldValue) {
  if (!oldValue.isString()) return {};
  const PlistValue interfaces = allInterfacesForState(oldStateKey);
  for (const PlistValue& interface : interfaces.elements()) {
    if (hasValidConfigurationForInterface(interface) && getSetting(key, oldStateKey, interface) == oldValue)
      return getSetting(key, newStateKey, interface);
  }
  return {};
}

}  // namespace ostrel
