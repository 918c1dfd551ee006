// The machine's network interfaces and addresses, and whether a TCP port of a host can be reached.
// Plain functions with C linkage.
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

// Threads: every function may be called from any thread. Nothing is thrown except std::bad_alloc.
extern "C" {

/// Whether a text parses as a dotted IPv4 address, as an IPv6 address (inet_pton(3)). False for anything but a string.
OSTREL_EXPORT bool is_ipv4_address(const PlistValue& text);
OSTREL_EXPORT bool is_ipv6_address(const PlistValue& text);

/// The host itself when it is an IPv4 address (nothing is looked up); else the first of its addresses, in the
/// resolver's order, that is one. Null when there is none, the host is no string or the lookup fails. May block on the
/// resolver.
OSTREL_EXPORT PlistValue first_ipv4_address_of_host(const PlistValue& host);

/// The dotted IPv4 addresses of all interfaces whose name does not begin with "lo", in the system's order: an immutable
/// array of strings.
OSTREL_EXPORT PlistValue get_host_ips();

/// Describes every IPv4 and IPv6 address of the machine, in the system's order, without interfaces whose name begins
/// with "lo", without IPv6 link-local addresses, and without addresses whose text or interface name is no UTF-8: an
/// immutable array of dictionaries, one an address:
///
///   "name"                    interface, for example "eth0"
///   "family"                  "AF_INET" or "AF_INET6"
///   "ipAddress"               numeric; "" if it cannot be rendered
///   "dnsName"                 name of the address; the local link's name of this host ("NAME.local", "" without one)
///                             where that name equals "ipAddress"; "" when not resolved
///   "serviceName"             service part of the reverse lookup; "" when not resolved
///   "subnetMask"              numeric; "" if it cannot be rendered
///   "isPrimaryIPv4Interface"  true, only on the last description of the primary IPv4 interface
///   "isPrimaryIPv6Interface"  true, only on the last description of the primary IPv6 interface
///   "userDefinedName"         the interface's display name, when known, only on its last description
///
/// Names are looked up only when `resolve` is true; that may block on the resolver for each address.
OSTREL_EXPORT PlistValue get_interfaces_info(bool resolve);

/// Whether a TCP connection over IPv4 to the host (dotted address or name) and port can be opened within the time-out,
/// in milliseconds; 0 waits until the system gives up, a negative one is a failed wait. A connection that has something
/// to read as soon as it stands, a greeting of the peer for example, counts as not reachable unless it stood at once. A
/// null host and a port outside 0 to 65535 are not reachable. Blocks; the resolver's time comes on top.
OSTREL_EXPORT bool is_host_reachable(const char* host, int port, std::int64_t timeoutMilliseconds);

}  // extern "C"

}  // namespace ostrel

#if defined(__clang__)
#pragma clang diagnostic pop
#endif
