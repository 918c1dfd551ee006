// A /sys of a test's own making, with the folders, links and files that the kernel shows for a device, and volumes on
// its disks.
#pragma once

#include <cerrno>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "Platform/HostRoot.h"
#include "Platform/Volumes.h"
#include "Support/TemporaryFolder.h"

namespace ostrel::testing {

/// Is below the host root for as long as it lives.
class SysTree {
 public:
  /// Devices as words "PATH[@SUBSYSTEM][,FILE=TEXT][,FOLDER/]", below the first of them where PATH begins with "/"; the
  /// first is below /sys/devices.
  void add(const std::string& words) {
    std::istringstream in(words);
    std::string first;
    for (std::string word; in >> word;) {
      const std::size_t end = std::min(word.find_first_of("@,"), word.size());
      std::string path = word.substr(0, end);
      if (first.empty())
        first = path;
      else
        path = first + path;
      addDevice(devices() + path, word.substr(end));
    }
  }
  /// A disk, or a partition, below /sys/devices, with the kernel's link by name.
  void addDisk(const std::string& path) {
    const std::filesystem::path disk = devices() + path;
    std::filesystem::create_directories(disk);
    link(disk, root_ / ("sys/class/block/" + disk.filename().string()));
  }
  /// A device that is made of others, which are there already.
  void addMade(const std::string& name, const std::vector<std::string>& members) {
    addDisk("virtual/block/" + name);
    for (const std::string& member : members) {
      const auto disk = std::filesystem::canonical(root_ / ("sys/class/block/" + member));
      link(disk, devices() + "virtual/block/" + name + "/slaves/" + member);
    }
  }
  void write(const std::string& path, const std::string& text) { writeFile(devices() + path, text); }

 private:
  std::string devices() const { return root_ / "sys/devices/"; }
  static void link(const std::filesystem::path& target, const std::filesystem::path& at) {
    std::filesystem::create_directories(at.parent_path());
    std::filesystem::create_symlink(std::filesystem::relative(target, at.parent_path()), at);
  }
  static void addDevice(const std::string& path, const std::string& details) {
    std::filesystem::create_directories(path);
    std::istringstream in(details);
    for (std::string detail; std::getline(in, detail, ',');) {
      const std::size_t equal = detail.find('=');
      if (detail.starts_with('@'))
        std::filesystem::create_symlink("../../bus/" + detail.substr(1), path + "/subsystem");
      else if (detail.ends_with('/'))
        std::filesystem::create_directories(path + "/" + detail);
      else if (!detail.empty())
        writeFile(path + "/" + detail.substr(0, equal), detail.substr(equal + 1) + "\n");
    }
  }

  TemporaryFolder root_;
  ScopedHostRoot scope_{root_.path()};
};

/// Volumes as a test mounts them: the path of each to its device.
class FakeVolumes : public Volumes {
 public:
  std::map<std::string, std::string> devices;

  std::optional<Volume> volumeOf(const std::string& path) override {
    const auto found = devices.find(path);
    if (found != devices.end()) return Volume{path, "ext4", found->second};
    errno = ENOENT;
    return std::nullopt;
  }
  std::vector<Volume> list() override {
    std::vector<Volume> volumes;
    for (const auto& [path, device] : devices) volumes.push_back({path, "ext4", device});
    return volumes;
  }
};

}  // namespace ostrel::testing
