// A real daemon, below a temporary root, and ways to talk to it.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "ClientSession/OstrelDaemonSession.h"
#include "Containers/PlistValue.h"
#include "Support/TemporaryFolder.h"
#include "Tools/ChildProcess.h"

namespace ostrel::testing {

/// A loopback address of this test alone: tests run side by side, and TLS is spoken on port 311 only.
inline std::string ownLoopbackAddress(unsigned salt = 0) {
  const auto id = static_cast<unsigned>(getpid()) + salt * 7919U;
  return "127." + std::to_string(64 + ((id >> 14) & 63)) + "." + std::to_string((id >> 7) & 127) + "." +
         std::to_string(1 + (id & 127));
}

/// Whether this process may listen on port 311.
inline bool mayUseTlsPort() {
  const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(311);
  inet_pton(AF_INET, ownLoopbackAddress(1).c_str(), &address.sin_addr);
  const bool may = bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  close(descriptor);
  return may;
}

/// One TCP connection that says what it likes.
class RawConnection {
 public:
  RawConnection(const std::string& host, int port) : descriptor_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    inet_pton(AF_INET, host.c_str(), &address.sin_addr);
    connected_ = connect(descriptor_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  }
  ~RawConnection() { close(descriptor_); }
  RawConnection(const RawConnection&) = delete;
  RawConnection& operator=(const RawConnection&) = delete;

  bool isConnected() const { return connected_; }
  int descriptor() const { return descriptor_; }
  bool write(std::string_view bytes) const {
    while (!bytes.empty()) {
      const ssize_t sent = ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (sent <= 0) return false;
      bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
  }
  void endWriting() const { shutdown(descriptor_, SHUT_WR); }
  /// Everything up to the end of the stream. "(still open)" is appended when it does not end.
  std::string readAll(std::chrono::milliseconds limit = std::chrono::seconds(40)) const {
    std::string all;
    char buffer[16384];
    for (;;) {
      pollfd ready{descriptor_, POLLIN, 0};
      if (poll(&ready, 1, static_cast<int>(limit.count())) <= 0) return all + "(still open)";
      const ssize_t size = recv(descriptor_, buffer, sizeof buffer, 0);
      if (size <= 0) return all;
      all.append(buffer, static_cast<std::size_t>(size));
    }
  }

 private:
  int descriptor_;
  bool connected_ = false;
};

class DaemonProcess {
 public:
  enum class Transport { tls, plain };

  /// Puts the bundles in place below the root; nothing runs yet.
  explicit DaemonProcess(Transport transport) : transport_(transport) {
    const std::filesystem::path bundles = root() + "/usr/share/ostreld/bundles";
    std::filesystem::create_directories(bundles);
    for (const char* bundle : {OSTREL_SAMPLE_BUNDLE, OSTREL_TEST_BUNDLE}) {
      const auto target = bundles / std::filesystem::path(bundle).filename();
      std::filesystem::copy_file(bundle, target);
      std::filesystem::permissions(target, std::filesystem::perms(0755));
    }
  }
  ~DaemonProcess() { stopService(); }
  DaemonProcess(const DaemonProcess&) = delete;
  DaemonProcess& operator=(const DaemonProcess&) = delete;

  std::vector<std::string> commandLine(const std::vector<std::string>& options = {}) const {
    std::vector<std::string> command{program_, "--root", root()};
    if (transport_ == Transport::tls) {
      command.insert(command.end(), {"--bind", host()});
    } else {
      command.insert(command.end(), {"--plain", "--port", "0"});
    }
    command.insert(command.end(), options.begin(), options.end());
    return command;
  }

  /// Starts it from now on by way of this command, which the daemon's own follows.
  void startThrough(std::vector<std::string> command) { launcher_ = std::move(command); }
  void useProgram(std::string program) { program_ = std::move(program); }
  /// Where a daemon listens that was started again by itself.
  void lookWhereItListens() { std::istringstream(readFile(endpointFile())) >> endpointHost_ >> port_; }
  bool saysWhereItListens() const { return std::filesystem::exists(endpointFile()); }
  /// Starts the daemon; whether it says where it listens.
  bool start(std::vector<std::string> options = {}, const std::vector<std::string>& environment = {}) {
    std::filesystem::remove(endpointFile());
    options.insert(options.begin(), "--foreground");
    std::vector<std::string> command = commandLine(options);
    command.insert(command.begin(), launcher_.begin(), launcher_.end());
    child_ = std::make_unique<ChildProcess>(command, root() + "/output", logFile(), environment);
    const bool listens = eventually([this] { return std::filesystem::exists(endpointFile()) || child_->hasEnded(); }) &&
                         std::filesystem::exists(endpointFile());
    if (listens) lookWhereItListens();
    return listens;
  }
  /// A clean stop; the exit status.
  int stop() {
    child_->send(SIGTERM);
    return child_->wait();
  }
  ChildProcess& child() { return *child_; }

  const std::string& root() const { return folder_.path(); }
  std::string host() const { return transport_ == Transport::tls ? ownLoopbackAddress() : "127.0.0.1"; }
  int port() const { return port_; }
  std::string sessionIdentifier() const {
    std::string line;
    std::istringstream(readFile(root() + "/var/ostreld/local_session")) >> line;
    return line;
  }
  std::string log() const { return readFile(logFile()); }
  std::vector<std::string> auditLines() const {
    std::vector<std::string> lines;
    std::istringstream text(log());
    for (std::string line; std::getline(text, line);) {
      if (line.find("] audit user=") != std::string::npos) lines.push_back(line);
    }
    return lines;
  }

  /// A session that holds the local identifier.
  std::shared_ptr<OstrelDaemonSession> session(const std::string& module = "ostrel_sample") const {
    auto made = OstrelDaemonSession::initWithServiceSessionID(module, {}, {}, sessionIdentifier());
    made->setHost(host());
    made->setPort(std::to_string(port_));
    return made;
  }
  /// The reply to one command; a failure as {"failure": reason}.
  PlistValue send(PlistValue request, const std::string& module = "ostrel_sample") const {
    const auto client = session(module);
    const PlistValue reply = client->sendSyncRequest(request);
    if (client->failureReason()) return PlistValue::dictionaryOf({{"failure", *client->failureReason()}});
    return reply;
  }
  PlistValue echo(std::string_view text) const {
    return send(PlistValue::dictionaryOf({{"command", "echo"}, {"text", text}})).get("echo").get("text");
  }

  RawConnection connectRaw() const { return {host(), port_}; }
  /// Sends bytes as they are and reads to the end (plain transport).
  std::string exchange(std::string_view bytes) const {
    const RawConnection connection = connectRaw();
    connection.write(bytes);
    return connection.readAll();
  }

 private:
  std::string endpointFile() const { return root() + "/var/ostreld/endpoint"; }
  std::string logFile() const { return root() + "/log"; }
  /// The sample's service outlives the daemon: it must not outlive the test. It ends when its folder is gone.
  void stopService() { child_.reset(); }

  const Transport transport_;
  std::string program_ = OSTRELD_PROGRAM;
  TemporaryFolder folder_;
  std::vector<std::string> launcher_;
  std::unique_ptr<ChildProcess> child_;
  std::string endpointHost_;
  int port_ = 0;
};

}  // namespace ostrel::testing
