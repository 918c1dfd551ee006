// The connections of an LDAP node: which server is asked, and who uses which connection.
#pragma once

#include <chrono>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "Platform/Internal/Directory/LdapConnection.h"
#include "Platform/Mutex.h"

namespace ostrel::detail {

/// The servers of one site, asked in turn: the one that last answered, then the others in the order of the
/// configuration. One that could not be connected to in time is left alone for a while, so that not every caller waits
/// for it; one that took the connection and did not answer comes last for a while.
/// Threads: any. No lock is held while a server is asked.
class LdapServers {
 public:
  explicit LdapServers(LdapSettings settings);

  const LdapSettings& settings() const { return settings_; }
  /// Throws LdapFailure.
  std::unique_ptr<LdapConnection> connect(const LdapCredentials& credentials);
  /// Called for connections that end.
  void ended(const LdapConnection& connection) OSTREL_EXCLUDES(mutex_);

 private:
  struct State {
    std::chrono::steady_clock::time_point restsUntil{};
    std::chrono::steady_clock::time_point lastUntil{};
  };
  std::vector<std::size_t> order() OSTREL_EXCLUDES(mutex_);
  void tell(std::size_t server, bool answered, std::chrono::steady_clock::duration took) OSTREL_EXCLUDES(mutex_);

  const LdapSettings settings_;
  Mutex mutex_;
  std::size_t preferred_ OSTREL_GUARDED_BY(mutex_) = 0;
  std::vector<State> states_ OSTREL_GUARDED_BY(mutex_);
};

/// The connections that are bound as one name: at most so many as configured. A search that rests leaves its connection
/// here, because its pages belong to it; it loses it when others need one.
/// Threads: any. No lock is held while a server is asked.
class LdapPool {
 public:
  LdapPool(std::shared_ptr<LdapServers> servers, const LdapCredentials& credentials);
  LdapPool(const LdapPool&) = delete;
  LdapPool& operator=(const LdapPool&) = delete;

  /// A connection. Throws LdapFailure: `busy` when all were in use for too long.
  std::unique_ptr<LdapConnection> take();
  /// Takes back what `take` or `reclaim` gave; ends it when it is of no more use.
  void giveBack(std::unique_ptr<LdapConnection> connection);

  /// Leaves a connection here; the number by which it is asked for again.
  std::uint64_t park(std::unique_ptr<LdapConnection> connection);
  /// Null when it was needed, or its server hung up.
  std::unique_ptr<LdapConnection> reclaim(std::uint64_t number);

 private:
  struct Parked {
    std::uint64_t number = 0;
    std::unique_ptr<LdapConnection> connection;
  };
  void release(std::unique_ptr<LdapConnection> ended);

  const std::shared_ptr<LdapServers> servers_;
  const LdapCredentials credentials_;
  Mutex mutex_;
  Condition freed_;
  std::uint32_t open_ OSTREL_GUARDED_BY(mutex_) = 0;
  std::vector<std::unique_ptr<LdapConnection>> idle_ OSTREL_GUARDED_BY(mutex_);
  std::list<Parked> parked_ OSTREL_GUARDED_BY(mutex_);  ///< the one that rests longest first
  std::uint64_t lastNumber_ OSTREL_GUARDED_BY(mutex_) = 0;
};

/// A connection for a scope.
class LdapLease {
 public:
  explicit LdapLease(LdapPool& pool) : pool_(pool), connection_(pool.take()) {}
  ~LdapLease() { pool_.giveBack(std::move(connection_)); }
  LdapLease(const LdapLease&) = delete;
  LdapLease& operator=(const LdapLease&) = delete;
  LdapConnection& operator*() const { return *connection_; }
  LdapConnection* operator->() const { return connection_.get(); }

 private:
  LdapPool& pool_;
  std::unique_ptr<LdapConnection> connection_;
};

/// Runs what only reads on a connection; once more on another one when the first was lost.
template <class Work>
auto readFrom(LdapPool& pool, Work&& work) {
  try {
    const LdapLease connection(pool);
    return work(*connection);
  } catch (const LdapFailure& failure) {
    if (!failure.lost) throw;
  }
  const LdapLease connection(pool);
  return work(*connection);
}

/// Runs one change on a connection; once more on another one when it is certain that the server did not get it.
template <class Work>
void changeOn(LdapPool& pool, Work&& work) {
  try {
    const LdapLease connection(pool);
    return work(*connection);
  } catch (const LdapFailure& failure) {
    if (!failure.lost || failure.sent) throw;
  }
  const LdapLease connection(pool);
  work(*connection);
}

}  // namespace ostrel::detail
