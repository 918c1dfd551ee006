// One request of a session, with the settings that the session had when it was issued.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ClientSession/OstrelDaemonSessTarget.h"
#include "Containers/Export.h"
#include "Containers/PlistValue.h"

namespace ostrel {

/// What a request's reply is turned into; every other number means the raw bytes too.
enum OstrelDaemonSessPayload : std::uint32_t { dictionaryPayload = 0, rawPayload = 1 };

/// A port or a connection of ports, by which results would travel on a platform that cannot run an operation on its
/// main thread. None is ever made here.
class OSTREL_EXPORT OstrelDaemonSessCommunication {
 public:
  virtual ~OstrelDaemonSessCommunication() = default;
  virtual void invalidate() = 0;
};

/// A request as it is handed to the transaction procedure. Later changes of the session do not reach it.
///
/// Threads: a task is made on the issuing thread; once it runs on one of its own, everyone only reads it.
class OSTREL_EXPORT OstrelDaemonSessTask {
 public:
  /// initWithRequest:URLPrefix:payloadType:protocol:port:service:host:userName:password:sessionID:lowerPriority:
  /// notifyTarget:notifySelector:transactionNb:
  OstrelDaemonSessTask(PlistValue request, std::optional<std::string> URLPrefix, std::uint32_t payloadType,
                       std::optional<std::string> protocol, std::optional<std::string> port,
                       std::optional<std::string> service, std::optional<std::string> host,
                       std::optional<std::string> userName, std::optional<std::string> password,
                       std::optional<std::string> sessionID, bool lowerPriority,
                       std::shared_ptr<OstrelDaemonSessTarget> notifyTarget, std::optional<std::string> notifySelector,
                       std::optional<std::uint32_t> transactionNb);
  ~OstrelDaemonSessTask();
  OstrelDaemonSessTask(const OstrelDaemonSessTask&) = delete;
  OstrelDaemonSessTask& operator=(const OstrelDaemonSessTask&) = delete;

  PlistValue request;                    ///< dictionary, data or null
  std::optional<std::string> URLPrefix;  ///< replaces the whole URL when present
  std::uint32_t payloadType;             ///< see `OstrelDaemonSessPayload`
  std::optional<std::string> protocol;
  std::optional<std::string> port;
  std::optional<std::string> service;
  std::optional<std::string> host;
  std::optional<std::string> userName;
  std::optional<std::string> password;
  std::optional<std::string> sessionID;
  bool lowerPriority;  ///< stored and never consulted
  std::shared_ptr<OstrelDaemonSessTarget> notifyTarget;
  std::optional<std::string> notifySelector;   ///< the operation that gets this request's result
  std::optional<std::uint32_t> transactionNb;  ///< absent marks a synchronous task

  using Communication = std::shared_ptr<OstrelDaemonSessCommunication>;
  const std::vector<Communication>& comPortsArray() const { return comPortsArray_; }
  const Communication& comConnection() const { return comConnection_; }
  /// Invalidates every port of the previous list. Requires: none is null.
  void setComPortsArray(std::vector<Communication> ports);
  /// Invalidates the previous connection.
  void setComConnection(Communication connection);

 private:
  std::vector<Communication> comPortsArray_;
  Communication comConnection_;
};

}  // namespace ostrel
