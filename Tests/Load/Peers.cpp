#include "Load/Peers.h"

#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Load/Ledger.h"
#include "Load/NginxPeer.h"

namespace ostrel::load {
namespace {

using std::chrono::steady_clock;
using Url = std::optional<std::string>;

constexpr int turns = 4;

PlistValue request() { return PlistValue::dictionaryOf({{"command", "read"}, {"key", "peer"}}); }

/// One turn; the client is the same for both, down to the resumed TLS sessions.
Durations turn(const testing::DaemonProcess& daemon, const std::string& module, const Url& url, std::size_t clients,
               std::chrono::milliseconds length, const std::string& expected) {
  Ledger ledger;
  const auto end = steady_clock::now() + length;
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < clients; ++i) {
    threads.emplace_back([&] {
      Ledger::ByKind measured;
      const auto session = daemon.session(module);
      while (steady_clock::now() < end) {
        const auto begun = steady_clock::now();
        const PlistValue reply = session->sendSyncRequest(request(), url, rawPayload);
        measured["all"].add(steady_clock::now() - begun);
        if (reply.dataBytes() != expected) ledger.violation(session->failureReason().value_or("another reply"));
      }
      ledger.add(measured);
    });
  }
  for (std::thread& thread : threads) thread.join();
  if (ledger.violationCount() > 0) throw std::runtime_error(ledger.violations().front());
  return ledger.measured()["all"];
}

PlistValue figures(Durations& durations, double seconds) {
  return PlistValue::dictionaryOf({{"perSecond", static_cast<double>(durations.count()) / seconds},
                                   {"medianMicroseconds", durations.percentile(0.5).count()},
                                   {"p99Microseconds", durations.percentile(0.99).count()}});
}

}  // namespace

PlistValue compareWithNginx(const testing::DaemonProcess& daemon, const std::string& module, std::size_t clients,
                            std::chrono::milliseconds duration) {
  const std::string body(daemon.session(module)->sendSyncRequest(request(), {}, rawPayload).dataBytes());
  const NginxPeer peer(testing::ownLoopbackAddress(2), daemon.root() + "/var/ostreld/ostreld.pem", body);
  Durations ours;
  Durations theirs;
  const auto length = duration / (2 * turns);
  for (int i = 0; i < turns; ++i) {
    ours.add(turn(daemon, module, {}, clients, length, body));
    theirs.add(turn(daemon, module, peer.url(), clients, length, body));
  }
  const double seconds = std::chrono::duration<double>(length * turns).count();
  const PlistValue daemonFigures = figures(ours, seconds);
  const PlistValue nginxFigures = figures(theirs, seconds);
  return PlistValue::dictionaryOf(
      {{"bodyBytes", body.size()},
       {"daemon", daemonFigures},
       {"nginx", nginxFigures},
       {"ratio", daemonFigures.get("perSecond").doubleValue() / nginxFigures.get("perSecond").doubleValue()}});
}

}  // namespace ostrel::load
