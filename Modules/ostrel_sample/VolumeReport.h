// What the sample module tells of the machine's volumes: whether their disks honour a full flush.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "Containers/PlistValue.h"
#include "Platform/Mutex.h"

namespace ostrel::sample {

/// Threads: may be called from any thread.
class VolumeReport {
 public:
  /// The mounted volumes on disks and on the network, by path, each device once: an array of {"path", "device",
  /// "fileSystem", "fullSync": in words}, with "fullSyncResult" and "reasonCode" (HostFacts/VolumeSupportsFullsync.h)
  /// and "interconnects" of the disks behind it. A volume that does not respond within two seconds for all of them, as
  /// a network volume may, has "fullSync" "no answer" and none of the three: it is asked on a thread that waits for it
  /// beyond this call, and is asked again only when that thread has ended.
  PlistValue take();

 private:
  struct Question;
  std::shared_ptr<Question> ask(const std::string& path);

  Mutex mutex_;
  std::map<std::string, std::shared_ptr<Question>> open_ OSTREL_GUARDED_BY(mutex_);  // without an answer so far
};

}  // namespace ostrel::sample
