#include "Platform/Internal/Directory/LdapPool.h"

#include <algorithm>
#include <utility>

namespace ostrel::detail {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds rest{10};
// A refused connection costs nothing, and the server may be back at once.
constexpr std::chrono::milliseconds costly{50};

}  // namespace

LdapServers::LdapServers(LdapSettings settings) : settings_(std::move(settings)), states_(settings_.servers.size()) {}

std::vector<std::size_t> LdapServers::order() {
  const auto now = Clock::now();
  const MutexLock lock(mutex_);
  std::vector<std::size_t> order;
  for (std::size_t at = 0; at < states_.size(); ++at)
    if (states_[at].restsUntil <= now) order.push_back(at);
  const auto preferred = std::ranges::find(order, preferred_);
  if (preferred != order.end()) std::rotate(order.begin(), preferred, preferred + 1);
  const auto isWell = [&](std::size_t at) OSTREL_NO_THREAD_SAFETY_ANALYSIS {  // locked above
    return states_[at].lastUntil <= now;
  };
  std::stable_partition(order.begin(), order.end(), isWell);  // clang 14 knows no subranges of libstdc++
  return order;
}

void LdapServers::ended(const LdapConnection& connection) {
  if (!connection.timedOut()) return;
  const auto isServer = [&](const LdapServer& server) { return server.url == connection.url(); };
  const auto found = std::ranges::find_if(settings_.servers, isServer);
  const MutexLock lock(mutex_);
  states_[static_cast<std::size_t>(found - settings_.servers.begin())].lastUntil = Clock::now() + rest;
}

void LdapServers::tell(std::size_t server, bool answered, Clock::duration took) {
  const MutexLock lock(mutex_);
  if (answered) preferred_ = server;
  states_[server].restsUntil = !answered && took > costly ? Clock::now() + rest : Clock::time_point{};
}

std::unique_ptr<LdapConnection> LdapServers::connect(const LdapCredentials& credentials) {
  for (const std::size_t at : order()) {
    const auto begun = Clock::now();
    try {
      auto connection = std::make_unique<LdapConnection>(settings_, settings_.servers[at], credentials);
      tell(at, true, {});
      return connection;
    } catch (const LdapFailure& failure) {
      const bool answered = !failure.lost;
      tell(at, answered, Clock::now() - begun);
      if (answered) throw;  // it refuses these credentials, as the others would
    }
  }
  throw LdapFailure{directoryStatus::unreachable, true, false};
}

LdapPool::LdapPool(std::shared_ptr<LdapServers> servers, const LdapCredentials& credentials)
    : servers_(std::move(servers)), credentials_(credentials) {
  idle_.reserve(servers_->settings().connections);  // giving back must not fail
}

std::unique_ptr<LdapConnection> LdapPool::take() {
  const LdapSettings& settings = servers_->settings();
  const auto deadline = Clock::now() + settings.answerTimeout;
  for (;;) {
    std::unique_ptr<LdapConnection> ended;  // closed after the lock
    {
      MutexLock lock(mutex_);
      while (idle_.empty() && parked_.empty() && open_ >= settings.connections)
        if (!freed_.waitUntil(mutex_, deadline)) throw LdapFailure{directoryStatus::busy, false, false};
      if (!idle_.empty()) {
        auto connection = std::move(idle_.back());
        idle_.pop_back();
        lock.unlock();
        if (connection->isUsable()) return connection;
        release(std::move(connection));
        continue;
      }
      if (open_ < settings.connections) {
        ++open_;
      } else {
        ended = std::move(parked_.front().connection);
        parked_.pop_front();
      }
    }
    ended.reset();
    try {
      return servers_->connect(credentials_);
    } catch (...) {
      release(nullptr);
      throw;
    }
  }
}

void LdapPool::giveBack(std::unique_ptr<LdapConnection> connection) {
  if (!connection) return;
  if (!connection->isUsable()) return release(std::move(connection));
  const MutexLock lock(mutex_);
  idle_.push_back(std::move(connection));
  freed_.notifyOne();
}

void LdapPool::release(std::unique_ptr<LdapConnection> ended) {
  if (ended) servers_->ended(*ended);
  ended.reset();
  const MutexLock lock(mutex_);
  --open_;
  freed_.notifyOne();
}

std::uint64_t LdapPool::park(std::unique_ptr<LdapConnection> connection) {
  const MutexLock lock(mutex_);
  parked_.push_back({++lastNumber_, std::move(connection)});
  freed_.notifyOne();
  return lastNumber_;
}

std::unique_ptr<LdapConnection> LdapPool::reclaim(std::uint64_t number) {
  const MutexLock lock(mutex_);
  const auto found = std::ranges::find_if(parked_, [&](const Parked& parked) { return parked.number == number; });
  if (found == parked_.end()) return nullptr;
  auto connection = std::move(found->connection);
  parked_.erase(found);
  return connection;
}

}  // namespace ostrel::detail
