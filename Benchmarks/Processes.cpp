// Process lookup, the whole table and running a program, beside bare system calls, libproc2 and pgrep. All of them see
// the same table: that of this machine and 300 sleeping processes more.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <libproc2/pids.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "DaemonServices/ProcessControl.h"

namespace {

constexpr const char* absentName = "no-such-service";

void check(bool done) {
  if (!done) {
    std::perror("benchmark");
    std::abort();
  }
}

/// Processes that only wait; ended with this object.
class Sleepers {
 public:
  explicit Sleepers(int count) {
    for (int i = 0; i < count; ++i) {
      children_.push_back(fork());
      if (children_.back() != 0) continue;
      for (;;) pause();
    }
  }
  ~Sleepers() {
    for (const pid_t child : children_) kill(child, SIGKILL);
    for (const pid_t child : children_) waitpid(child, nullptr, 0);
  }
  Sleepers(const Sleepers&) = delete;
  Sleepers& operator=(const Sleepers&) = delete;

 private:
  std::vector<pid_t> children_;
};

/// Opens, reads and closes one file of every process; nothing is done with what it holds.
std::size_t bareScan(const char* file) {
  alignas(dirent64) static std::array<char, 32768> listing;
  static std::array<char, 2048> content;
  const int folder = open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  check(folder >= 0);
  std::size_t bytes = 0;
  for (ssize_t size; (size = getdents64(folder, listing.data(), listing.size())) > 0;) {
    for (ssize_t at = 0; at < size;) {
      const auto* entry = reinterpret_cast<const dirent64*>(listing.data() + at);
      at += entry->d_reclen;
      if (entry->d_name[0] < '1' || entry->d_name[0] > '9') continue;
      std::array<char, 32> path;
      char* end = stpcpy(path.data(), entry->d_name);
      *end++ = '/';
      std::strcpy(end, file);
      const int opened = openat(folder, path.data(), O_RDONLY | O_CLOEXEC);
      if (opened < 0) continue;
      const ssize_t count = read(opened, content.data(), content.size());
      if (count > 0) bytes += static_cast<std::size_t>(count);
      close(opened);
    }
  }
  close(folder);
  return bytes;
}

/// libproc2's table of the same fields.
class LibraryTable {
 public:
  explicit LibraryTable(std::vector<pids_item> items) {
    check(procps_pids_new(&info_, items.data(), int(items.size())) == 0);
  }
  ~LibraryTable() { procps_pids_unref(&info_); }
  LibraryTable(const LibraryTable&) = delete;
  LibraryTable& operator=(const LibraryTable&) = delete;

  const pids_fetch& fetch() {
    const pids_fetch* fetched = procps_pids_reap(info_, PIDS_FETCH_TASKS_ONLY);
    check(fetched != nullptr && fetched->counts->total > 0);
    return *fetched;
  }
  /// The id of the process of that name, or -1. For one call.
  int firstNamed(const char* name) {
    while (const pids_stack* process = procps_pids_get(info_, PIDS_FETCH_TASKS_ONLY)) {
      if (std::strcmp(PIDS_VAL(1, str, process, info_), name) == 0) return PIDS_VAL(0, s_int, process, info_);
    }
    return -1;
  }

 private:
  pids_info* info_ = nullptr;
};

int run(std::vector<const char*> arguments) {
  arguments.push_back(nullptr);
  pid_t child = 0;
  int status = 0;
  check(posix_spawn(&child, arguments[0], nullptr, nullptr, const_cast<char**>(arguments.data()), environ) == 0);
  check(waitpid(child, &status, 0) == child);
  return WEXITSTATUS(status);
}

/// Runs both by turns, so that what else the machine does meets both, and shows their times and the ratio.
template <class Peer, class Ours>
void compare(benchmark::State& state, Peer peer, Ours ours) {
  using Clock = std::chrono::steady_clock;
  std::chrono::duration<double, std::micro> peerTime{};
  std::chrono::duration<double, std::micro> ourTime{};
  bool oursFirst = false;
  const auto timed = [](auto& work, auto& sum) {
    const auto start = Clock::now();
    work();
    sum += Clock::now() - start;
  };
  for (auto _ : state) {
    if (oursFirst) timed(ours, ourTime);
    timed(peer, peerTime);
    if (!oursFirst) timed(ours, ourTime);
    oursFirst = !oursFirst;
  }
  const auto calls = static_cast<double>(state.iterations());
  state.counters["peer_us"] = peerTime.count() / calls;
  state.counters["ours_us"] = ourTime.count() / calls;
  state.counters["ratio"] = ourTime / peerTime;
}

void lookUp() { check(ostrel::ec_pid_for_process_named(absentName) == -1); }

void takeTable() {
  ostrel::ProcessEntry* table = nullptr;
  std::size_t count = 0;
  check(ostrel::ec_get_process_table(&table, &count) == 0 && count > 300);
  std::free(table);
}

void lookUpBesideScan(benchmark::State& state) {
  compare(
      state, [] { check(bareScan("comm") > 0); }, lookUp);
}
void lookUpBesideLibrary(benchmark::State& state) {
  // Its walk cannot be begun anew, so each look-up makes its own.
  compare(
      state,
      [] {
        check(LibraryTable({PIDS_ID_PID, PIDS_CMD}).firstNamed(absentName) == -1);
      },
      lookUp);
}
void lookUpBesideProgram(benchmark::State& state) {
  compare(
      state,
      [] {
        check(run({"/usr/bin/pgrep", "-x", absentName}) == 1);
      },
      lookUp);
}
void tableBesideScan(benchmark::State& state) {
  compare(
      state, [] { check(bareScan("stat") > 0); }, takeTable);
}
void tableBesideLibrary(benchmark::State& state) {
  LibraryTable table({PIDS_ID_PID, PIDS_ID_PPID, PIDS_STATE, PIDS_CMD, PIDS_TICS_BEGAN});
  compare(
      state, [&] { check(table.fetch().counts->total > 300); }, takeTable);
}
void taskBesideSpawn(benchmark::State& state) {
  compare(
      state, [] { check(run({"/bin/true"}) == 0); }, [] { check(ostrel::launch_task("/bin/true", {}) == 0); });
}

}  // namespace

BENCHMARK(lookUpBesideScan)->Name("lookup by name: scan of comm")->MinTime(3);
BENCHMARK(lookUpBesideLibrary)->Name("lookup by name: libproc2")->MinTime(3);
BENCHMARK(lookUpBesideProgram)->Name("lookup by name: pgrep -x")->MinTime(3);
BENCHMARK(tableBesideScan)->Name("whole table: scan of stat")->MinTime(3);
BENCHMARK(tableBesideLibrary)->Name("whole table: libproc2")->MinTime(3);
BENCHMARK(taskBesideSpawn)->Name("launch_task: posix_spawn, waitpid")->MinTime(3);

int main(int count, char** arguments) {
  benchmark::Initialize(&count, arguments);
  const Sleepers sleepers(300);
  benchmark::RunSpecifiedBenchmarks();
}
