#include "ClientSession/OstrelDaemonSessTask.h"

#include <utility>

namespace ostrel {

OstrelDaemonSessTask::OstrelDaemonSessTask(PlistValue requestValue, std::optional<std::string> prefix,
                                           std::uint32_t payload, std::optional<std::string> protocolText,
                                           std::optional<std::string> portText, std::optional<std::string> module,
                                           std::optional<std::string> hostText, std::optional<std::string> user,
                                           std::optional<std::string> secret, std::optional<std::string> identifier,
                                           bool lower, std::shared_ptr<OstrelDaemonSessTarget> target,
                                           std::optional<std::string> selector, std::optional<std::uint32_t> number)
    : request(std::move(requestValue)),
      URLPrefix(std::move(prefix)),
      payloadType(payload),
      protocol(std::move(protocolText)),
      port(std::move(portText)),
      service(std::move(module)),
      host(std::move(hostText)),
      userName(std::move(user)),
      password(std::move(secret)),
      sessionID(std::move(identifier)),
      lowerPriority(lower),
      notifyTarget(std::move(target)),
      notifySelector(std::move(selector)),
      transactionNb(number) {}

OstrelDaemonSessTask::~OstrelDaemonSessTask() {
  setComPortsArray({});
  setComConnection(nullptr);
}

void OstrelDaemonSessTask::setComPortsArray(std::vector<Communication> ports) {
  comPortsArray_.swap(ports);
  for (const Communication& previous : ports) previous->invalidate();
}

void OstrelDaemonSessTask::setComConnection(Communication connection) {
  comConnection_.swap(connection);
  if (connection != nullptr) connection->invalidate();
}

}  // namespace ostrel
