// How many passwords may be tried, how fast and from where.
#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <string>
#include <string_view>

#include "Platform/Mutex.h"

namespace ostrel {

struct SignInLimits {
  std::size_t checksAtOnce = 0;  ///< passwords, half of them from one peer; 0: as many as there are processors, 2 to 8
  std::chrono::milliseconds patience{10'000};       ///< how long a check may wait for its turn
  std::size_t failuresPerPeer = 20;                 ///< from one IPv4 address or IPv6 /64 network, then none is checked
  std::chrono::milliseconds forgetsOne{30'000};     ///< after so long each count falls by one
  std::chrono::milliseconds failureTime{500};       ///< what a failure takes
  std::chrono::milliseconds longestFailure{8'000};  ///< what it takes when many have gone before
};

/// Slows down and counts the tries of passwords.
///
/// Each failure counts for the peer that it came from and for the name that was given, whether there is such a user or
/// not. It is answered after a time that depends on these counts alone: twice as long with every third failure beyond
/// nine (clients repeat a refused request twice). A peer with too many failures has to wait until some are forgotten; a
/// user never does, so nobody can keep another from signing in from somewhere else. Both tables are bounded: when one
/// is full, the half with the fewest failures makes room.
///
/// Threads: every operation may be called from any thread.
class SignInGate {
 public:
  explicit SignInGate(const SignInLimits& limits);

  enum class Entry { open, tooManyFailures, tooBusy };
  /// Waits for this peer's turn to have a password checked. After `open` the caller owes one `leave`.
  Entry enter(const std::string& peer);
  /// The password was right: forgets the user's failures, and as many of the peer's.
  void leaveAccepted(const std::string& peer, std::string_view user);
  /// It was not, or could not be checked: counts it, and sleeps until the answer may go out. `begun` is when the
  /// request came, by the monotonic clock.
  void leaveRefused(const std::string& peer, std::string_view user, std::chrono::nanoseconds begun);

  /// When a peer that has too many failures may try again.
  std::chrono::seconds waitOf(const std::string& peer);
  /// Nobody waits any more: the daemon stops.
  void stop();

 private:
  using Time = std::chrono::nanoseconds;
  struct Count {
    double failures = 0;  ///< at `when`
    Time when{};
  };
  using Counts = std::map<std::string, Count, std::less<>>;

  double left(const Count& count, Time time) const;
  double left(const Counts& counts, std::string_view key, Time time) const;
  double add(Counts& counts, std::string_view key, double failures, Time time) const;
  void makeRoom(Counts& counts, Time time) const;
  Time failureTime(double failures) const;
  void endCheck(const std::string& peer) OSTREL_REQUIRES(mutex_);

  const SignInLimits limits_;
  Mutex mutex_;
  Condition changed_;
  bool stopping_ OSTREL_GUARDED_BY(mutex_) = false;
  std::size_t checks_ OSTREL_GUARDED_BY(mutex_) = 0;
  std::map<std::string, std::size_t> checksOfPeer_ OSTREL_GUARDED_BY(mutex_);
  Counts peers_ OSTREL_GUARDED_BY(mutex_);
  Counts users_ OSTREL_GUARDED_BY(mutex_);
};

}  // namespace ostrel
