// Commands that the daemon answers itself, and the way to the modules for all others.
#pragma once

#include <chrono>
#include <string>

#include "Containers/PlistValue.h"

namespace ostrel {

class BundleManager;

/// The reserved module "ostreld" (docs/wire-protocol.md): "getStatus".
///
/// Threads: `run` may be called on any thread, several at once.
class DaemonCommands {
 public:
  /// `modules` is borrowed. The daemon's uptime counts from here.
  explicit DaemonCommands(BundleManager& modules);

  /// A CommandRunner. Throws what the host throws.
  PlistValue run(const PlistValue& request, const std::string& module, const std::string& user);

 private:
  PlistValue status() const;

  BundleManager& modules_;
  const PlistDate startDate_;
  const std::chrono::nanoseconds started_;
};

}  // namespace ostrel
