#include "ostreld/SessionTable.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <algorithm>
#include <stdexcept>

#include "Platform/Clock.h"
#include "Platform/RandomDevice.h"

namespace ostrel {
namespace {

constexpr std::size_t tokenLength = 32;

}  // namespace

bool equalInConstantTime(std::string_view left, std::string_view right) {
  return left.size() == right.size() && CRYPTO_memcmp(left.data(), right.data(), left.size()) == 0;
}

SessionTable::SessionTable(const SessionLimits& limits) : limits_(limits) {
  if (RAND_bytes(secret_.data(), static_cast<int>(secret_.size())) != 1) {
    throw std::runtime_error("there are no random bytes");
  }
}

SessionTable::~SessionTable() { OPENSSL_cleanse(secret_.data(), secret_.size()); }

SessionTable::Hash SessionTable::hashOf(std::string_view identifier) const {
  Hash hash{};
  unsigned int size = 0;
  if (HMAC(EVP_sha256(), secret_.data(), static_cast<int>(secret_.size()),
           reinterpret_cast<const unsigned char*>(identifier.data()), identifier.size(), hash.data(),
           &size) == nullptr) {
    throw std::runtime_error("a session identifier cannot be hashed");
  }
  return hash;
}

bool SessionTable::isOver(const Entry& entry, Time now) const {
  return now - entry.used >= limits_.idle || now - entry.begun >= limits_.life;
}

std::optional<std::string> SessionTable::begin(const Session& session) {
  const auto token = randomLettersAndDigits(tokenLength);
  if (!token) return std::nullopt;
  std::string identifier = session.user + "@" + *token;
  const Hash hash = hashOf(identifier);
  const Time now = Clock::current().monotonic();
  const MutexLock lock(mutex_);
  makeRoom(session.directoryIdentifier, now);
  entries_.emplace(hash, Entry{session, now, now});
  return identifier;
}

void SessionTable::makeRoom(const std::string& directoryIdentifier, Time now) {
  std::erase_if(entries_, [&](const auto& item) { return isOver(item.second, now); });
  const auto ofUser = std::ranges::count_if(
      entries_, [&](const auto& item) { return item.second.session.directoryIdentifier == directoryIdentifier; });
  if (static_cast<std::size_t>(ofUser) >= limits_.perUser) endLeastRecent(&directoryIdentifier);
  if (entries_.size() >= limits_.total) endLeastRecent(nullptr);
}

void SessionTable::endLeastRecent(const std::string* directoryIdentifier) {
  auto oldest = entries_.end();
  for (auto item = entries_.begin(); item != entries_.end(); ++item) {
    if (directoryIdentifier != nullptr && item->second.session.directoryIdentifier != *directoryIdentifier) continue;
    if (oldest == entries_.end() || item->second.used < oldest->second.used) oldest = item;
  }
  if (oldest != entries_.end()) entries_.erase(oldest);
}

std::optional<SessionTable::Session> SessionTable::find(std::string_view identifier) {
  const Hash hash = hashOf(identifier);
  const Time now = Clock::current().monotonic();
  const MutexLock lock(mutex_);
  const auto found = entries_.find(hash);
  if (found == entries_.end()) return std::nullopt;
  if (isOver(found->second, now)) {
    entries_.erase(found);
    return std::nullopt;
  }
  found->second.used = now;
  return found->second.session;
}

bool SessionTable::end(std::string_view identifier) {
  const Hash hash = hashOf(identifier);
  const MutexLock lock(mutex_);
  return entries_.erase(hash) > 0;
}

std::size_t SessionTable::count() {
  const Time now = Clock::current().monotonic();
  const MutexLock lock(mutex_);
  std::erase_if(entries_, [&](const auto& item) { return isOver(item.second, now); });
  return entries_.size();
}

}  // namespace ostrel
