// News of the machine's links, addresses and default routes, as they change (rtnetlink(7)).
#pragma once

#include <atomic>
#include <memory>

#include "Containers/Export.h"
#include "Platform/Service.h"

namespace ostrel {

/// Hears what happens from the moment when it was made. Threads: one waits; `end` may be called from any thread.
class OSTREL_EXPORT NetworkEventSource {
 public:
  enum class Event {
    changed,  ///< a link, an address or a default route changed, or may have: some news could not be kept (ENOBUFS)
    ended,    ///< `end` was called
    failed,   ///< nothing can be heard any more; the reason is in errno
  };

  virtual ~NetworkEventSource() = default;
  /// Blocks until there is one. What changed has to be looked up: several changes may give one event.
  virtual Event wait() = 0;
  /// Lets the wait that runs, and every later one, answer `ended`.
  virtual void end() = 0;
};

/// Threads: may be called from any thread.
class OSTREL_EXPORT NetworkEvents {
 public:
  virtual ~NetworkEvents() = default;
  static NetworkEvents& current() { return *slot().load(std::memory_order_acquire); }

  /// Starts to listen in the network namespace of the calling thread; null with errno when the system refuses.
  virtual std::unique_ptr<NetworkEventSource> open() = 0;

 private:
  friend class ScopedOverride<NetworkEvents>;
  static std::atomic<NetworkEvents*>& slot();
};

}  // namespace ostrel
