// The host's service manager: switching services on and off, and asking about them.
#pragma once

#include <atomic>
#include <optional>
#include <string>

#include "Containers/Export.h"
#include "Platform/LaunchData.h"
#include "Platform/Service.h"

namespace ostrel {

/// On Linux: systemd, through systemctl(1). A job is a service unit: "com.example.maild" is
/// "com.example.maild.service", and ".service" may be there already; of an absolute path, the last component without
/// ".plist" or ".xml" counts. Names that no unit can have ("../x", "-x", ".x", one of more than 255 bytes, or with any
/// other character than A-Z a-z 0-9 : - _ . \ @) name no job.
///
/// With a host root set, or where systemd does not run, only what happens at the host's next start is read and changed,
/// in the files below the host root ("systemctl --root"); nothing is started or stopped then.
///
/// Threads: every operation may be called from any thread. Each runs a program and waits for it: up to 10 seconds to
/// ask, up to 3 minutes to switch; a program that takes longer is killed, and the answer is a failure.
class OSTREL_EXPORT ServiceManager {
 public:
  virtual ~ServiceManager() = default;
  static ServiceManager& current() { return *slot().load(std::memory_order_acquire); }

  /// Whether this host has the tool that controls it ("/bin/systemctl", whatever the host root). Everything else fails
  /// where it has not.
  virtual bool isAvailable() = 0;

  /// Switches the job of the description file at `path` on or off: now, and for each start of the host.
  ///
  /// The job is named by the file's "Label", or by the file's name where it cannot be read or has no label. One that
  /// has no unit gets one, which is made from the description (Platform/Internal/SystemdUnit.h) and made anew when the
  /// description has changed; a unit from elsewhere is left as it is. False when that is not possible, and when the
  /// job does not start or stop.
  virtual bool setEnabled(const std::string& path, bool enable) = 0;

  /// Whether the job of that label is started at each start of the host, or by others ("static").
  virtual bool isEnabled(const std::string& label) = 0;

  /// What the service manager answers to {"GetJob": label}, the dictionary of a job, or to "GetJobs", a dictionary from
  /// label to job. An error number when there is no such job or request; absent when no service manager runs, it does
  /// not answer in time, or its answer is larger than 8 MiB.
  ///
  /// A job has "Label" (the unit's name without ".service"), "LastExitStatus" (integer, as waitpid(2) gives it), "PID"
  /// (integer, while it runs), "OnDemand" (boolean: it is not started again when it ends), "Program" and
  /// "ProgramArguments" (systemd tells them with a blank between, so arguments that hold blanks come apart),
  /// "UserName", "WorkingDirectory", and in systemd's words "ActiveState" and "UnitFileState". What a job has not is
  /// left out.
  virtual std::optional<LaunchData> send(const LaunchData& request) = 0;

 private:
  friend class ScopedOverride<ServiceManager>;
  static std::atomic<ServiceManager*>& slot();
};

}  // namespace ostrel
