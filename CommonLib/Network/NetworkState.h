// The network as those that hear of its changes see it, and the notification of a change.
#pragma once

#include "Containers/Export.h"
#include "Containers/PlistValue.h"
#include "Platform/NotificationCenter.h"

namespace ostrel {

/// The name of the notification that the network has changed, which modules hear.
inline constexpr const char* networkChangedName = "com.brantle.ostrel_info.netchanged";

/// What `get_interfaces_info` describes (InterfaceInfo.h), an immutable array, with "ipAddress" and "dnsName" "" for
/// each address of an interface that is switched off or has no carrier: a disabled one, as `NetworkChangeContext` takes
/// it. With `resolve` names are looked up, which may block on the resolver for each address. Any thread may call it.
OSTREL_EXPORT PlistValue networkState(bool resolve);

/// A state without the names that were looked up, for comparisons.
OSTREL_EXPORT PlistValue stateWithoutNames(const PlistValue& state);

/// The notification of a change from one state to another. Its userInfo is a dictionary: "oldState", "newState", and
/// "changes", an array with the name of each interface whose descriptions differ.
OSTREL_EXPORT Notification networkChangedNotification(const PlistValue& oldState, const PlistValue& newState);

}  // namespace ostrel
