// Decides who a caller is. The one place where callers are let in.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "ostreld/BasicCredentials.h"
#include "ostreld/SessionTable.h"
#include "ostreld/SignInGate.h"

namespace ostrel {

/// A caller who was let in.
struct Caller {
  std::string user;
  std::string sessionIdentifier;    ///< goes back with the reply
  std::string directoryIdentifier;  ///< of the user's record; "" for the daemon's own user
  bool isDaemonsOwn = false;        ///< holds the identifier that the daemon left for its own user
};

/// Lets in the holders of the daemon's own session identifier, of a session, and those whose password the directory's
/// search node accepts; the latter begin a session.
/// Threads: every operation may be called from any thread.
class Authenticator {
 public:
  Authenticator(std::string ownIdentifier, const SessionLimits& sessions, const SignInLimits& signIns);

  /// Who presents this identifier ("" when there is none). Does not block.
  std::optional<Caller> callerWith(std::string_view sessionIdentifier);
  /// Whether the caller's session makes these credentials superfluous: they are those that it began with, as far as can
  /// be told without the password.
  bool coversCredentials(const Caller& caller, const BasicCredentials& credentials);

  enum class SignIn {
    accepted,
    refused,          ///< whoever or whatever was wrong
    tooManyFailures,  ///< from this peer; nothing was checked
    tooBusy,          ///< nothing was checked
  };
  /// Checks credentials and begins a session. `peer` is what failures are counted for, `from` goes into the log.
  /// Blocks: for its turn, for the check, and after a failure for the time that it has to take.
  SignIn signIn(const BasicCredentials& credentials, const std::string& peer, const std::string& from, Caller& caller);
  std::chrono::seconds waitOf(const std::string& peer) { return gate_.waitOf(peer); }

  /// Ends a caller's session; false for the daemon's own, which ends with the daemon.
  bool signOut(const Caller& caller);
  /// Nobody waits any more: the daemon stops.
  void stop() { gate_.stop(); }

 private:
  bool check(const BasicCredentials& credentials, const std::string& from, Caller& caller);

  const std::string ownIdentifier_;
  SessionTable sessions_;
  SignInGate gate_;
};

}  // namespace ostrel
