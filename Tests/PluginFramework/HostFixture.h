// A host root of a test's own with the folders that the framework uses.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <string>

#include "Platform/HostRoot.h"
#include "PluginFramework/BundleManager.h"
#include "Support/Fakes.h"
#include "Support/TemporaryFolder.h"

namespace ostrel::testing {

class HostFixture {
 public:
  HostFixture() : root_(folder_.path()) {
    std::filesystem::create_directories(folder_ / "private/var/ostreld");
    std::filesystem::create_directories(folder_ / "usr/share/ostreld/bundles");
  }
  std::string operator/(std::string_view path) const { return folder_ / path; }
  std::string lockFile(std::string_view module) const {
    return folder_ / ("private/var/ostreld/" + std::string(module) + ".lock");
  }
  /// Puts a test bundle of this build into the bundle folder under a name.
  void install(const std::string& bundle, const std::string& entry) const {
    std::filesystem::copy_file(OSTREL_TEST_BUNDLES "/" + bundle + ".bundle",
                               folder_ / ("usr/share/ostreld/bundles/" + entry));
  }

 private:
  TemporaryFolder folder_;
  ScopedHostRoot root_;
};

/// A host whose forced quit is only noted.
class WatchedManager final : public BundleManager {
 public:
  using BundleManager::BundleManager;
  void forceQuitNow_PleaseLookAtHungThreadAndNotThisThread() override { ++quits; }
  std::atomic<int> quits = 0;
};

inline struct stat statusOf(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) status.st_mode = 0;
  return status;
}

/// "[%d] " and the rest, as log lines begin.
inline std::string logLine(const std::string& rest) { return "[" + std::to_string(getpid()) + "] " + rest; }

}  // namespace ostrel::testing
