#include "ostreld/Options.h"

#include <netinet/in.h>

#include <CLI/CLI.hpp>
#include <filesystem>

#include "Shared/NumberRange.h"

namespace ostrel {
namespace {

constexpr const char* description =
    "ostreld, the server-administration daemon: takes commands over HTTPS and hands them to its modules.\n"
    "Modules are loaded from /usr/share/ostreld/bundles below the root. Callers sign in with a name and\n"
    "password that the directory knows; the daemon leaves a session identifier for its own user in\n"
    "/var/ostreld/local_session, which ostrelctl picks up.\n";
constexpr const char* signals =
    "\nSIGTERM and SIGINT stop the daemon once running requests have finished; a second one stops it at once.\n"
    "SIGHUP is ignored: restart the daemon to change its options. See docs/operations.md.\n";

std::chrono::milliseconds milliseconds(double seconds) {
  return std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
}

bool isLoopback(const SocketAddress& address) {
  if (address.isIPv4()) return address.numericHost().starts_with("127.");
  return address.numericHost() == "::1";
}

std::optional<SocketAddress> addressFrom(const std::string& text, std::uint16_t port) {
  const auto ipv4 = SocketAddress::ipv4(text, port);
  return ipv4 ? ipv4 : SocketAddress::ipv6(text, port);
}

}  // namespace

std::optional<DaemonOptions> readOptions(int argc, const char* const* argv, int& exitStatus) {
  DaemonOptions options;
  std::string bind = "127.0.0.1";
  std::uint16_t port = 311;
  double requestSeconds = 30;
  double replySeconds = 60;
  double stopSeconds = 60;
  double idleSeconds = 60;
  double sessionIdleSeconds = 30 * 60;
  double sessionLifeSeconds = 12 * 60 * 60;
  double failureSeconds = 0.5;

  CLI::App app(description, "ostreld");
  app.footer(signals);
  app.get_formatter()->column_width(36);
  app.option_defaults()->always_capture_default();
  // An empty one is a variable that was not set: it must not mean the machine's own root.
  app.add_option("--root", options.root, "Folder below which every file of the daemon lies")
      ->type_name("DIR")
      ->check([](const std::string& folder) { return std::string(folder.empty() ? "names no folder" : ""); });
  app.add_option("--bind", bind, "Numeric address to listen on")->type_name("ADDRESS");
  app.add_option("--port", port, "Port to listen on; 0: the kernel picks one, see /var/ostreld/endpoint");
  app.add_flag("--plain", options.plain,
               "Speak plain TCP instead of TLS; loopback addresses only. The client library uses TLS on port 311 and "
               "plain TCP on all others");
  auto* certificate = app.add_option("--certificate", options.certificateFile,
                                     "PEM file with the certificate and its chain; by default a self-signed one is "
                                     "made on the first start")
                          ->type_name("FILE");
  auto* key =
      app.add_option("--key", options.keyFile, "PEM file with its private key, of mode 0600")->type_name("FILE");
  certificate->needs(key);
  key->needs(certificate);
  app.add_flag("--foreground", options.foreground, "Stay attached, and write the log to standard error as well");

  app.add_option("--idle-interval", idleSeconds, "Seconds between the idle passes over all modules; 0: none")
      ->check(numberRange(0, 86'400));
  app.add_flag_callback(
      "--no-network-changes", [&options] { options.watchNetwork = false; },
      "Do not watch for changes of links, addresses and default routes: modules hear of none");
  app.add_flag("--crash-on-hang", options.crashOnHang,
               "When a module hangs, end by a crash, for its core file, instead of with status 1");

  const auto limits = [](CLI::Option* option) { return option->group("Limits, which stand before authentication"); };
  limits(app.add_option("--max-connections", options.connections.total, "Open connections in all"))
      ->check(CLI::Range(1, 100'000));
  limits(app.add_option("--max-connections-per-peer", options.connections.perPeer,
                        "Open connections of one address (IPv6: of one /64 network)"))
      ->check(CLI::Range(1, 100'000));
  limits(app.add_option("--max-head", options.maximumHead, "Bytes of request line and headers"))
      ->check(CLI::Range(512, 1024 * 1024));
  limits(app.add_option("--max-body", options.maximumBody, "Bytes of a request's body"))
      ->check(CLI::Range(0, 1024 * 1024 * 1024));
  limits(app.add_option("--request-time", requestSeconds, "Seconds to connect and send a whole request"))
      ->check(numberRange(0.1, 86'400));
  limits(app.add_option("--reply-time", replySeconds, "Seconds to take a whole reply"))
      ->check(numberRange(0.1, 86'400));
  const auto sessions = [](CLI::Option* option) { return option->group("Signing in with a name and a password"); };
  sessions(app.add_option("--session-idle", sessionIdleSeconds, "Seconds without a request that end a session"))
      ->check(numberRange(0.1, 31'536'000));
  sessions(app.add_option("--session-life", sessionLifeSeconds, "Seconds that a session lasts at most"))
      ->check(numberRange(0.1, 31'536'000));
  sessions(app.add_option("--max-sessions", options.sessions.total,
                          "Sessions in all; a further one ends the least recently used"))
      ->check(CLI::Range(1, 100'000));
  sessions(app.add_option("--max-sessions-per-user", options.sessions.perUser, "Sessions of one user, likewise"))
      ->check(CLI::Range(1, 100'000));
  sessions(app.add_option("--max-failed-sign-ins", options.signIns.failuresPerPeer,
                          "Failures of one address (IPv6: of one /64 network) before it has to wait; one is forgotten "
                          "every 30 seconds"))
      ->check(CLI::Range(1, 100'000));
  sessions(app.add_option("--failed-sign-in-time", failureSeconds,
                          "Seconds after which a failure is answered; doubled, up to 16 times as long, when there are "
                          "many"))
      ->check(numberRange(0, 10));
  app.add_option("--max-batch", options.batches.perBatch, "Commands in one batch")->check(CLI::Range(1, 10'000));
  app.add_option("--max-batch-commands", options.batches.atOnce, "Commands of all batches that run at once")
      ->check(CLI::Range(1, 10'000));
  app.add_option("--stop-time", stopSeconds, "Seconds that running requests have to finish when the daemon stops")
      ->check(numberRange(0, 86'400));

  try {
    app.parse(argc, argv);
    const auto address = addressFrom(bind, port);
    if (!address) throw CLI::ValidationError("--bind", "'" + bind + "' is no numeric IPv4 or IPv6 address");
    if (options.plain && !isLoopback(*address)) {
      throw CLI::ValidationError("--plain", "is for loopback addresses; " + bind + " can be reached from elsewhere");
    }
    if (!options.root.empty()) options.root = std::filesystem::absolute(options.root).lexically_normal().string();
    options.address = *address;
  } catch (const CLI::ParseError& error) {
    exitStatus = app.exit(error) == 0 ? 0 : 2;
    return std::nullopt;
  }
  options.connections.requestTime = milliseconds(requestSeconds);
  options.connections.replyTime = milliseconds(replySeconds);
  options.stopTime = milliseconds(stopSeconds);
  options.idleInterval = milliseconds(idleSeconds);
  options.sessions.idle = milliseconds(sessionIdleSeconds);
  options.sessions.life = milliseconds(sessionLifeSeconds);
  options.signIns.failureTime = milliseconds(failureSeconds);
  options.signIns.longestFailure = 16 * options.signIns.failureTime;
  return options;
}

}  // namespace ostrel
