// Commands that the daemon answers itself, and the way to the modules for all others.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "Containers/PlistValue.h"
#include "Platform/Mutex.h"
#include "ostreld/CommandExchange.h"

namespace ostrel {

class BundleManager;
class ConnectionTable;
class IdlePasses;
class NetworkChanges;

/// A command of a batch takes a thread and open files: nobody may ask for any number of them.
struct BatchLimits {
  std::size_t perBatch = 64;
  std::size_t atOnce = 256;  ///< commands of all batches that run
};

/// A command as it is allowed or not.
struct CommandName {
  std::string module;
  std::string command;  ///< "" when the request has none
};

/// What a request runs: its command, or those of the batch that it is, as far as they can be told.
std::vector<CommandName> commandsOf(const PlistValue& request, const std::string& module);

/// The reserved module "ostreld" (docs/wire-protocol.md): "getStatus" and "batch". Callers see to "logout".
///
/// Threads: every operation may be called from any thread.
class DaemonCommands {
 public:
  /// All but the limits are borrowed. The daemon's uptime counts from here.
  DaemonCommands(BundleManager& modules, const IdlePasses& idle, const NetworkChanges& network,
                 const BatchLimits& limits);

  /// The status tells of these connections from now on. Borrowed.
  void watchConnections(const ConnectionTable& connections) { connections_ = &connections; }

  /// A CommandRunner. Throws what the host throws.
  PlistValue run(const PlistValue& request, const std::string& module, const CommandOrigin& origin);

 private:
  class BatchPlaces;
  PlistValue status() const;
  PlistValue batch(const PlistValue& request, const CommandOrigin& origin);
  bool isRunnable(const PlistValue& requests) const;

  BundleManager& modules_;
  const IdlePasses& idle_;
  const NetworkChanges& network_;
  const BatchLimits limits_;
  const PlistDate startDate_;
  const std::chrono::nanoseconds started_;
  std::atomic<const ConnectionTable*> connections_ = nullptr;
  Mutex mutex_;
  std::size_t runningInBatches_ OSTREL_GUARDED_BY(mutex_) = 0;
};

}  // namespace ostrel
