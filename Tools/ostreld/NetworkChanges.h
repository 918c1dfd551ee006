// The threads that tell the modules when the machine's network has changed.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <thread>

namespace ostrel {

class NetworkEventSource;

/// Listens for changes of links, addresses and default routes; once they have settled, compares the state with the one
/// told last, and posts the notification of a change (Network/NetworkState.h) when they differ.
///
/// One thread listens, another looks, resolves names and posts: however long a module takes, nothing is missed. What
/// happens meanwhile is told as one change afterwards. What an observer throws is logged.
///
/// Threads: `posted` and `isWatching` may be called from any thread, the rest belongs to the one that made it.
class NetworkChanges {
 public:
  /// Changes have settled when nothing happens for a second, or after five.
  static constexpr std::chrono::seconds quiet{1};
  static constexpr std::chrono::seconds most{5};

  /// Watches from now on, unless it is not wanted. When the system does not let it, that is logged and nothing posted.
  explicit NetworkChanges(bool isWanted);
  /// Waits for the modules that are being told.
  ~NetworkChanges();
  NetworkChanges(const NetworkChanges&) = delete;
  NetworkChanges& operator=(const NetworkChanges&) = delete;

  /// Tells nobody any more, and waits for those that are being told, at most for `limit` of real time; false when they
  /// are not done. A lookup of names is not waited for.
  bool stop(std::chrono::milliseconds limit);

  std::int64_t posted() const;
  bool isWatching() const;

 private:
  class Shared;

  // Both threads share it: the one that looks may be left behind in a lookup of names.
  std::shared_ptr<Shared> shared_;
  std::shared_ptr<NetworkEventSource> source_;
  std::thread listener_;
  std::thread teller_;
};

}  // namespace ostrel
