#include "Network/PortMappings.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <limits>
#include <memory>
#include <stdexcept>

#include "Network/Internal/PortmapEntry.h"
#include "Network/PortmapList.h"

#if defined(__clang__)
#pragma clang diagnostic ignored "-Wreturn-type-c-linkage"
#endif

namespace ostrel {
namespace {

constexpr const char* defaultDescription = "Halvane";

struct BatchResult {
  std::int32_t status = 0;
  const char* description = nullptr;
};

struct ListReleaser {
  void operator()(KpPortmapListRef list) const { KpReleasePortmapListRef(list); }
};

bool meansAbsent(const PlistValue& value) { return value.isNull() || value == PlistValue(kKpPortMappingNoValue); }

PlistValue given(const PlistValue& mapping, const char* key) {
  PlistValue value = mapping.get(key);
  return meansAbsent(value) ? PlistValue() : value;
}

// Beyond the range it stays beyond it: cut to 32 bits, 4294967376 would be port 80.
std::int32_t number32(const PlistValue& value) {
  using Limits = std::numeric_limits<std::int32_t>;
  if (!value.isNumber()) throw std::invalid_argument("a port is no number");
  return static_cast<std::int32_t>(std::clamp<std::int64_t>(value.int64Value(), Limits::min(), Limits::max()));
}

BatchResult applyOne(KpPortmapListRef list, const PlistValue& mapping) {
  if (!mapping.isDictionary()) throw std::invalid_argument("a mapping is no dictionary");
  const PlistValue operation = mapping.get(kKpPortMappingOperationKey);
  const bool adds = operation == PlistValue(kKpPortMappingOperationAddValue);
  if (!adds && operation != PlistValue(kKpPortMappingOperationRemoveValue))
    return {EINVAL, "Invalid or inexistent operation type"};

  const PlistValue localPort = mapping.get(kKpPortMappingLocalIpPortKey);
  if (localPort.isNull()) return {EINVAL, "Unspecified local port"};
  const PlistValue remotePort = mapping.get(kKpPortMappingRemoteIpPortKey);
  const std::int32_t internalPort = number32(localPort);
  const std::int32_t externalPort = remotePort.isNull() ? internalPort : number32(remotePort);

  // Meant: kKpPortMappingRemoteIpKey has no effect.
  const PlistValue protocol = given(mapping, kKpPortMappingProtocolKey);
  const PlistValue internalAddress = given(mapping, kKpPortMappingLocalIpKey);
  if (!adds) return {KpRemovePortFromList(list, internalPort, externalPort, protocol, internalAddress)};
  const PlistValue words = mapping.get(detail::kKpPortMappingDescriptionKey);
  return {KpAddPortToList(list, internalPort, externalPort, protocol, internalAddress,
                          given(mapping, detail::kKpPortMappingExternalIpKey),
                          meansAbsent(words) ? PlistValue(defaultDescription) : words)};
}

BatchResult applyAll(KpPortmapListRef list, const PlistValue& portMappings) try {
  if (!portMappings.isArray()) throw std::invalid_argument("the mappings are no array");
  for (const PlistValue& mapping : portMappings.elements()) {
    const BatchResult result = applyOne(list, mapping);
    if (result.status != 0) return result;
  }
  return {};
} catch (const std::exception&) {
  return {-1, "Exception thrown during port mapping operation"};
}

// Meant: only a slot that holds a value already is told of an early failure.
std::int32_t failEarly(PlistValue* errorDescription, const char* description) {
  if (errorDescription != nullptr && !errorDescription->isNull()) *errorDescription = description;
  return EINVAL;
}

}  // namespace

extern "C" {

const char* const kKpPortMappingOperationKey = "operation";
const char* const kKpPortMappingOperationAddValue = "add";
const char* const kKpPortMappingOperationRemoveValue = "remove";
const char* const kKpPortMappingProtocolKey = "protocol";
const char* const kKpPortMappingProtocolTcpValue = "TCP";
const char* const kKpPortMappingProtocolUdpValue = "UDP";
const char* const kKpPortMappingLocalIpKey = "localHostIp";
const char* const kKpPortMappingLocalIpPortKey = "localHostIpPort";
const char* const kKpPortMappingRemoteIpKey = "remoteHostIp";
const char* const kKpPortMappingRemoteIpPortKey = "remoteHostIpPort";
const char* const kKpPortMappingNoValue = "*";
const char* const kKpPortMappingErrorCodeKey = "errorCode";
const char* const kKpPortMappingErrorDescriptionKey = "errorDescription";

PlistValue KpCreateSimplePortMappingsSet(std::uint32_t port, bool tcp, bool add) {
  return PlistValue::mutableArrayOf({PlistValue::mutableDictionaryOf(
      {{kKpPortMappingOperationKey, add ? kKpPortMappingOperationAddValue : kKpPortMappingOperationRemoveValue},
       {kKpPortMappingProtocolKey, tcp ? kKpPortMappingProtocolTcpValue : kKpPortMappingProtocolUdpValue},
       {kKpPortMappingLocalIpKey, kKpPortMappingNoValue},
       {kKpPortMappingRemoteIpKey, kKpPortMappingNoValue},
       {kKpPortMappingLocalIpPortKey, port},
       {kKpPortMappingRemoteIpPortKey, port}})});
}

std::int32_t KpChangePortMappings(const PlistValue& portMappings, const PlistValue&, bool rollback,
                                  PlistValue* errorDescription) {
  if (rollback) return failEarly(errorDescription, "Rollback not supported in this implementation");
  if (portMappings.isNull()) return failEarly(errorDescription, "The portMappings argument is NULL");
  if (portMappings.isArray() && portMappings.count() == 0) return 0;

  KpPortmapListRef opened = nullptr;
  if (const int status = KpPortmapListRefCreateFromFile(portmapListPath().c_str(), &opened); status != 0) return status;
  const std::unique_ptr<KpPortmapList, ListReleaser> list(opened);
  BatchResult result = applyAll(list.get(), portMappings);
  // Meant: what was applied before a failure stays.
  if (KpPortmapListIsDirty(list.get())) {
    const int written = KpUpdatePortmapListFile(list.get());
    if (result.status == 0) result.status = written;
  }
  if (result.description != nullptr && errorDescription != nullptr) *errorDescription = result.description;
  return result.status;
}

}  // extern "C"

}  // namespace ostrel
