#include "ostreld/Daemon.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "Containers/Format.h"
#include "Platform/Files.h"
#include "Platform/HostRoot.h"
#include "Platform/SystemLog.h"
#include "PluginFramework/BundleManager.h"
#include "Shared/DaemonFiles.h"
#include "ostreld/Background.h"
#include "ostreld/Certificate.h"
#include "ostreld/CommandServer.h"
#include "ostreld/ConsoleLog.h"
#include "ostreld/DaemonCommands.h"
#include "ostreld/IdlePasses.h"
#include "ostreld/NetworkChanges.h"
#include "ostreld/RunningFiles.h"
#include "ostreld/ServiceNotice.h"
#include "ostreld/ServiceWatchdog.h"

namespace ostrel {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// How often the limits on time are looked after, and how long clients that are sending get when the daemon stops.
constexpr milliseconds tick{100};
constexpr milliseconds stopGrace{1000};

constexpr rlim_t descriptorsOfOurOwn = 32;

// A wait for a context or a batch ends the process at its limit. One that is this far beyond it shows that even that
// failed, and the service manager's watchdog has to step in.
constexpr std::chrono::seconds overrunThatIsNotWell{30};

int failToStart(const std::string& fault) {
  std::fprintf(stderr, "ostreld: %s\n", fault.c_str());
  logAt(LogLevel::error, "[%d] ostreld cannot start: %s", processId(), fault);
  return 1;
}

/// The signals that the main thread waits for. Blocked before the first thread is made, they stay so in all of them.
class StopSignals {
 public:
  StopSignals() {
    sigemptyset(&set_);
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&set_, number);
    pthread_sigmask(SIG_BLOCK, &set_, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);  // a limit of file sizes then fails the write, which is told
  }

  /// True when the daemon was told to stop within this time.
  bool arrivedWithin(milliseconds time) const {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
    const timespec limit{seconds.count(), std::chrono::nanoseconds(time - seconds).count()};
    const int number = sigtimedwait(&set_, nullptr, &limit);
    if (number == SIGHUP) logNotice("[%d] ostreld ignores SIGHUP: restart it to change its options", processId());
    return number == SIGTERM || number == SIGINT;
  }

 private:
  sigset_t set_;
};

/// Raises the limit on open files as far as allowed. Each connection takes a descriptor and the command that it runs at
/// least one more: without them connections could be neither served nor refused, so there are fewer if need be.
void fitIntoDescriptorLimit(ConnectionLimits& connections, BatchLimits& batches) {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  const rlim_t room = limit.rlim_max - std::min(limit.rlim_max, descriptorsOfOurOwn);
  const auto possible = static_cast<std::size_t>(std::max<rlim_t>(room / 2, 1));
  batches.atOnce = std::min(batches.atOnce, possible);
  if (connections.total <= possible) return;
  logAt(LogLevel::warning, "[%d] %d connections at once instead of %d: the limit on open files is %d", processId(),
        possible, connections.total, limit.rlim_max);
  connections.total = possible;
}

std::string hostName() {
  char name[256] = "";
  return gethostname(name, sizeof name - 1) == 0 ? name : "localhost";
}

std::optional<CertificateAndKey> certificateFor(const DaemonOptions& options, std::string& fault) {
  if (!options.certificateFile.empty()) {
    return readCertificateFiles(options.certificateFile, options.keyFile, fault);
  }
  const CertificateNames names{{hostName(), "localhost"}, {"127.0.0.1", "::1", options.address.numericHost()}};
  auto made = readOrMakeCertificate(daemonFiles::certificateWithKey(), names, fault);
  if (made && !writeFileAtomically(daemonFiles::certificate(), made->certificate, {.keepExisting = false})) {
    fault = format("cannot write %s: %s", daemonFiles::certificate(), std::strerror(errno));
    return std::nullopt;
  }
  return made;
}

void announce(const DaemonOptions& options, const CommandServer& server, const std::optional<CertificateAndKey>& tls,
              const BundleManager& modules) {
  std::string names;
  for (const std::string& name : modules.moduleNames()) {
    if (!names.empty()) names += ", ";
    names += name;
  }
  logNotice("[%d] modules loaded: %s", processId(), names.empty() ? "none" : names);
  for (const auto& failure : modules.loadFailures()) {
    logAt(LogLevel::warning, "[%d] not loaded: %s: %s", processId(), failure.path, failure.reason);
  }
  if (tls) logNotice("[%d] certificate SHA-256 %s", processId(), certificateFingerprint(tls->certificate));
  logNotice("[%d] listening on %s with %s, root %s", processId(), addressAndPort(server.address()),
            tls ? "TLS" : "plain TCP", options.root.empty() ? "/" : options.root);
  // The client library decides by the port alone whether it speaks TLS.
  if (tls && server.address().port() != 311) {
    logAt(LogLevel::warning, "[%d] ostrelctl uses TLS on port 311 only: it cannot talk to this port without --plain",
          processId());
  }
}

