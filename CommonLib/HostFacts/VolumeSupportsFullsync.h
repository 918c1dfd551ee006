// Whether the disk behind a volume honours a full flush of its write cache.
#pragma once

#include <cstdint>

#include "Containers/Export.h"
#include "Containers/PlistValue.h"

namespace ostrel {

// What `VolumeSupportsFullsync` answers.
inline constexpr std::int32_t fullsyncSupported = 0;
inline constexpr std::int32_t fullsyncNotSupported = 1;  ///< or undetermined
inline constexpr std::int32_t fullsyncNoDevice = 2;      ///< the volume's device is not in the hardware registry
inline constexpr std::int32_t fullsyncFailed = -1;       ///< errno says why

/// Judges the disk behind the volume that `path` (text) is on by its physical interconnect: "SAS", "SATA", "Parallel
/// SCSI", "ATA" and "Fibre Channel Interface" are supported; every other one, and none, is not. docs/host-facts.md
/// tells what that means for the buses of today: NVMe and virtual disks are "undetermined", whatever they honour.
///
/// `reason` is null, or points to a null value, where the function stores a mutable dictionary of the caller's whose
/// "ReasonCode" is a number:
///
///   result  ReasonCode
///     0         0       the interconnect is supported; errno is 0
///     1         5       it is not, none was found, or the registry tells no path of the device
///     2         3       no registry entry matches the volume's device: disk images, network volumes, RAM disks
///    -1         1       the path cannot be converted (a NUL in it: ENOENT; no memory: ENOMEM) or examined (errno of
///    the
///                       system)
///    -1       none      the path is no text, or `reason` points to a value already, which is left as it was (EINVAL)
///
/// errno means nothing after 1 and 2. A device that is made of several disks (a logical volume, a RAID, a multipath
/// device, encryption over one) is supported when each of them is.
///
/// Threads: may be called from any thread. May block on a network volume that does not respond. Nothing is thrown.
OSTREL_EXPORT std::int32_t VolumeSupportsFullsync(const PlistValue& path, PlistValue* reason);

/// The interconnects by which `VolumeSupportsFullsync` judges the volume that `path` is on, one for each disk behind it
/// and "" for one that has none: an immutable array of texts, empty when there is no disk. For telling people why.
/// Threads and blocking: as above. Nothing is thrown except std::bad_alloc.
OSTREL_EXPORT PlistValue VolumeInterconnects(const PlistValue& path);

}  // namespace ostrel
