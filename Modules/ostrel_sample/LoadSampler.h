// What the sample module takes a history of: how busy this machine is.
#pragma once

#include <optional>
#include <vector>

#include "Containers/PlistValue.h"
#include "Platform/Mutex.h"
#include "Platform/ProcessorTimes.h"

namespace ostrel::sample {

/// The share of processor time, in tenths of a percent, that was not idle between two readings; absent when the clocks
/// did not move or went back (a processor was taken out).
std::optional<std::uint64_t> busyShare(const std::vector<ProcessorTicks>& earlier,
                                       const std::vector<ProcessorTicks>& later);

/// Threads: may be called from any thread.
class LoadSampler {
 public:
  /// One number for each of `descriptions`; text, which a history takes for no value, where there is none.
  PlistValue take();
  /// [{"key", "name", "unit", "scale"}]: a stored number times "scale" is in "unit".
  static PlistValue descriptions();

 private:
  Mutex mutex_;
  std::vector<ProcessorTicks> last_ OSTREL_GUARDED_BY(mutex_);  // of the former sample
};

}  // namespace ostrel::sample
