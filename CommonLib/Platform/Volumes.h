// The mounted volumes of this machine, and which volume a path is on.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Containers/Export.h"
#include "Platform/Service.h"

namespace ostrel {

/// One line of the mount table.
struct Mount {
  std::uint64_t id = 0;          ///< of the mount, unique while it is mounted
  unsigned int deviceMajor = 0;  ///< number of the device; a major number of 0 for a file system without one
  unsigned int deviceMinor = 0;
  std::string path;    ///< where it is mounted
  std::string type;    ///< of the file system, for example "ext4"
  std::string source;  ///< what was mounted, as it was spelled: a device, "server:/export", "tmpfs"; may be ""
};

/// Reads a mount table (/proc/self/mountinfo, proc(5)). Lines that do not have its form are passed over. A pure
/// function; what it reads holds texts that users chose.
OSTREL_EXPORT std::vector<Mount> parseMountTable(std::string_view text);

/// A mounted volume.
struct Volume {
  std::string path;    ///< where it is mounted
  std::string type;    ///< of the file system
  std::string device;  ///< that it is mounted from; "" where the mount table does not tell
  friend bool operator==(const Volume&, const Volume&) = default;
};

/// On Linux the device of a volume is "/dev/" and the name by which the kernel knows the device ("/dev/sda1",
/// "/dev/dm-0", whatever name it was mounted by), and what the mount table calls it for a file system without a
/// device. Of a file system on several devices it is the one that the mount table names.
///
/// Threads: may be called from any thread.
class OSTREL_EXPORT Volumes {
 public:
  virtual ~Volumes() = default;
  static Volumes& current() { return *slot().load(std::memory_order_acquire); }

  /// The volume that a path is on. Absent with errno when the path leads to nothing or may not be followed. May block
  /// on a network volume that does not respond.
  virtual std::optional<Volume> volumeOf(const std::string& path) = 0;
  /// Every mounted volume, in the order of the mount table. Touches no volume.
  virtual std::vector<Volume> list() = 0;

 private:
  friend class ScopedOverride<Volumes>;
  static std::atomic<Volumes*>& slot();
};

}  // namespace ostrel