/// What has to be done all the time, while serving and while stopping.
class Housekeeping {
 public:
  Housekeeping(CommandServer& server, const BundleManager& modules) : server_(server), modules_(modules) {}
  void tick() {
    server_.connections().cutOverdue();
    watchdog_.tick(modules_.longestOverrun() < overrunThatIsNotWell);
  }

 private:
  CommandServer& server_;
  const BundleManager& modules_;
  ServiceWatchdog watchdog_;
};

void serve(Housekeeping& housekeeping, const StopSignals& signals) {
  while (!signals.arrivedWithin(tick)) housekeeping.tick();
}

enum class Drained { all, notInTime, toldNotToWait };

/// Waits until no connection is left, the time is up or a second signal comes.
Drained drain(CommandServer& server, Housekeeping& housekeeping, const StopSignals& signals, milliseconds limit) {
  const auto end = steady_clock::now() + limit;
  while (server.connections().count() > 0) {
    if (steady_clock::now() >= end) return Drained::notInTime;
    if (signals.arrivedWithin(milliseconds(10))) return Drained::toldNotToWait;
    housekeeping.tick();
  }
  return Drained::all;
}

/// Running requests finish and their replies go out. True when all did.
bool stop(CommandServer& server, Housekeeping& housekeeping, const StopSignals& signals, milliseconds limit) {
  notifyServiceManager("STOPPING=1");
  logNotice("[%d] stopping: %d open connections", processId(), server.connections().count());
  server.stopListening();
  const Drained politely = drain(server, housekeeping, signals, std::min(stopGrace, limit));
  if (politely != Drained::notInTime) return politely == Drained::all;
  server.connections().cutReceiving();
  return drain(server, housekeeping, signals, limit) == Drained::all;
}

}  // namespace

int runDaemon(const DaemonOptions& options) {
  openMissingStandardStreams();
  if (!options.root.empty()) setHostRoot(options.root);
  umask(022);
  std::optional<Background> background;
  if (!options.foreground) background = Background::enter();
  openlog("ostreld", 0, LOG_USER);
  const StopSignals signals;
  ConsoleLog console(SystemLog::current());
  std::optional<ScopedOverride<SystemLog>> shown;
  if (options.foreground) shown.emplace(console);

  std::string fault;
  auto files = RunningFiles::claim(fault);
  if (!files) return failToStart(fault);
  const auto session = makeSessionIdentifier();
  if (!session) return failToStart(format("cannot read the random device: %s", std::strerror(errno)));
  std::optional<CertificateAndKey> tls;
  if (!options.plain) {
    tls = certificateFor(options, fault);
    if (!tls) return failToStart(fault);
  }

  BundleManager& modules = BundleManager::defaultManager();
  modules.setCrashOnHangTimeout(options.crashOnHang);
  ConnectionLimits connections = options.connections;
  BatchLimits batches = options.batches;
  fitIntoDescriptorLimit(connections, batches);
  IdlePasses idle(modules, options.idleInterval);
  NetworkChanges network(options.watchNetwork);
  DaemonCommands commands(modules, idle, network, batches);
  Authenticator authenticator(*session, options.sessions, options.signIns);
  Authorization authorization(hostPath("/etc/ostreld/authorization.plist"));
  ExchangeRules rules{authenticator, authorization,
                      [&commands](const PlistValue& request, const std::string& module, const CommandOrigin& origin) {
                        return commands.run(request, module, origin);
                      },
                      options.maximumHead, options.maximumBody};
  auto server = CommandServer::start({options.address, tls, connections}, std::move(rules), fault);
  if (!server) return failToStart(fault);
  commands.watchConnections(server->connections());
  if (!files->publish(*session, server->address(), fault)) return failToStart(fault);
  announce(options, *server, tls, modules);
  notifyServiceManager("READY=1");
  if (background) background->ready();

  Housekeeping housekeeping(*server, modules);
  serve(housekeeping, signals);

  const auto stopBegan = steady_clock::now();
  idle.stop(milliseconds::zero());  // no pass begins any more
  network.stop(milliseconds::zero());
  authenticator.stop();
  const auto timeLeft = [&] {
    const auto left = options.stopTime - std::chrono::duration_cast<milliseconds>(steady_clock::now() - stopBegan);
    return std::max(left, milliseconds::zero());
  };
  if (!stop(*server, housekeeping, signals, options.stopTime) || !idle.stop(timeLeft()) || !network.stop(timeLeft())) {
    logAt(LogLevel::error, "[%d] stopped with %d requests unfinished", processId(), server->connections().count());
    files.reset();
    std::fflush(nullptr);
    _exit(1);  // threads that hang in a module cannot be waited for
  }
  server.reset();
  modules.finishBackgroundWork(stopGrace);
  logNotice("[%d] stopped", processId());
  return 0;
}

}  // namespace ostrel
