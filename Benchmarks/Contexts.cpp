// The context store beside bare system calls: a round trip with a valid cache, and writing a changed context.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "Containers/PropertyList.h"
#include "ContextHost.h"

namespace {

using ostrel::BundleManager;
using ostrel::PlistValue;
using namespace ostrel::benchmarks;

/// A context of about so many bytes: a number that changes, and a history.
PlistValue sampleContext(std::size_t size) {
  PlistValue context = PlistValue::mutableDictionaryOf({{"count", 0}, {"contextDirty", true}});
  context.set("history", PlistValue(ostrel::PlistData{std::string(size, '\x5A')}));
  return context;
}

int openLocked(const std::string& path) {
  const int descriptor = open(path.c_str(), O_RDWR | O_CLOEXEC | O_CREAT, 0770);
  check(descriptor >= 0 && flock(descriptor, LOCK_EX | LOCK_NB) == 0);
  return descriptor;
}

void cachedRoundTrip(benchmark::State& state, bool unlocks) {
  const HostFolder host;
  BundleManager manager;
  roundTrip(manager, [](PlistValue& context) { context.set("contextDirty", true); });
  const std::string path = host.file("bench.lock");
  const auto bare = [&] {
    const int descriptor = open(path.c_str(), O_RDWR | O_CLOEXEC);
    struct stat status {};
    check(flock(descriptor, LOCK_EX | LOCK_NB) == 0 && fstat(descriptor, &status) == 0);
    if (unlocks) check(flock(descriptor, LOCK_UN) == 0);
    close(descriptor);
  };
  compare(state, 100, bare, [&] { roundTrip(manager, [](PlistValue&) {}); });
}

/// How a peer puts the bytes into the file.
enum class Order { truncateFirst, truncateFirstAfterJournal, overwriteBare };

void put(int descriptor, const std::string& bytes, Order order, const std::string& journalPath) {
  const auto size = static_cast<ssize_t>(bytes.size());
  if (order == Order::truncateFirstAfterJournal) {
    const int journal = open(journalPath.c_str(), O_RDWR | O_CLOEXEC | O_CREAT, 0770);
    check(fdatasync(descriptor) == 0 && pwrite(journal, (bytes + bytes).data(), bytes.size() * 2, 0) == size * 2 &&
          fdatasync(journal) == 0);
    close(journal);
  }
  if (order != Order::overwriteBare) check(ftruncate(descriptor, 0) == 0);
  check(pwrite(descriptor, bytes.data(), bytes.size(), 0) == size);
  if (order == Order::overwriteBare) check(ftruncate(descriptor, size) == 0);
}

void changedContext(benchmark::State& state, Order order) {
  const HostFolder host;
  BundleManager manager;
  const PlistValue sample = sampleContext(static_cast<std::size_t>(state.range(0)));
  roundTrip(manager, [&](PlistValue& context) {
    for (const auto& [key, value] : sample.entries()) context.set(key.stringValue(), value);
  });
  PlistValue peerContext = sample;
  std::int64_t count = 0;
  const std::string path = host.file("peer.lock");
  const auto peer = [&] {
    const int descriptor = openLocked(path);
    peerContext.set("count", ++count);
    put(descriptor, *ostrel::writeBinaryPropertyList(peerContext), order, path + ".journal");
    flock(descriptor, LOCK_UN);
    close(descriptor);
  };
  const auto ours = [&] {
    roundTrip(manager, [&](PlistValue& context) {
      context.set("count", ++count);
      context.set("contextDirty", true);
    });
  };
  compare(state, 20, peer, ours);
}

void registerAll() {
  benchmark::RegisterBenchmark("round_trip/open_flock_fstat_close", cachedRoundTrip, false)->MinTime(1.0);
  benchmark::RegisterBenchmark("round_trip/open_flock_fstat_unlock_close", cachedRoundTrip, true)->MinTime(1.0);
  const struct {
    const char* name;
    Order order;
  } peers[] = {{"write/truncate_first", Order::truncateFirst},
               {"write/truncate_first_same_crash_rule", Order::truncateFirstAfterJournal},
               {"write/overwrite_no_crash_rule", Order::overwriteBare}};
  for (const auto& [name, order] : peers)
    benchmark::RegisterBenchmark(name, [order = order](benchmark::State& state) { changedContext(state, order); })
        ->Arg(1'000)
        ->Arg(20'000)
        ->Arg(170'000)
        ->MinTime(1.0);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  registerAll();
  benchmark::RunSpecifiedBenchmarks();
}
