#include "Platform/HardwareRegistry.h"

#include <stdlib.h>

#include <algorithm>
#include <memory>
#include <set>

#include "Containers/Format.h"
#include "Platform/Files.h"
#include "Platform/HostRoot.h"

namespace ostrel {
namespace {

constexpr std::string_view servicePlane = "IOService:";
constexpr std::string_view devices = "/devices/";
constexpr std::string_view madeBySoftware = "/devices/virtual/block/";
constexpr std::string_view interconnect = "Physical Interconnect";
constexpr int deepestStack = 16;         // devices upon devices
constexpr std::size_t mostDisks = 1024;  // of one device

// Folders below are named by their paths below /sys: "/devices/pci0000:00/...".
std::string sysPath(std::string_view place) { return hostPath("/sys") + std::string(place); }

std::optional<std::string> realPath(const std::string& path) {
  const std::unique_ptr<char, decltype(&free)> found(::realpath(path.c_str(), nullptr), &free);
  return found ? std::optional<std::string>(found.get()) : std::nullopt;
}

// Where a link of /sys leads, if that is a device.
std::optional<std::string> deviceAt(const std::string& path) {
  const auto root = realPath(hostPath("/sys"));
  const auto found = realPath(path);
  if (!root || !found || !found->starts_with(*root + std::string(devices))) return std::nullopt;
  return found->substr(root->size());
}

std::vector<std::string> namesIn(const std::string& place) {
  std::vector<std::string> names = listDirectory(sysPath(place)).value_or(std::vector<std::string>());
  std::ranges::sort(names);
  return names;
}

std::string textOf(const std::string& place, std::string_view file) {
  constexpr std::size_t longest = 4096;
  const std::string text = readWholeFile(sysPath(place + "/" + std::string(file)), longest).value_or("");
  return text.substr(0, text.find('\n'));
}

std::string childOf(const std::string& place, std::string_view name) { return format("%s/%s", place, name); }

// The bus or class that a device is of.
std::string subsystemOf(const std::string& place) {
  const std::string link = readLink(sysPath(place + "/subsystem")).value_or("");
  return link.substr(link.rfind('/') + 1);
}

std::string nameOf(const std::string& place) { return place.substr(place.rfind('/') + 1); }
std::string parentOf(const std::string& place) { return place.substr(0, place.rfind('/')); }

// A prefix and a number: "ata1", "host0".
bool isNumbered(std::string_view name, std::string_view prefix) {
  if (!name.starts_with(prefix) || name.size() == prefix.size()) return false;
  return name.find_first_not_of("0123456789", prefix.size()) == std::string_view::npos;
}

// The disks and partitions that a device is made of.
std::vector<std::string> membersOf(const std::string& place) {
  const bool isPartition = fileExists(sysPath(place + "/partition"));
  const std::string slaves = (isPartition ? parentOf(place) : place) + "/slaves";
  std::vector<std::string> members;
  for (const std::string& name : namesIn(slaves)) {
    if (auto member = deviceAt(sysPath(childOf(slaves, name)))) members.push_back(*std::move(member));
  }
  return members;
}

bool isLibataPort(const std::string& place) {
  return isNumbered(nameOf(place), "ata") && fileExists(sysPath(place + "/ata_port"));
}

// Links tell their speed; a parallel one has none.
const char* libataInterconnect(const std::string& place) {
  for (const std::string& link : namesIn(place)) {
    if (link.starts_with("link") &&
        textOf(format("%s/%s/ata_link/%s", place, link, link), "sata_spd").find("bps") != std::string::npos)
      return "SATA";
  }
  return "ATA";
}

const char* hostInterconnect(const std::string& place) {
  constexpr std::pair<const char*, const char*> transports[] = {{"/sas_host", "SAS"},
                                                                {"/spi_host", "Parallel SCSI"},
                                                                {"/fc_host", "Fibre Channel Interface"},
                                                                {"/iscsi_host", "iSCSI"}};
  for (const auto& [folder, name] : transports) {
    if (isDirectory(sysPath(place + folder))) return name;
  }
  return nullptr;
}

const char* nvmeInterconnect(const std::string& place) {
  const std::string transport = textOf(place, "transport");
  return transport.empty() || transport == "pcie" ? "PCI-Express" : "NVMe over Fabrics";
}

// A subsystem holds links to the controllers through which its disks are reached.
const char* nvmeSubsystemInterconnect(const std::string& place) {
  for (const std::string& name : namesIn(place)) {
    if (isNumbered(name, "nvme")) return nvmeInterconnect(childOf(place, name));
  }
  return nullptr;
}

const char* interconnectOf(const std::string& place);

// What a PCI device provides: its ports, hosts and buses. A port with a SATA link speaks for its neighbours.
const char* providedInterconnect(const std::string& place) {
  const char* found = nullptr;
  for (const std::string& name : namesIn(place)) {
    const std::string child = childOf(place, name);
    const char* provided = nullptr;
    if (name == "nvme") provided = "PCI-Express";
    for (const char* kind : {"ata", "host", "usb", "fw", "virtio"}) {
      if (isNumbered(name, kind)) provided = interconnectOf(child);
    }
    if (provided == nullptr) continue;
    if (std::string_view(provided) != "ATA") return provided;
    found = provided;
  }
  return found;
}

const char* interconnectOf(const std::string& place) {
  constexpr std::pair<std::string_view, const char*> buses[] = {{"usb", "USB"},
                                                                {"firewire", "FireWire"},
                                                                {"virtio", "Virtual Interface"},
                                                                {"xen", "Virtual Interface"},
                                                                {"vmbus", "Virtual Interface"},
                                                                {"mmc", "Secure Digital"}};
  if (isLibataPort(place)) return libataInterconnect(place);
  const std::string subsystem = subsystemOf(place);
  for (const auto& [bus, name] : buses) {
    if (bus == subsystem) return name;
  }
  if (subsystem == "scsi" && isNumbered(nameOf(place), "host")) return hostInterconnect(place);
  if (subsystem == "nvme") return nvmeInterconnect(place);
  if (subsystem == "nvme-subsystem") return nvmeSubsystemInterconnect(place);
  if (subsystem == "pci") return providedInterconnect(place);
  return nullptr;
}

// PCI Code and ID Assignment Specification: class and subclass of mass storage and serial bus controllers.
const char* interconnectOfClass(const std::string& code) {
  constexpr std::pair<std::string_view, const char*> classes[] = {{"0x0101", "ATA"},
                                                                  {"0x0106", "SATA"},
                                                                  {"0x0107", "SAS"},
                                                                  {"0x0108", "PCI-Express"},
                                                                  {"0x0c00", "FireWire"},
                                                                  {"0x0c03", "USB"},
                                                                  {"0x0c04", "Fibre Channel Interface"}};
  for (const auto& [prefix, name] : classes) {
    if (code.starts_with(prefix)) return name;
  }
  return nullptr;
}

class HostHardwareRegistry final : public HardwareRegistry {
 public:
  std::optional<RegistryEntry> diskService(std::string_view name) override {
    std::string file(name);
    std::ranges::replace(file, '/', '!');
    if (file.empty() || file == "." || file == ".." || file.find('\0') != std::string::npos) return std::nullopt;
    auto place = deviceAt(sysPath("/class/block/" + file));
    if (!place || (place->starts_with(madeBySoftware) && membersOf(*place).empty())) return std::nullopt;
    return RegistryEntry{*std::move(place)};
  }

