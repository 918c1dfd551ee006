#include "Load/ProcessWatch.h"

#include <filesystem>
#include <fstream>
#include <string>

namespace ostrel::load {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

}  // namespace

Usage usageOf(pid_t process) {
  const std::string folder = "/proc/" + std::to_string(process);
  Usage usage;
  std::error_code ignored;
  for (std::filesystem::directory_iterator entry(folder + "/fd", ignored), end; entry != end; entry.increment(ignored))
    ++usage.descriptors;
  std::ifstream status(folder + "/status");
  for (std::string word; status >> word;) {
    if (word == "Threads:") status >> usage.threads;
    if (word == "VmRSS:") status >> usage.residentKilobytes;
  }
  return usage;
}

Usage usageAtRest(pid_t process, milliseconds quiet) {
  Usage usage = usageOf(process);
  const auto end = steady_clock::now() + std::chrono::seconds(30);
  for (auto since = steady_clock::now(); steady_clock::now() < std::min(since + quiet, end);) {
    std::this_thread::sleep_for(milliseconds(50));
    const Usage now = usageOf(process);
    // The least counts: an idle pass opens a file at a time.
    const bool falls = now.descriptors < usage.descriptors || now.threads < usage.threads;
    if (falls) since = steady_clock::now();
    usage.descriptors = std::min(usage.descriptors, now.descriptors);
    usage.threads = std::min(usage.threads, now.threads);
    usage.residentKilobytes = now.residentKilobytes;
  }
  return usage;
}

ProcessWatch::ProcessWatch(pid_t process)
    : thread_([this, process] {
        while (!ends_) {
          {
            const MutexLock lock(mutex_);
            samples_.push_back({steady_clock::now(), usageOf(process)});
          }
          std::this_thread::sleep_for(milliseconds(100));
        }
      }) {}

ProcessWatch::~ProcessWatch() {
  ends_ = true;
  thread_.join();
}

Usage ProcessWatch::mean(Time from, Time to) const {
  const MutexLock lock(mutex_);
  Usage sum;
  long count = 0;
  for (const Sample& sample : samples_) {
    if (sample.time < from || sample.time > to) continue;
    sum.descriptors += sample.usage.descriptors;
    sum.threads += sample.usage.threads;
    sum.residentKilobytes += sample.usage.residentKilobytes;
    ++count;
  }
  if (count == 0) return {};
  return {sum.descriptors / count, sum.threads / count, sum.residentKilobytes / count};
}

Usage ProcessWatch::first(milliseconds length) const {
  Time start;
  {
    const MutexLock lock(mutex_);
    if (samples_.empty()) return {};
    start = samples_.front().time;
  }
  return mean(start, start + length);
}

Usage ProcessWatch::last(milliseconds length) const {
  const auto now = steady_clock::now();
  return mean(now - length, now);
}

}  // namespace ostrel::load
