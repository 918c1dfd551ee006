// The load program: a real daemon under many clients, with writers beside it that are killed. See docs/performance.md.
//
// Exits with 1 when anything was lost, wrong or grew, with 2 for a wrong option.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Containers/Format.h"
#include "Load/Clients.h"
#include "Load/ForeignWriter.h"
#include "Load/Ledger.h"
#include "Load/NginxPeer.h"
#include "Load/Peers.h"
#include "Load/ProcessWatch.h"
#include "Platform/HostRoot.h"
#include "PluginFramework/ContextStore.h"
#include "Tools/DaemonProcess.h"
#include "ostrelctl/JsonForm.h"

namespace ostrel::load {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::DaemonProcess;

// A sanitizer's own memory grows with what it remembers.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool memoryIsOurs = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool memoryIsOurs = false;
#else
constexpr bool memoryIsOurs = true;
#endif
#else
constexpr bool memoryIsOurs = true;
#endif

constexpr std::size_t lanes = 4;  // requests under way of an asynchronous session
constexpr long mayGrowKilobytes = 4096;

struct Options {
  double seconds = 60;
  std::size_t clients = 64;
  bool json = false;
  bool plain = false;
  bool nginx = false;
  bool noBatches = false;
  bool noIdle = false;
};

std::vector<std::string> names(const char* stem, int count) {
  std::vector<std::string> all;
  for (int i = 1; i <= count; ++i) all.push_back(stem + std::to_string(i));
  return all;
}

std::vector<User> users(const char* stem, std::size_t count, unsigned seed, const std::vector<std::string>& modules,
                        const std::vector<std::string>& foreignModules, bool sendsBatches) {
  std::vector<User> all;
  for (std::size_t i = 0; i < count; ++i)
    all.emplace_back(stem + std::to_string(i), seed + static_cast<unsigned>(i), modules, foreignModules, sendsBatches);
  return all;
}

class Load {
 public:
  explicit Load(const Options& options)
      : options_(options), daemon_(options.plain ? DaemonProcess::Transport::plain : DaemonProcess::Transport::tls) {
    const std::filesystem::path bundles = daemon_.root() + "/usr/share/ostreld/bundles";
    for (const auto* group : {&modules_, &foreignModules_})
      for (const std::string& name : *group) std::filesystem::copy_file(LOAD_BUNDLE, bundles / (name + ".bundle"));
    setHostRoot(daemon_.root());
    // The daemon makes it at its start, but the writers come first, so that it never sees their contexts empty.
    const std::filesystem::path contexts = daemon_.root() + "/private/var/ostreld";
    std::filesystem::create_directories(contexts);
    std::filesystem::permissions(contexts, std::filesystem::perms(0700));
  }

  /// The figures; violations are in the ledger.
  PlistValue run();
  const Ledger& ledger() const { return ledger_; }

 private:
  milliseconds total() const { return milliseconds(static_cast<std::int64_t>(options_.seconds * 1000)); }
  void work(milliseconds length);
  /// `window` is the time that each was taken over; 0: at rest, where the numbers are exact.
  void compareUsage(const char* what, const Usage& before, const Usage& after, milliseconds window);
  void checkContexts();
  void checkForeignThroughTheDaemon();
  void showLog() const;
  PlistValue figures(milliseconds length);

