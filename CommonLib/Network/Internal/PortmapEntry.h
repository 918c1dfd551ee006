// The checks that every port mapping passes on its way into the list, and out of it.
#pragma once

#include <cstdint>
#include <optional>

#include "Network/PortmapList.h"

namespace ostrel::detail {

// Keys that are not exported as constants.
inline constexpr const char* kKpPortMappingExternalIpKey = "externalHostIp";
inline constexpr const char* kKpPortMappingDescriptionKey = "description";

/// Checks everything and fills `mapping`: 0, or the status that `KpAddPortToList` gives.
int checkMapping(std::int64_t internalPort, std::int64_t externalPort, const PlistValue& protocol,
                 const PlistValue& internalAddress, const PlistValue& externalAddress, const PlistValue& description,
                 PortMapping& mapping);

/// The mapping that an element of the list tells; absent when it is none.
std::optional<PortMapping> mappingOf(const PlistValue& entry);

/// EEXIST for the same mapping, EADDRINUSE for one that takes some of the same packets, otherwise 0.
int conflictOf(const PortMapping& present, const PortMapping& added);

/// Whether both are of this protocol and lead to this internal address and port from this external port.
bool isSameTarget(const PortMapping& left, const PortMapping& right);

}  // namespace ostrel::detail
