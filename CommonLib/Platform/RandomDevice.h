// The kernel's random device, opened by its name.
#pragma once

#include <atomic>
#include <cstddef>
#include <optional>
#include <string>

#include "Containers/Export.h"
#include "Platform/FileDescriptor.h"
#include "Platform/Service.h"

namespace ostrel {

/// Threads: may be called from any thread.
class OSTREL_EXPORT RandomDevice {
 public:
  virtual ~RandomDevice() = default;
  static RandomDevice& current() { return *slot().load(std::memory_order_acquire); }

  /// "/dev/random", open for reading with `readSome`; none on failure, with the reason in errno. It is the device of
  /// the kernel: the host root does not apply. A read blocks only until the kernel has gathered its first entropy.
  virtual FileDescriptor open() = 0;

 private:
  friend class ScopedOverride<RandomDevice>;
  static std::atomic<RandomDevice*>& slot();
};

/// So many letters and digits of ASCII from the random device, each equally likely. Absent when it cannot be read.
OSTREL_EXPORT std::optional<std::string> randomLettersAndDigits(std::size_t count);

}  // namespace ostrel
