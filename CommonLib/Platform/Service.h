// How a platform service is replaced for a test.
#pragma once

#include <atomic>

namespace ostrel {

/// Puts a fake in the place of a platform service for the lifetime of this object. Every service has a static
/// `current()` that callers use and a static `slot()` that this class swaps.
///
/// Threads: overrides nest, innermost last, and are made and ended on one thread while no other uses the service.
/// The fake is borrowed and must outlive the override.
template <class Service>
class ScopedOverride {
 public:
  explicit ScopedOverride(Service& fake) : previous_(Service::slot().exchange(&fake)) {}
  ~ScopedOverride() { Service::slot().store(previous_); }
  ScopedOverride(const ScopedOverride&) = delete;
  ScopedOverride& operator=(const ScopedOverride&) = delete;

 private:
  Service* previous_;
};

}  // namespace ostrel
