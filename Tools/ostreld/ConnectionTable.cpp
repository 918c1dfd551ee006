#include "ostreld/ConnectionTable.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include "Containers/Format.h"
#include "Platform/Clock.h"

namespace ostrel {
namespace {

/// Whoever holds one IPv6 address usually holds its whole /64: they count as one peer. A listener on "::" gets IPv4
/// callers in the mapped form, which all have the same first half.
std::string peerKey(const SocketAddress& peer) {
  if (!peer.isIPv6()) return peer.numericHost();
  const auto* address = reinterpret_cast<const sockaddr_in6*>(peer.get());
  if (IN6_IS_ADDR_V4MAPPED(&address->sin6_addr)) return peer.numericHost();
  return {reinterpret_cast<const char*>(&address->sin6_addr), 8};
}

}  // namespace

std::string addressAndPort(const SocketAddress& address) {
  const std::string host = address.numericHost();
  return address.isIPv6() ? format("[%s]:%d", host, address.port()) : format("%s:%d", host, address.port());
}

std::string ConnectionTable::refusal(const SocketAddress& peer) const {
  const MutexLock lock(mutex_);
  if (connections_.size() >= limits_.total) return "too many connections";
  const auto found = perPeer_.find(peerKey(peer));
  if (found != perPeer_.end() && found->second >= limits_.perPeer) return "too many connections from this peer";
  return {};
}

ConnectionTable::Connection* ConnectionTable::enter(int descriptor, const SocketAddress& peer) {
  const auto now = Clock::current().monotonic();
  auto connection = std::make_unique<Connection>(
      Connection{addressAndPort(peer), now, descriptor, peerKey(peer), Phase::receiving, now + limits_.requestTime});
  Connection* entered = connection.get();
  const MutexLock lock(mutex_);
  ++perPeer_[entered->peer];
  connections_.emplace(entered, std::move(connection));
  return entered;
}

std::string ConnectionTable::endingReason(const Connection* connection) const {
  const MutexLock lock(mutex_);
  return connection->cutBecause == nullptr ? "no whole request" : connection->cutBecause;
}

bool ConnectionTable::leave(Connection* connection) {
  const MutexLock lock(mutex_);
  const auto found = connections_.find(connection);
  if (found == connections_.end()) return false;
  const auto peer = perPeer_.find(connection->peer);
  if (--peer->second == 0) perPeer_.erase(peer);
  const bool audited = connection->audited;
  connections_.erase(found);
  return !audited;
}

void ConnectionTable::markAudited(Connection* connection) {
  const MutexLock lock(mutex_);
  connection->audited = true;
}

void ConnectionTable::enterPhase(Connection* connection, Phase phase) {
  const auto now = Clock::current().monotonic();
  const MutexLock lock(mutex_);
  connection->phase = phase;
  connection->deadline = now + limits_.replyTime;
}

void ConnectionTable::cut(Connection& connection, const char* reason) {
  connection.cutBecause = reason;
  shutdown(connection.descriptor, SHUT_RDWR);
}

void ConnectionTable::cutOverdue() {
  const auto now = Clock::current().monotonic();
  const MutexLock lock(mutex_);
  for (auto& [key, connection] : connections_) {
    if (connection->cutBecause != nullptr || connection->phase == Phase::running) continue;
    if (now >= connection->deadline) cut(*connection, "not sent in time");
  }
}

void ConnectionTable::cutReceiving() {
  const MutexLock lock(mutex_);
  for (auto& [key, connection] : connections_) {
    if (connection->phase == Phase::receiving) cut(*connection, "daemon is stopping");
  }
}

std::size_t ConnectionTable::count() const {
  const MutexLock lock(mutex_);
  return connections_.size();
}

}  // namespace ostrel
