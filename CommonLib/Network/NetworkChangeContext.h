// A change of the machine's network configuration, and the questions that a module asks about it.
#pragma once

#include <cstdint>
#include <memory>
#include <variant>

#include "Containers/Export.h"
#include "Containers/PlistValue.h"
#include "Platform/Mutex.h"
#include "Platform/NotificationCenter.h"

namespace ostrel {

/// Wraps a change description: "oldState" and "newState", each an array of interface descriptions (see
/// InterfaceInfo.h; "name", "ipAddress" and "dnsName" are read here), and "changes".
///
/// States are "oldState" or "newState"; keys, states, interfaces, hosts and addresses are string values, and an
/// absent or wrongly typed one finds nothing. Absent answers are null values. The description is foreign: a state that
/// is no array, and a name that is no string, count as absent; an address that is no string is none; what `getSetting`
/// and the operations on it answer is of whatever type it was given as.
///
/// Checks leave an explanation in `resultMessage`, which each check clears first.
///
/// Threads: every operation may be called from any thread; the fields are read and replaced one at a time under a
/// lock. The description itself is shared with whoever gave it and must not be changed while a context reads it.
class OSTREL_EXPORT NetworkChangeContext {
 public:
  /// Where a context comes from.
  static constexpr std::int32_t sourceChangeIPRequest = 1;
  static constexpr std::int32_t sourceNotification = 2;

  /// What a context is made from: nothing, the text of a change-IP request, or a notification.
  using Data = std::variant<std::monostate, PlistValue, Notification>;

  /// `networkChangeContextWithNotification:`
  static std::shared_ptr<NetworkChangeContext> networkChangeContextWithNotification(const Notification& notification);
  /// `networkChangeContextWithChangeIPRequest:`
  static std::shared_ptr<NetworkChangeContext> networkChangeContextWithChangeIPRequest(const PlistValue& request);

  /// `initWithData:fromSource:` Stores the source and takes the description from the data when the data is of the
  /// source's kind; any other source, or data of another kind, leaves the context empty.
  NetworkChangeContext(const Data& data, std::int32_t source);

  std::int32_t changeSource() const;
  void setChangeSource(std::int32_t source);
  PlistValue changeInfo() const;
  void setChangeInfo(PlistValue info);
  PlistValue resultMessage() const;
  void setResultMessage(PlistValue message);

  /// `setChangeInfoFromNotification:` Source 2; the description is the notification's userInfo as it stands.
  void setChangeInfoFromNotification(const Notification& notification);
  /// `setChangeInfoFromChangeIPRequest:` Source 1. The request is "OLDADDRESS NEWADDRESS" or "OLDADDRESS NEWADDRESS
  /// OLDHOST NEWHOST", split at every single white-space character (ASCII, tab and line ends included), and always
  /// speaks of interface "en0" and IPv4. Another number of words sets the message "invalid parameters count for
  /// changeip request" and keeps the description.
  void setChangeInfoFromChangeIPRequest(const PlistValue& request);

  /// `findItemState:forInterface:` The first description of that interface in the state.
  PlistValue findItemState(const PlistValue& state, const PlistValue& interface) const;
  /// `getSetting:forState:andInterface:`
  PlistValue getSetting(const PlistValue& key, const PlistValue& state, const PlistValue& interface) const;
  /// `allInterfacesForState:` The names of the state's descriptions in order, repeated ones kept: an array.
  PlistValue allInterfacesForState(const PlistValue& state) const;
  /// `defaultInterfaceForState:` The first interface that is valid in that state.
  PlistValue defaultInterfaceForState(const PlistValue& state);
  /// `defaultInterface` The same for "newState".
  PlistValue defaultInterface();

  /// `isInterfaceEnabled:forState:` Whether it has an address that is not empty.
  bool isInterfaceEnabled(const PlistValue& interface, const PlistValue& state);
  /// `isAddressSelfAssignedForState:andInterface:` Whether its address begins with "169.254.".
  bool isAddressSelfAssignedForState(const PlistValue& state, const PlistValue& interface);
  /// `hasValidConfigurationForInterface:andState:` Enabled and not self-assigned.
  bool hasValidConfigurationForInterface(const PlistValue& interface, const PlistValue& state);
  /// `hasValidConfigurationForInterface:` The same in "newState".
  bool hasValidConfigurationForInterface(const PlistValue& interface);
  /// `hasValidNetworkConfiguration` Whether any interface of "newState" is valid. All are checked: the message is the
  /// last one's.
  bool hasValidNetworkConfiguration();

  /// `hasSettingChanged:forInterface:` Whether the key's value differs between the two states; absent in both does not.
  bool hasSettingChanged(const PlistValue& key, const PlistValue& interface) const;
  /// `hasSettingChanged:` The same for the default interface of "newState".
  bool hasSettingChanged(const PlistValue& key);
  /// `hasHostChanged`, `hasAddrChanged`: "dnsName" and "ipAddress" of that interface.
  bool hasHostChanged();
  bool hasAddrChanged();

  /// `newHost`, `newAddr`, `oldHost`, `oldAddr`: "dnsName" and "ipAddress" in a state of that state's default
  /// interface.
  PlistValue newHost();
  PlistValue newAddr();
  PlistValue oldHost();
  PlistValue oldAddr();

  /// `isNewAddressSelfAssigned`, `isOldAddressSelfAssigned`: asked of the state's default interface, which never has
  /// such an address: always false.
  bool isNewAddressSelfAssigned();
  bool isOldAddressSelfAssigned();

  /// `newHostForHost:`, `newAddrForAddr:` What the old host name or address becomes: the new one of the first
  /// interface that had it in "oldState" and is valid in "newState".
  PlistValue newHostForHost(const PlistValue& host);
  PlistValue newAddrForAddr(const PlistValue& address);

 private:
  PlistValue settingOfDefaultInterface(const char* key, const char* state);
  PlistValue newSettingForOldSetting(const char* key, const PlistValue& oldValue);

  mutable Mutex mutex_;
  std::int32_t _changeSource OSTREL_GUARDED_BY(mutex_) = 0;
  PlistValue _changeInfo OSTREL_GUARDED_BY(mutex_);
  PlistValue _resultMessage OSTREL_GUARDED_BY(mutex_);
};

}  // namespace ostrel
