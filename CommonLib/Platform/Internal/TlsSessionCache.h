// The TLS sessions that connections of this process may resume.
#pragma once

#include <openssl/ssl.h>

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

#include "Platform/Mutex.h"

namespace ostrel {

struct TlsSessionDeleter {
  void operator()(SSL_SESSION* session) const { SSL_SESSION_free(session); }
};
using TlsSessionPointer = std::unique_ptr<SSL_SESSION, TlsSessionDeleter>;

/// Keeps the newest session for each key. Sessions go in and out as copies, so that no two connections share one that
/// either of them still changes.
///
/// Threads: every operation may be called from any thread.
class TlsSessionCache {
 public:
  /// The cache of the process. It is never destroyed.
  static TlsSessionCache& shared();

  void put(const std::string& key, SSL_SESSION* session);
  /// A session to resume, or null. One that has run out, or whose certificate has (with `mustBeUnexpired`), is dropped.
  TlsSessionPointer get(const std::string& key, bool mustBeUnexpired);

 private:
  struct Entry {
    TlsSessionPointer session;
    std::uint64_t age = 0;
  };
  static constexpr std::size_t capacity = 256;

  void makeRoom() OSTREL_REQUIRES(mutex_);

  Mutex mutex_;
  std::unordered_map<std::string, Entry> entries_ OSTREL_GUARDED_BY(mutex_);
  std::uint64_t puts_ OSTREL_GUARDED_BY(mutex_) = 0;
};

}  // namespace ostrel
