// All network interfaces of this machine with their addresses and state, by name.
#pragma once

#include "Containers/Export.h"
#include "Containers/PlistValue.h"

namespace ostrel {

/// An immutable dictionary: interface name to an immutable dictionary of what is known of it, in the system's order.
/// Every interface with a link-layer entry is there, loopback devices included; one whose name is no UTF-8 is left out.
///
///   "interfaceName"           its name ("eth0"); always there
///   "UserDefinedName"         its display name, else its name; always there (`userDefinedNameProperty`)
///   "Hardware"                its type, for example "Ethernet" (`hardwareProperty`)
///   "router"                  numeric address of the router of an IPv4 service bound to it
///   "hostname"                host name of such a service
///   "isActive"                true when an IPv4 service is bound to it
///   "ipv4Addresses"           array of its numeric IPv4 addresses
///   "ipv4SubnetMasks"         array of the masks, in the same order
///   "ipv4BroadcastAddresses"  array of the broadcast addresses, in the same order
///   "hasIPV4"                 true when it has an IPv4 address
///   "ethernetAddr"            its link-layer address: bytes in lower-case hexadecimal WITHOUT leading zeros, joined by
///                             ":" ("0:1c:42:0:0:8"). Clients compare these texts as they are.
///
/// A key is there only when its value is known: an interface without an IPv4 address has neither "hasIPV4" nor
/// "isActive", one without a link-layer address (a tunnel, a loopback device) has no "ethernetAddr". Where two services
/// are bound to one interface, the router and host name of the later one stand.
///
/// What "isActive" and "hasIPV4" mean is told by `NetworkConfigurationStore::ipv4Services` and `ipv4Interfaces`; on
/// Linux an interface that is down, or whose cable is out, keeps its addresses ("hasIPV4") but is not active.
///
/// Null when the network configuration cannot be opened, which on Linux never happens. At most the first 116 bytes of a
/// link-layer address are taken (the address's copy has 128 in all).
///
/// Threads: may be called from any thread. Asks the kernel and reads small files; no name server is asked. Nothing is
/// thrown except std::bad_alloc.
OSTREL_EXPORT PlistValue NIGetInterfaceDictionary();

}  // namespace ostrel
