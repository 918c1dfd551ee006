// The open connections: how many there may be, and how long each may take to send its request and read its reply.
#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <string>

#include "Platform/Mutex.h"
#include "Platform/SocketAddress.h"

namespace ostrel {

/// "127.0.0.1:311", "[::1]:311".
std::string addressAndPort(const SocketAddress& address);

struct ConnectionLimits {
  std::size_t total = 256;
  std::size_t perPeer = 64;                       ///< one IPv4 address or one IPv6 /64 network
  std::chrono::milliseconds requestTime{30'000};  ///< from the connection to the last byte of the request
  std::chrono::milliseconds replyTime{60'000};    ///< from the reply's first byte to the end of the connection
};

/// Threads: every operation may be called from any thread; none blocks.
class ConnectionTable {
 public:
  enum class Phase { receiving, running, replying };

  /// One open connection. Its members are read and written under the table's lock only, the constant ones and the last
  /// aside.
  struct Connection {
    const std::string from;  ///< numeric address and port
    const std::chrono::nanoseconds accepted;
    int descriptor;
    const std::string peer;  ///< one IPv4 address or one IPv6 /64 network
    Phase phase = Phase::receiving;
    std::chrono::nanoseconds deadline;
    const char* cutBecause = nullptr;
    bool audited = false;
    bool isWhole = false;  ///< all of the request was read; belongs to the thread that carries the connection
  };

  explicit ConnectionTable(const ConnectionLimits& limits) : limits_(limits) {}

  /// Why a connection from this peer has to be refused now; empty when it may come in.
  std::string refusal(const SocketAddress& peer) const;
  /// Enters a connection. The descriptor stays the caller's and must stay open until `leave`. The result is valid until
  /// then.
  Connection* enter(int descriptor, const SocketAddress& peer);
  /// Takes a connection out. Returns whether it ended without its audit line.
  bool leave(Connection* connection);
  /// Why a connection ends that never sent a whole request.
  std::string endingReason(const Connection* connection) const;

  /// The request is there in whole: no deadline stands until the reply begins.
  void beginCommand(Connection* connection) { enterPhase(connection, Phase::running); }
  void beginReply(Connection* connection) { enterPhase(connection, Phase::replying); }
  /// The one line that this connection gets has been written.
  void markAudited(Connection* connection);

  /// Shuts down the connections whose deadline has passed; their owner then finds them closed.
  void cutOverdue();
  /// Shuts down those that have not sent a whole request.
  void cutReceiving();
  std::size_t count() const;
  const ConnectionLimits& limits() const { return limits_; }

 private:
  void enterPhase(Connection* connection, Phase phase);
  static void cut(Connection& connection, const char* reason);

  const ConnectionLimits limits_;
  mutable Mutex mutex_;
  std::map<Connection*, std::unique_ptr<Connection>> connections_ OSTREL_GUARDED_BY(mutex_);
  std::map<std::string, std::size_t> perPeer_ OSTREL_GUARDED_BY(mutex_);
};

}  // namespace ostrel
