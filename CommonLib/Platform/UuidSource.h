// New universally unique identifiers (RFC 4122).
#pragma once

#include <atomic>
#include <string>

#include "Containers/Export.h"
#include "Platform/Service.h"

namespace ostrel {

/// Threads: may be called from any thread.
class OSTREL_EXPORT UuidSource {
 public:
  virtual ~UuidSource() = default;
  static UuidSource& current() { return *slot().load(std::memory_order_acquire); }

  /// A random UUID (version 4) in its canonical form, upper-case: 8-4-4-4-12 hexadecimal digits. Empty when the kernel
  /// gives no random bytes.
  virtual std::string make() = 0;

 private:
  friend class ScopedOverride<UuidSource>;
  static std::atomic<UuidSource*>& slot();
};

}  // namespace ostrel
