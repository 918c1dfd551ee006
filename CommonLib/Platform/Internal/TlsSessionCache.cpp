#include "Platform/Internal/TlsSessionCache.h"

#include <openssl/x509.h>

#include <algorithm>
#include <ctime>
#include <utility>

namespace ostrel {
namespace {

TlsSessionPointer copyOf(SSL_SESSION* session) { return TlsSessionPointer(SSL_SESSION_dup(session)); }

bool hasRunOut(SSL_SESSION* session) {
  return static_cast<std::int64_t>(SSL_SESSION_get_time(session)) + SSL_SESSION_get_timeout(session) <=
         static_cast<std::int64_t>(std::time(nullptr));
}

bool certificateHasRunOut(SSL_SESSION* session) {
  const X509* certificate = SSL_SESSION_get0_peer(session);
  return certificate == nullptr || X509_cmp_current_time(X509_get0_notAfter(certificate)) <= 0;
}

}  // namespace

TlsSessionCache& TlsSessionCache::shared() {
  static auto* const cache = new TlsSessionCache;  // connections of late threads may still use it at exit
  return *cache;
}

void TlsSessionCache::put(const std::string& key, SSL_SESSION* session) {
  if (SSL_SESSION_is_resumable(session) == 0) return;
  TlsSessionPointer copy = copyOf(session);
  if (copy == nullptr) return;
  const MutexLock lock(mutex_);
  if (!entries_.contains(key)) makeRoom();
  Entry& entry = entries_[key];
  entry.session.swap(copy);
  entry.age = ++puts_;
}

TlsSessionPointer TlsSessionCache::get(const std::string& key, bool mustBeUnexpired) {
  const MutexLock lock(mutex_);
  const auto found = entries_.find(key);
  if (found == entries_.end()) return nullptr;
  SSL_SESSION* session = found->second.session.get();
  if (hasRunOut(session) || (mustBeUnexpired && certificateHasRunOut(session))) {
    entries_.erase(found);
    return nullptr;
  }
  return copyOf(session);
}

void TlsSessionCache::makeRoom() {
  if (entries_.size() < capacity) return;
  entries_.erase(std::ranges::min_element(entries_, {}, [](const auto& item) { return item.second.age; }));
}

}  // namespace ostrel
