// The machine's hardware: its devices as a tree, with properties.
#pragma once

#include <atomic>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Containers/Export.h"
#include "Containers/PlistValue.h"
#include "Platform/Service.h"

namespace ostrel {

/// An entry of the registry, as a value: entries need no release, and one whose device is gone has no property.
struct RegistryEntry {
  std::string place;  ///< of the registry's own
};

/// Paths in the service plane begin "IOService:/" and name an entry below the one that provides for it; the part before
/// the last "/" is the provider's.
///
/// Linux: the devices below /sys/devices (sysfs(5), below the host root). The path of a disk is "IOService:" and its
/// path below /sys. Devices that software makes are no hardware: loop devices, RAM disks and network block devices have
/// no entry, and a device that is made of others (device mapper, md, bcache) stands below each disk that it is made of,
/// so that it has several paths. Properties are derived from what the drivers show:
///
///   "Physical Interconnect"     of a bus or a host adapter, by its driver:
///                               "SATA", "ATA"              port of libata, with and without a SATA link
///                               "SAS"                      SCSI host of the SAS transport
///                               "Parallel SCSI"            SCSI host of the SPI transport
///                               "Fibre Channel Interface"  SCSI host of the FC transport
///                               "iSCSI"                    SCSI host of the iSCSI transport
///                               "USB", "FireWire"          device of those buses
///                               "PCI-Express"              NVMe controller; "NVMe over Fabrics" for a remote one
///                               "Secure Digital"           SD and MMC cards
///                               "Virtual Interface"        virtio, Xen and Hyper-V devices
///                               A PCI device has that of the ports, hosts and buses that it provides.
///   "Protocol Characteristics"  of a PCI device: a dictionary whose "Physical Interconnect" goes by the device's class
///                               code, which tells of adapters whose driver shows no transport
///   "IOProviderClass"           "IOPCIDevice" for a PCI device
///
/// Threads: may be called from any thread. Reads small files of the kernel's.
class OSTREL_EXPORT HardwareRegistry {
 public:
  virtual ~HardwareRegistry() = default;
  static HardwareRegistry& current() { return *slot().load(std::memory_order_acquire); }

  /// The service of the disk or partition that the kernel calls so ("sda1"; "cciss/c0d0"). Absent when there is none.
  virtual std::optional<RegistryEntry> diskService(std::string_view name) = 0;
  /// The paths of an entry in the service plane: one, or one for each disk that it is made of. Empty on failure.
  virtual std::vector<std::string> servicePaths(const RegistryEntry& entry) = 0;
  /// The entry at a path in the service plane. Absent when there is none.
  virtual std::optional<RegistryEntry> entryAtPath(std::string_view path) = 0;
  /// A property of an entry; null when it has none of that name.
  virtual PlistValue property(const RegistryEntry& entry, std::string_view name) = 0;
  /// The property of the entry or of the nearest one above it in the service plane that has it; null when none has.
  virtual PlistValue searchUpwards(const RegistryEntry& entry, std::string_view name) = 0;

 private:
  friend class ScopedOverride<HardwareRegistry>;
  static std::atomic<HardwareRegistry*>& slot();
};

}  // namespace ostrel
