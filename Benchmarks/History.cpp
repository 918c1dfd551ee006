// Histories beside librrd: a sample taken and kept on the disk, and the samples of the last hour read.
#include <rrd.h>

#include <array>

#include "ContextHost.h"
#include "DaemonServices/HistoryData.h"
#include "Platform/Clock.h"

namespace {

using ostrel::PlistValue;
using namespace ostrel::benchmarks;

constexpr int interval = 60;  // seconds between samples
constexpr int day = 1'440;    // samples
constexpr std::size_t values = 5;

/// A clock that goes on by a minute when told to: a year of samples in seconds.
class MinuteClock final : public ostrel::Clock {
 public:
  ostrel::PlistDate now() override { return {static_cast<double>(time)}; }
  std::chrono::nanoseconds monotonic() override { return {}; }
  void sleepFor(std::chrono::nanoseconds) override {}
  time_t time = 1'700'000'040;
};

/// The same five values for both sides.
std::array<std::uint64_t, values> sampleAt(time_t time) {
  std::array<std::uint64_t, values> sample{};
  for (std::size_t i = 0; i < values; ++i) sample[i] = static_cast<std::uint64_t>(time) * (i + 3) % 100'003;
  return sample;
}

class RoundRobinFile {
 public:
  explicit RoundRobinFile(std::string path, time_t start) : path_(std::move(path)) {
    // The same rings: 1,440 samples of a minute, 2,016 of five.
    const char* arguments[] = {"DS:a:GAUGE:120:0:U", "DS:b:GAUGE:120:0:U",  "DS:c:GAUGE:120:0:U", "DS:d:GAUGE:120:0:U",
                               "DS:e:GAUGE:120:0:U", "RRA:LAST:0.5:1:1440", "RRA:LAST:0.5:5:2016"};
    check(rrd_create_r(path_.c_str(), interval, start - interval, std::size(arguments), arguments) == 0);
  }
  void update(time_t time) {
    std::string sample = std::to_string(time);
    for (const std::uint64_t value : sampleAt(time)) sample += ":" + std::to_string(value);
    const char* argument = sample.c_str();
    check(rrd_update_r(path_.c_str(), nullptr, 1, &argument) == 0);
  }
  /// How many values there are in a period.
  std::size_t fetch(time_t start, time_t end) {
    unsigned long step = interval;
    unsigned long sources = 0;
    char** names = nullptr;
    rrd_value_t* data = nullptr;
    check(rrd_fetch_r(path_.c_str(), "LAST", &start, &end, &step, &sources, &names, &data) == 0);
    for (unsigned long i = 0; i < sources; ++i) rrd_freemem(names[i]);
    rrd_freemem(names);
    rrd_freemem(data);
    return static_cast<std::size_t>(end - start) / step * sources;
  }

 private:
  std::string path_;
};

void appendSample(const PlistValue& context, time_t time) {
  PlistValue sample = PlistValue::mutableArray();
  for (const std::uint64_t value : sampleAt(time)) sample.append(value);
  check(ostrel::do_update_history_data(sample, context) == nullptr);
}

/// Both sides hold a day of samples when they are measured.
struct Sides {
  Sides() : peer(host.file("peer.rrd"), clock.time) {
    for (int i = 0; i < day; ++i, clock.time += interval) {
      peer.update(clock.time);
      roundTrip(manager, [&](const PlistValue& context) { appendSample(context, clock.time); });
    }
    peerTime = clock.time;
  }

  HostFolder host;
  MinuteClock clock;
  ostrel::ScopedOverride<ostrel::Clock> clockOverride{clock};
  ostrel::BundleManager manager;
  RoundRobinFile peer;
  time_t peerTime = 0;
};

void append(benchmark::State& state) {
  Sides sides;
  roundTrip(sides.manager, [&](const PlistValue& context) {
    for (auto _ : state) {
      appendSample(context, sides.clock.time);
      sides.clock.time += interval;
    }
  });
}

void persistedSample(benchmark::State& state) {
  Sides sides;
  compare(
      state, 200, [&] { sides.peer.update(sides.peerTime), sides.peerTime += interval; },
      [&] {
        roundTrip(sides.manager, [&](const PlistValue& context) { appendSample(context, sides.clock.time); });
        sides.clock.time += interval;
      });
}

void lastHour(benchmark::State& state) {
  Sides sides;
  sides.clock.time -= interval;  // now is the time of the newest sample
  const time_t now = sides.clock.time;
  roundTrip(sides.manager, [&](const PlistValue& context) {
    PlistValue samples;
    const auto ours = [&] { check(do_get_history_data(nullptr, 3'600, samples, context) == nullptr); };
    ours();
    check(samples.count() * values >= sides.peer.fetch(now - 3'600, now));
    compare(
        state, 100, [&] { sides.peer.fetch(now - 3'600, now); }, ours);
  });
}

}  // namespace

BENCHMARK(append);
BENCHMARK(persistedSample)->MinTime(2.0);
BENCHMARK(lastHour)->MinTime(1.0);

BENCHMARK_MAIN();
