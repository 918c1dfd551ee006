// What the benchmarks of contexts share: a host of their own, and two sides measured by turns.
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "Containers/PlistValue.h"
#include "Platform/HostRoot.h"
#include "PluginFramework/BundleManager.h"

namespace ostrel::benchmarks {

/// A host root below the temporary folder, which should be on the kind of disk that is asked about.
class HostFolder {
 public:
  HostFolder() : path_(std::filesystem::temp_directory_path() / "ostrel-benchmark-XXXXXX"), root_(make(path_)) {}
  ~HostFolder() { std::filesystem::remove_all(path_); }
  HostFolder(const HostFolder&) = delete;
  HostFolder& operator=(const HostFolder&) = delete;
  const std::string& path() const noexcept { return path_; }
  std::string file(const char* name) const { return path_ + "/private/var/ostreld/" + name; }

 private:
  static const char* make(std::string& path) {
    if (mkdtemp(path.data()) == nullptr) std::abort();
    std::filesystem::create_directories(path + "/private/var/ostreld");
    return path.c_str();
  }
  std::string path_;
  ostrel::ScopedHostRoot root_;
};

inline void check(bool done) {
  if (!done) {
    std::perror("benchmark");
    std::abort();
  }
}

/// Runs both by turns, so that what else the machine does meets both, and shows their times and the ratio.
template <class Peer, class Ours>
void compare(benchmark::State& state, int turns, Peer peer, Ours ours) {
  using Clock = std::chrono::steady_clock;
  std::chrono::duration<double, std::micro> peerTime{};
  std::chrono::duration<double, std::micro> ourTime{};
  for (auto _ : state) {
    const auto start = Clock::now();
    for (int i = 0; i < turns; ++i) peer();
    const auto between = Clock::now();
    for (int i = 0; i < turns; ++i) ours();
    ourTime += Clock::now() - between;
    peerTime += between - start;
  }
  const auto calls = static_cast<double>(state.iterations()) * turns;
  state.counters["peer_us"] = peerTime.count() / calls;
  state.counters["ours_us"] = ourTime.count() / calls;
  state.counters["ratio"] = ourTime / peerTime;
}

/// Locks and loads the context of a module, gives it to `work`, writes it back and unlocks it.
inline void roundTrip(BundleManager& manager, const auto& work) {
  int descriptor = -1;
  bool timedOut = false;
  PlistValue context = manager.getAndLockContext("bench", &descriptor, &timedOut);
  check(!timedOut);
  work(context);
  manager.setAndUnlockContext(context, "bench", &descriptor);
}

}  // namespace ostrel::benchmarks