  std::vector<std::string> servicePaths(const RegistryEntry& entry) override {
    PathSearch search;
    // Some of the disks would not do: what is left out could be the one that matters.
    if (!addPaths(entry.place, "", 0, search)) return {};
    return search.paths;
  }

  std::optional<RegistryEntry> entryAtPath(std::string_view path) override {
    if (!path.starts_with(servicePlane) || path.find("/..") != std::string_view::npos) return std::nullopt;
    const std::string place(path.substr(servicePlane.size()));
    if (!place.starts_with(devices) || !isDirectory(sysPath(place))) return std::nullopt;
    return RegistryEntry{place};
  }

  PlistValue property(const RegistryEntry& entry, std::string_view name) override {
    if (name == interconnect) return interconnectOf(entry.place);
    if (subsystemOf(entry.place) != "pci") return {};
    if (name == "IOProviderClass") return "IOPCIDevice";
    if (name == "Protocol Characteristics") {
      const char* known = interconnectOfClass(textOf(entry.place, "class"));
      if (known != nullptr) return PlistValue::dictionaryOf({{interconnect, known}});
    }
    return {};
  }

  PlistValue searchUpwards(const RegistryEntry& entry, std::string_view name) override {
    RegistryEntry at = entry;
    while (at.place.starts_with(devices)) {
      PlistValue found = property(at, name);
      if (!found.isNull()) return found;
      at.place = parentOf(at.place);
    }
    return {};
  }

 private:
  struct PathSearch {
    std::set<std::string> seen;
    std::vector<std::string> paths;
  };

  // `above` names what is made of the device at `place`: "/dm-0/dm-1". False when there is too much of it.
  static bool addPaths(const std::string& place, const std::string& above, int depth, PathSearch& search) {
    if (depth > deepestStack || search.paths.size() >= mostDisks) return false;
    if (!search.seen.insert(place).second) return true;
    const std::vector<std::string> members = membersOf(place);
    if (members.empty()) search.paths.push_back(std::string(servicePlane) + place + above);
    return std::ranges::all_of(members, [&](const std::string& member) {
      return addPaths(member, std::string("/").append(nameOf(place)).append(above), depth + 1, search);
    });
  }
};

}  // namespace

std::atomic<HardwareRegistry*>& HardwareRegistry::slot() {
  static std::atomic<HardwareRegistry*> slot{
      new HostHardwareRegistry};  // kept: other threads may use it while the process exits
  return slot;
}

}  // namespace ostrel
