// What the tests of the client session share: replies, redirected names, failure texts.
#pragma once

#include <gtest/gtest.h>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ClientSession/OstrelDaemonSession.h"
#include "ClientSession/ScriptedServer.h"
#include "ClientSession/TestCertificate.h"
#include "Platform/NameResolver.h"
#include "Platform/NetworkConfiguration.h"

namespace ostrel::testing {

/// Answers every name with the given addresses and keeps what was asked.
class FakeResolver final : public NameResolver {
 public:
  explicit FakeResolver(std::vector<SocketAddress> addresses) : addresses_(std::move(addresses)) {}

  Resolution resolve(const std::string& host, const std::string& service, AddressFamily family) override {
    const MutexLock lock(mutex_);
    asked_ = host + ":" + service + (family == AddressFamily::any ? "" : " of one family");
    Resolution found;
    found.addresses = addresses_;
    found.error = addresses_.empty() ? -2 : 0;
    return found;
  }
  std::optional<HostAndService> nameOf(const SocketAddress& address, NameForm form) override {
    if (form == NameForm::numeric || name.empty()) return HostAndService{address.numericHost(), "0"};
    return HostAndService{name, "0"};
  }
  std::string asked() {
    const MutexLock lock(mutex_);
    return asked_;
  }

  std::string name;  ///< what the reverse lookup finds; "": nothing

 private:
  Mutex mutex_;
  const std::vector<SocketAddress> addresses_;
  std::string asked_ OSTREL_GUARDED_BY(mutex_);
};

/// A network configuration with just a local host name, or one that cannot be opened.
class FakeNetworkConfiguration final : public NetworkConfiguration {
 public:
  explicit FakeNetworkConfiguration(std::optional<std::string> localName, bool opens = true)
      : localName_(std::move(localName)), opens_(opens) {}
  std::unique_ptr<NetworkConfigurationStore> open(std::string_view clientName) override {
    EXPECT_EQ(clientName, "Vellumdock");
    return opens_ ? std::make_unique<Store>(localName_) : nullptr;
  }

 private:
  class Store final : public NetworkConfigurationStore {
   public:
    explicit Store(std::optional<std::string> name) : name_(std::move(name)) {}
    std::optional<std::string> localHostName() override { return name_; }
    std::optional<std::string> primaryInterface(AddressFamily) override { return std::nullopt; }
    std::vector<std::string> serviceDevices() override { return {}; }
    std::optional<std::string> displayName(const std::string&) override { return std::nullopt; }
    std::optional<std::string> interfaceType(const std::string&) override { return std::nullopt; }
    std::vector<IPv4ServiceState> ipv4Services() override { return {}; }
    std::vector<IPv4InterfaceState> ipv4Interfaces() override { return {}; }

   private:
    const std::optional<std::string> name_;
  };

  const std::optional<std::string> localName_;
  const bool opens_;
};

enum class Transport { plain, tls };

inline ScriptedServer::Options serverOptions(Transport transport) {
  ScriptedServer::Options options;
  if (transport == Transport::tls) options.certificate = &TestCertificates::shared().trusted;
  return options;
}

/// A scripted server and a session that talks to it. For TLS the session is set to port 311 and a resolver sends it to
/// the server's own port.
class Daemon {
 public:
  Daemon(Transport transport, ScriptedServer::Script script) : Daemon(serverOptions(transport), std::move(script)) {}
  Daemon(ScriptedServer::Options options, ScriptedServer::Script script)
      : server(options, std::move(script)),
        port(options.certificate != nullptr ? "311" : std::to_string(server.port())),
        resolver({*SocketAddress::ipv4("127.0.0.1", server.port())}),
        redirect_(resolver),
        session(newSession()) {}

  std::shared_ptr<OstrelDaemonSession> newSession() const {
    auto made = OstrelDaemonSession::init();
    made->setHost("127.0.0.1");
    made->setPort(port);
    return made;
  }
  std::string url() const { return "https://127.0.0.1:" + port + "/commands/ostrel_sample"; }

  ScriptedServer server;
  const std::string port;
  FakeResolver resolver;

 private:
  ScopedOverride<NameResolver> redirect_;

 public:
  std::shared_ptr<OstrelDaemonSession> session;
};

/// Holds a daemon's replies back until it is told to go on.
class Gate {
 public:
  void open() {
    const std::lock_guard lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  void pass() {
    std::unique_lock lock(mutex_);
    arrived_ = true;
    changed_.notify_all();
    changed_.wait(lock, [this] { return open_; });
  }
  void waitForArrival() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return arrived_; });
  }
  bool hasArrived() {
    const std::lock_guard lock(mutex_);
    return arrived_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool arrived_ = false;
  bool open_ = false;
};

/// A reply with the given body.
inline std::string replyOf(const std::string& body, const std::string& headers = "",
                           const std::string& status = "200 OK") {
  return "HTTP/1.0 " + status + "\r\n" + headers + "\r\n" + body;
}

inline const std::string stateReply =
    replyOf("<plist version=\"1.0\"><dict><key>state</key><string>RUNNING</string></dict></plist>");
inline PlistValue runningState() { return PlistValue::dictionaryOf({{"state", "RUNNING"}}); }

}  // namespace ostrel::testing
