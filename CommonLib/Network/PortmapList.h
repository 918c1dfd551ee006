// The list of port mappings of the machine's NAT gateway: a property list that is changed under a lock.
//
// The file is an XML or binary property list (it stays what it is), a dictionary whose "portMappings" is an array with
// a dictionary for each mapping, in the order in which they were added:
//
//   "localHostIpPort"   port on the internal side, 1 to 65535
//   "remoteHostIpPort"  port on the external side; the same when absent
//   "protocol"          "TCP" or "UDP"; both when absent
//   "localHostIp"       internal address, IPv4 or IPv6; this machine when absent
//   "externalHostIp"    external address, IPv4 or IPv6; every address of this machine when absent
//   "description"       free text
//
// "*" stands for an absent protocol or address. Other keys, and elements that are none of this, are kept as they are
// and otherwise passed over. See docs/port-mappings.md.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Containers/Export.h"
#include "Containers/PlistValue.h"
#include "Platform/SocketAddress.h"

namespace ostrel {

/// One mapping whose every member was checked. Addresses are numeric, of one family, and none of them unspecified,
/// multicast, broadcast, link-local or an IPv4-mapped IPv6 address.
struct PortMapping {
  enum class Protocol : std::uint8_t { any, tcp, udp };

  std::uint16_t localPort = 0;
  std::uint16_t externalPort = 0;
  Protocol protocol = Protocol::any;
  std::optional<SocketAddress> localAddress = {};     ///< this machine when absent
  std::optional<SocketAddress> externalAddress = {};  ///< every address of this machine when absent
  std::string description = {};
};

/// An open list. Threads: one list on one thread at a time.
class KpPortmapList;
using KpPortmapListRef = KpPortmapList*;

// The six operations on a list, with C linkage. Statuses are errno numbers, 0 for success. A null list is EINVAL (and
// not dirty). All may block on the disk. Nothing is thrown but std::bad_alloc.
extern "C" {

/// Opens the list in the file at `path` for changes; a file that is not there yet is an empty list. `*list` is the
/// caller's, to be given to `KpReleasePortmapListRef`; null unless the status is 0.
///
/// Until then no other opener, in this process or another, gets the list: an exclusive lock (flock(2)) on the file
/// `path` + ".lock", mode 0600, which is made together with the missing folders above it and stays. Waits at most ten
/// seconds for it.
///
/// EWOULDBLOCK: somebody else has the list. EBADMSG: the file is no such property list; it is left as it is. EFBIG: it
/// has more than 16 MiB. EINVAL or EISDIR: it is no regular file; EINVAL also for a null argument. Otherwise what kept
/// the file or its lock from being opened.
OSTREL_EXPORT int KpPortmapListRefCreateFromFile(const char* path, KpPortmapListRef* list);

/// Adds a mapping at the end. `protocol`, `internalAddress` and `externalAddress` are strings or null, which means any;
/// `description` is a string or null.
///
/// ERANGE: a port is not 1 to 65535. EPROTONOSUPPORT: the protocol is neither null, "TCP" nor "UDP". EAFNOSUPPORT: an
/// address is no IPv4 or IPv6 literal, or the two are not of one family. EADDRNOTAVAIL: an address that no host can be
/// reached by (see `PortMapping`). EILSEQ: the description is no text that a property list can hold. EEXIST: this very
/// mapping is there already (descriptions do not count). EADDRINUSE: one that is there takes some of the same packets:
/// its external port, protocol, address family and external address all meet those of the new one.
OSTREL_EXPORT int KpAddPortToList(KpPortmapListRef list, std::int32_t internalPort, std::int32_t externalPort,
                                  const PlistValue& protocol, const PlistValue& internalAddress,
                                  const PlistValue& externalAddress, const PlistValue& description);

/// Removes the mappings with exactly these ports, this protocol and this internal address, whatever their external
/// address: what was added with null is removed with null, and null removes nothing else. ENOENT: there is none;
/// the other statuses are those of adding.
OSTREL_EXPORT int KpRemovePortFromList(KpPortmapListRef list, std::int32_t internalPort, std::int32_t externalPort,
                                       const PlistValue& protocol, const PlistValue& internalAddress);

/// Whether the list was changed since it was opened or last written.
OSTREL_EXPORT bool KpPortmapListIsDirty(KpPortmapListRef list);

/// Writes a dirty list back to its file, whole or not at all (see `writeFileAtomically`; a new file has mode 0644).
/// Nothing is written when it is not dirty. ESTALE: somebody without the lock has changed the file meanwhile; it is
/// left as it is. EBADMSG: it would nest too deep; EFBIG: it would be too large to be read again. Otherwise what kept
/// the file from being written.
OSTREL_EXPORT int KpUpdatePortmapListFile(KpPortmapListRef list);

/// Closes a list and gives its lock up; what was not written is lost. Nothing happens for null.
OSTREL_EXPORT void KpReleasePortmapListRef(KpPortmapListRef list);

}  // extern "C"

/// The list that the gateway reads: "/private/etc/nat/autoportmap.plist" below the host root.
OSTREL_EXPORT std::string portmapListPath();

/// Opens a list for reading: as it is in this moment, without the lock, and no file is made. It can be changed in
/// memory, to try a change, but writing it is refused (EROFS). Otherwise as `KpPortmapListRefCreateFromFile`.
OSTREL_EXPORT int openPortmapListForReading(const std::string& path, KpPortmapListRef* list);

/// The mappings of a list, in order, with the changes that were not written yet. `*unknown` becomes the number of
/// elements that are no mappings. None for a null list.
OSTREL_EXPORT std::vector<PortMapping> portMappingsOf(KpPortmapListRef list, std::size_t* unknown = nullptr);

/// A mapping as an element of the list: a new mutable dictionary.
OSTREL_EXPORT PlistValue entryOf(const PortMapping& mapping);

}  // namespace ostrel
