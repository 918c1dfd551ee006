// nginx beside the daemon: TLS, a fixed answer, a connection for each request.
#pragma once

#include <memory>
#include <string>

#include "Support/TemporaryFolder.h"
#include "Tools/ChildProcess.h"

namespace ostrel::load {

/// Runs below a folder of its own, on port 311 of a loopback address, until it is destroyed.
class NginxPeer {
 public:
  /// `pem` holds certificate and key; `body` is what every request is answered with. Throws std::runtime_error when
  /// nginx does not start.
  NginxPeer(const std::string& host, const std::string& pem, const std::string& body);
  ~NginxPeer();
  NginxPeer(const NginxPeer&) = delete;
  NginxPeer& operator=(const NginxPeer&) = delete;

  static bool isInstalled();
  std::string url() const { return "https://" + host_ + ":311/commands/peer"; }

 private:
  const std::string host_;
  testing::TemporaryFolder folder_;
  std::unique_ptr<testing::ChildProcess> master_;
};

}  // namespace ostrel::load
