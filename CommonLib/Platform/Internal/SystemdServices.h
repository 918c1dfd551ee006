// The services of systemd, through systemctl(1).
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Containers/Export.h"
#include "Containers/PlistValue.h"
#include "Platform/ServiceManager.h"
#include "Platform/TaskRunner.h"

namespace ostrel::detail {

/// Where things are, so that a test can put others there.
struct SystemdPlaces {
  std::string tool = "/bin/systemctl";
  std::string runningMark = "/run/systemd/system";  ///< a folder that is there while systemd runs (sd_booted(3))
  std::chrono::milliseconds askLimit = std::chrono::seconds(10);
  std::chrono::milliseconds switchLimit = std::chrono::minutes(3);
};

class OSTREL_EXPORT SystemdServices final : public ServiceManager {
 public:
  SystemdServices() : SystemdServices(SystemdPlaces()) {}
  explicit SystemdServices(SystemdPlaces places) : places_(std::move(places)) {}
  bool isAvailable() override;
  bool setEnabled(const std::string& path, bool enable) override;
  bool isEnabled(const std::string& label) override;
  std::optional<LaunchData> send(const LaunchData& request) override;

 private:
  bool isRunning() const;
  std::optional<TaskOutcome> run(std::vector<std::string> arguments, std::chrono::milliseconds limit) const;
  std::optional<bool> hasUnit(const std::string& unit) const;
  bool makeUnit(const std::string& unit, const std::string& text) const;
  std::optional<LaunchData::Dictionary> jobs(const std::string& pattern) const;

  const SystemdPlaces places_;
};

}  // namespace ostrel::detail
