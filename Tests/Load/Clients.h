// The clients: synchronous ones on threads of their own, asynchronous ones on the main event loop.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "ClientSession/OstrelDaemonSession.h"
#include "Load/Ledger.h"

namespace ostrel::load {

using SteadyTime = std::chrono::steady_clock::time_point;

/// One user of the daemon with one request at a time: what it sends next, and what it knows to be stored.
///
/// Every user has keys of its own, so that after each acknowledged number exactly that one must be found.
class User {
 public:
  /// A request on its way, and what to expect of it.
  struct Request {
    std::string kind;
    std::string module;
    PlistValue request;
    std::map<std::string, std::int64_t> numbers;  ///< by module: what will be stored once it is acknowledged
  };

  User(std::string key, unsigned seed, std::vector<std::string> modules, std::vector<std::string> foreignModules,
       bool sendsBatches)
      : key_(std::move(key)),
        modules_(std::move(modules)),
        foreignModules_(std::move(foreignModules)),
        sendsBatches_(sendsBatches),
        random_(seed) {}

  Request next();
  /// Checks a reply; the fault, or "".
  std::string take(const Request& sent, const PlistValue& reply);

  const std::string& key() const { return key_; }
  /// By module: the last acknowledged number.
  const std::map<std::string, std::int64_t>& acknowledged() const { return acknowledged_; }

 private:
  const std::string& any(const std::vector<std::string>& names) { return names[random_() % names.size()]; }
  PlistValue keepRequest(const std::string& module, Request& request);

  std::string key_;
  std::vector<std::string> modules_;
  std::vector<std::string> foreignModules_;
  bool sendsBatches_;
  std::minstd_rand random_;
  std::map<std::string, std::int64_t> acknowledged_;
};

using NewSession = std::function<std::shared_ptr<OstrelDaemonSession>(const std::string& module)>;

/// Lets all users work until `end`: the synchronous ones on a thread each, the asynchronous ones, `lanes` requests of a
/// session at a time, on the calling thread, which must be the main one. Returns when all are answered.
void work(std::vector<User>& synchronous, std::vector<User>& asynchronous, std::size_t lanes, const NewSession& session,
          SteadyTime end, Ledger& ledger);

}  // namespace ostrel::load
