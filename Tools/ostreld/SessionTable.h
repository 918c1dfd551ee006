// The sessions of users who have signed in.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Mutex.h"

namespace ostrel {

struct SessionLimits {
  std::chrono::milliseconds idle{std::chrono::minutes(30)};  ///< without a request
  std::chrono::milliseconds life{std::chrono::hours(12)};    ///< whatever is requested
  std::size_t perUser = 16;                                  ///< beyond these the user's least recently used one ends
  std::size_t total = 1024;                                  ///< beyond these the least recently used one of all
};

/// Equality in a time that depends on the lengths alone, so that answers cannot be used to guess byte by byte.
bool equalInConstantTime(std::string_view left, std::string_view right);

/// Sessions by their identifiers, of which only hashes under a secret of the process are kept: neither the time of a
/// look-up nor a copy of the memory tells one. They end with the process.
/// Threads: every operation may be called from any thread; none blocks.
class SessionTable {
 public:
  struct Session {
    std::string user;                 ///< the first of the record's names
    std::string directoryIdentifier;  ///< of the record (Platform/DirectoryMembership.h)
    std::string signedInAs;           ///< the name that was given with the password
  };

  explicit SessionTable(const SessionLimits& limits);
  ~SessionTable();

  /// Begins a session: its identifier, the user's name, "@" and 32 random letters and digits. Absent when the random
  /// device cannot be read.
  std::optional<std::string> begin(const Session& session);
  /// The session that an identifier stands for. It counts as used.
  std::optional<Session> find(std::string_view identifier);
  /// Ends a session; whether there was one.
  bool end(std::string_view identifier);
  std::size_t count();

 private:
  using Hash = std::array<unsigned char, 32>;
  using Time = std::chrono::nanoseconds;
  struct Entry {
    Session session;
    Time begun;
    Time used;
  };
  using Entries = std::map<Hash, Entry>;

  Hash hashOf(std::string_view identifier) const;
  bool isOver(const Entry& entry, Time now) const;
  void makeRoom(const std::string& directoryIdentifier, Time now) OSTREL_REQUIRES(mutex_);
  void endLeastRecent(const std::string* directoryIdentifier) OSTREL_REQUIRES(mutex_);

  const SessionLimits limits_;
  Hash secret_{};
  Mutex mutex_;
  Entries entries_ OSTREL_GUARDED_BY(mutex_);
};

}  // namespace ostrel