  const Options options_;
  const std::vector<std::string> modules_ = names("load_", 6);
  const std::vector<std::string> foreignModules_ = names("load_foreign_", 2);
  DaemonProcess daemon_;
  Ledger ledger_;
  std::vector<User> synchronous_ =
      users("s", options_.clients * 5 / 8, 1, modules_, foreignModules_, !options_.noBatches);
  std::vector<User> asynchronous_ = users("a", (options_.clients - synchronous_.size()) * lanes, 1000, modules_,
                                          foreignModules_, !options_.noBatches);
  std::vector<std::unique_ptr<ForeignWriter>> writers_;
  PlistValue report_ = PlistValue::mutableDictionary();
};

void Load::work(milliseconds length) {
  load::work(
      synchronous_, asynchronous_, lanes, [this](const std::string& module) { return daemon_.session(module); },
      steady_clock::now() + length, ledger_);
}

PlistValue usageAsPlist(const Usage& usage) {
  return PlistValue::dictionaryOf(
      {{"descriptors", usage.descriptors}, {"threads", usage.threads}, {"residentKilobytes", usage.residentKilobytes}});
}

void Load::compareUsage(const char* what, const Usage& before, const Usage& after, milliseconds window) {
  report_.set(what, PlistValue::dictionaryOf({{"before", usageAsPlist(before)}, {"after", usageAsPlist(after)}}));
  const bool isExact = window == milliseconds(0);
  // Under load the numbers follow the connections of the moment: a short window says nothing about them.
  const long slack = isExact ? 0 : 8 + before.descriptors / 5;
  if (!isExact && window < std::chrono::seconds(5)) return;
  if (after.descriptors > before.descriptors + slack)
    ledger_.violation(format("%s: descriptors grew from %d to %d", what, before.descriptors, after.descriptors));
  if (after.threads > before.threads + slack)
    ledger_.violation(format("%s: threads grew from %d to %d", what, before.threads, after.threads));
  if (memoryIsOurs && after.residentKilobytes > before.residentKilobytes + mayGrowKilobytes)
    ledger_.violation(
        format("%s: memory grew from %d to %d KiB", what, before.residentKilobytes, after.residentKilobytes));
}

void Load::checkContexts() {
  for (const std::string& module : modules_) {
    int descriptor = -1;
    const PlistValue context = get_and_lock_context(module, &descriptor);
    if (!options_.noIdle && options_.seconds >= 3 && context.get("idle").int64Value() < 2)
      ledger_.violation(module + " saw no idle passes");
    for (const auto* group : {&synchronous_, &asynchronous_}) {
      for (const User& user : *group) {
        const auto expected = user.acknowledged().find(module);
        if (expected != user.acknowledged().end() && context.get(user.key()).int64Value() != expected->second)
          ledger_.violation(format("%s holds %@ for %s, acknowledged was %@", module, context.get(user.key()),
                                   user.key(), PlistValue(expected->second)));
      }
    }
    set_and_unlock_context(&descriptor, &context);
  }
}

void Load::checkForeignThroughTheDaemon() {
  for (const auto& writer : writers_) {
    const std::int64_t last = writer->writeLast();
    const PlistValue seen = daemon_.send(PlistValue::dictionaryOf({{"command", "foreign"}}), writer->module());
    if (seen.get("number").int64Value() != last || !seen.get("isWhole").boolValue())
      ledger_.violation(format("the daemon sees %@ of %s, written was %@", seen, writer->module(), PlistValue(last)));
  }
}

PlistValue Load::figures(milliseconds length) {
  PlistValue kinds = PlistValue::mutableDictionary();
  Durations answered;
  std::size_t count = 0;
  for (auto [kind, durations] : ledger_.measured()) {
    kinds.set(kind, PlistValue::dictionaryOf({{"requests", durations.count()},
                                              {"medianMicroseconds", durations.percentile(0.5).count()},
                                              {"p99Microseconds", durations.percentile(0.99).count()}}));
    count += durations.count();
    answered.add(durations);
  }
  report_.set("seconds", std::chrono::duration<double>(length).count());
  report_.set("clients", options_.clients);
  report_.set("transport", options_.plain ? "plain TCP" : "TLS");
  report_.set("requests", count);
  report_.set("perSecond", static_cast<double>(count) / std::chrono::duration<double>(length).count());
  report_.set("medianMicroseconds", answered.percentile(0.5).count());
  report_.set("p99Microseconds", answered.percentile(0.99).count());
  report_.set("kinds", kinds);
  return report_;
}

/// What the daemon said, its audit lines left out.
void Load::showLog() const {
  std::istringstream log(daemon_.log());
  for (std::string line; std::getline(log, line);)
    if (line.find("] audit user=") == std::string::npos) std::fprintf(stderr, "%s\n", line.c_str());
}

PlistValue Load::run() {
  for (const std::string& module : foreignModules_)
    writers_.push_back(std::make_unique<ForeignWriter>(daemon_.root(), module, ledger_));
  std::vector<std::string> options{"--max-connections", "1024", "--max-connections-per-peer", "1024"};
  if (!options_.noIdle) options.insert(options.end(), {"--idle-interval", "1"});
  if (!daemon_.start(options)) {
    ledger_.violation("the daemon does not start: " + daemon_.log());
    return report_;
  }
  const pid_t process = daemon_.child().pid();
  for (const auto& writer : writers_) writer->start();

  // A thread of a batch stays for five seconds after its command.
  const milliseconds quiet(options_.noBatches ? 1000 : 6000);
  const milliseconds warmUp = total() / 5;
  work(warmUp);
  const Usage before = usageAtRest(process, quiet);
  ledger_.forgetMeasured();
  const milliseconds length = total() - warmUp;
  const milliseconds window = std::min<milliseconds>(std::chrono::seconds(10), length / 4);
  {
    const ProcessWatch watch(process);
    work(length);
    compareUsage("underLoad", watch.first(window), watch.last(window), window);
  }
  compareUsage("atRest", before, usageAtRest(process, quiet), milliseconds(0));
  figures(length);

  int kills = 0;
  for (const auto& writer : writers_) {
    writer->stop();
    kills += writer->kills();
  }
  report_.set("killedWriters", kills);
  if (kills == 0) ledger_.violation("no writer was killed");
  checkForeignThroughTheDaemon();
  if (options_.nginx) report_.set("peers", compareWithNginx(daemon_, modules_[0], options_.clients, total()));
  if (const int status = daemon_.stop(); status != 0) ledger_.violation(format("the daemon ended with %d", status));
  if (daemon_.log().find("ThreadSanitizer") != std::string::npos) ledger_.violation(daemon_.log());
  checkContexts();
  if (ledger_.violationCount() > 0) showLog();
  for (const auto& writer : writers_) writer->check(writer->number(), writer->number());
  return report_;
}

double milli(const PlistValue& figures, const char* key) { return figures.get(key).doubleValue() / 1000; }

void printTable(const PlistValue& report) {
  std::printf("%.0f seconds, %d clients, %s, %d writers killed\n", report.get("seconds").doubleValue(),
              static_cast<int>(report.get("clients").int64Value()), report.get("transport").description().c_str(),
              static_cast<int>(report.get("killedWriters").int64Value()));
  std::printf("%-16s %10s %10s %11s %11s\n", "request", "count", "per second", "median ms", "99 % ms");
  const auto row = [&](const std::string& kind, const PlistValue& figures) {
    const double count = figures.get("requests").doubleValue();
    std::printf("%-16s %10.0f %10.1f %11.2f %11.2f\n", kind.c_str(), count, count / report.get("seconds").doubleValue(),
                milli(figures, "medianMicroseconds"), milli(figures, "p99Microseconds"));
  };
  const PlistValue kinds = report.get("kinds").allKeys();
  for (const PlistValue& kind : kinds.elements())
    row(std::string(kind.stringValue()), report.get("kinds").get(kind.stringValue()));
  row("all", report);
  for (const char* when : {"underLoad", "atRest"}) {
    for (const char* end : {"before", "after"}) {
      const PlistValue usage = report.get(when).get(end);
      std::printf("daemon %-9s %-6s: %d descriptors, %d threads, %d KiB\n", when, end,
                  static_cast<int>(usage.get("descriptors").int64Value()),
                  static_cast<int>(usage.get("threads").int64Value()),
                  static_cast<int>(usage.get("residentKilobytes").int64Value()));
    }
  }
  const PlistValue peers = report.get("peers");
  if (peers.isNull()) return;
  for (const char* peer : {"daemon", "nginx"})
    std::printf("%-16s %21.1f %11.2f %11.2f\n", peer, peers.get(peer).get("perSecond").doubleValue(),
                milli(peers.get(peer), "medianMicroseconds"), milli(peers.get(peer), "p99Microseconds"));
  std::printf("daemon / nginx, requests per second: %.2f\n", peers.get("ratio").doubleValue());
}

int runLoad(Options options) {
  if (!options.plain && !testing::mayUseTlsPort()) {
    std::fputs("load: this user may not listen on port 311: plain TCP instead\n", stderr);
    options.plain = true;
  }
  if (options.nginx && (options.plain || !NginxPeer::isInstalled())) {
    std::fputs("load: --nginx needs TLS and the package nginx-light\n", stderr);
    return 2;
  }
  Load load(options);
  const PlistValue report = load.run();
  if (options.json)
    std::fputs(jsonText(report).c_str(), stdout);
  else
    printTable(report);
  for (const std::string& violation : load.ledger().violations())
    std::fprintf(stderr, "VIOLATION %s\n", violation.c_str());
  const std::size_t count = load.ledger().violationCount();
  std::fprintf(stderr, "load: %zu violations\n", count);
  return count == 0 ? 0 : 1;
}

}  // namespace
}  // namespace ostrel::load

int main(int argc, char** argv) {
  ostrel::load::Options options;
  CLI::App app("Drives a daemon of its own below a temporary root with many clients, and checks that nothing is lost.",
               "load");
  app.add_option("--seconds", options.seconds, "How long, warm-up included")
      ->check(CLI::Range(2.0, 86'400.0))
      ->capture_default_str();
  app.add_option("--clients", options.clients, "Clients, five in eight of them synchronous")
      ->check(CLI::Range(2, 128))
      ->capture_default_str();
  app.add_flag("--json", options.json, "Print JSON instead of a table");
  app.add_flag("--no-batches", options.noBatches, "Send no batches");
  app.add_flag("--no-idle", options.noIdle, "No idle passes");
  app.add_flag("--plain", options.plain, "Plain TCP instead of TLS");
  app.add_flag("--nginx", options.nginx, "Measure nginx under the same clients, too");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 2;
  }
  try {
    return ostrel::load::runLoad(options);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "load: %s\n", error.what());
    return 1;
  }
}
