// Takes connections, with or without TLS, keeps their limits and runs each command on a thread of its own.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Platform/SocketAddress.h"
#include "ostreld/Certificate.h"
#include "ostreld/CommandExchange.h"
#include "ostreld/ConnectionTable.h"

namespace ostrel {

struct CommandServerOptions {
  SocketAddress address;                 ///< port 0: the kernel picks one
  std::optional<CertificateAndKey> tls;  ///< none: plain TCP
  ConnectionLimits connections;
};

/// Threads: its operations belong to the thread that made it; commands run on others.
class CommandServer {
 public:
  /// Listens, and serves from then on. Null on failure, and `fault` says what failed and what to do.
  static std::unique_ptr<CommandServer> start(const CommandServerOptions& options, ExchangeRules rules,
                                              std::string& fault);
  /// Ends every connection and waits for running commands.
  virtual ~CommandServer() = default;

  /// Where it listens, with the port that the kernel picked.
  virtual const SocketAddress& address() const = 0;
  /// Takes no more connections; those that are open go on.
  virtual void stopListening() = 0;
  virtual ConnectionTable& connections() = 0;
};

}  // namespace ostrel
