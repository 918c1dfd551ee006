// Port mappings of the machine's NAT gateway, described as dictionaries and applied in batches.
// Plain functions and constants with C linkage.
#pragma once

#include <cstdint>

#include "Containers/Export.h"
#include "Containers/PlistValue.h"

// Values go in and out by C linkage between C++ programs only.
#if defined(__clang__)
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wreturn-type-c-linkage"
#endif

namespace ostrel {

extern "C" {

// The keys of a port mapping, and their special values. Besides these, an added mapping may hold "externalHostIp", the
// external address, and "description", free text.

extern OSTREL_EXPORT const char* const kKpPortMappingOperationKey;          ///< "operation": one of the next two
extern OSTREL_EXPORT const char* const kKpPortMappingOperationAddValue;     ///< "add"
extern OSTREL_EXPORT const char* const kKpPortMappingOperationRemoveValue;  ///< "remove"
extern OSTREL_EXPORT const char* const kKpPortMappingProtocolKey;           ///< "protocol": one of the next two; any
extern OSTREL_EXPORT const char* const kKpPortMappingProtocolTcpValue;      ///< "TCP"
extern OSTREL_EXPORT const char* const kKpPortMappingProtocolUdpValue;      ///< "UDP"
extern OSTREL_EXPORT const char* const kKpPortMappingLocalIpKey;            ///< "localHostIp": internal address
extern OSTREL_EXPORT const char* const kKpPortMappingLocalIpPortKey;        ///< "localHostIpPort": a number
extern OSTREL_EXPORT const char* const kKpPortMappingRemoteIpKey;           ///< "remoteHostIp": has no effect
extern OSTREL_EXPORT const char* const kKpPortMappingRemoteIpPortKey;       ///< "remoteHostIpPort": external, a number
extern OSTREL_EXPORT const char* const kKpPortMappingNoValue;               ///< "*": stands for an absent value
/// "errorCode", "errorDescription": for the error dictionaries of callers.
extern OSTREL_EXPORT const char* const kKpPortMappingErrorCodeKey;
extern OSTREL_EXPORT const char* const kKpPortMappingErrorDescriptionKey;

// Threads: both functions may be called from any thread. Nothing is thrown but std::bad_alloc.

/// A new mutable array with one mapping, a mutable dictionary: to add (`add`) or remove the port of any address, TCP
/// (`tcp`) or UDP, on both sides.
OSTREL_EXPORT PlistValue KpCreateSimplePortMappingsSet(std::uint32_t port, bool tcp, bool add);

/// Applies an array of mappings, in order, to the list of `portmapListPath()`. The second argument is not used. There
/// is no rollback: what was applied before a failure stays, and is written. 0 for success; otherwise
///
///   22  with a description in `*errorDescription`: rollback was asked for, the array is null, a mapping's "operation"
///   is
///       neither "add" nor "remove", or it has no "localHostIpPort"
///   -1  with the description "Exception thrown during port mapping operation": the array is no array, a mapping is no
///       dictionary, or a port is no number
///   else the status of the list (PortmapList.h), without a description; after applying all, that of writing it
///
/// A port is read as a 32-bit number: a fraction is cut off, what is beyond the range is no port. Meant: for the first
/// two failures the description is stored only when `*errorDescription` holds a value already; the others always store
/// theirs. `errorDescription` may be null. Blocks on the disk and on others that have the list open.
OSTREL_EXPORT std::int32_t KpChangePortMappings(const PlistValue& portMappings, const PlistValue& unused, bool rollback,
                                                PlistValue* errorDescription);

}  // extern "C"

}  // namespace ostrel

#if defined(__clang__)
#pragma clang diagnostic pop
#endif
