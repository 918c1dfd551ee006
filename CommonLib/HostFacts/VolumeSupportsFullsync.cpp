#include "HostFacts/VolumeSupportsFullsync.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "Platform/HardwareRegistry.h"
#include "Platform/Volumes.h"

namespace ostrel {
namespace {

constexpr std::string_view interconnectKey = "Physical Interconnect";
constexpr std::string_view characteristicsKey = "Protocol Characteristics";

enum ReasonCode : std::int32_t { supported = 0, pathOrVolume = 1, noService = 3, undetermined = 5 };

struct Verdict {
  std::int32_t result;
  ReasonCode code;
};

// The path as the file system takes it. Absent with errno.
std::optional<std::string> fileSystemPath(const PlistValue& path) {
  std::string text(path.stringValue());
  if (text.find('\0') == std::string::npos) return text;
  errno = ENOENT;
  return std::nullopt;
}

// The kernel's name of the device that a volume is mounted from.
std::string diskName(const std::string& device) {
  constexpr std::string_view folder = "/dev/";
  constexpr std::size_t longest = 1023;
  const std::size_t found = device.find(folder);
  return device.substr(found == std::string::npos ? 0 : found + folder.size(), longest);
}

// A property of the entry or of one above it, or what the entry there says of the protocol.
PlistValue searchedFor(HardwareRegistry& registry, const RegistryEntry& entry, std::string_view key) {
  PlistValue found = registry.searchUpwards(entry, key);
  return found.isNull() ? registry.searchUpwards(entry, characteristicsKey).get(key) : found;
}

// The interconnect of the disk at a path in the service plane; null when there is none.
PlistValue interconnectAbove(HardwareRegistry& registry, std::string path) {
  PlistValue remembered;
  for (std::size_t slash = path.rfind('/'); slash != std::string::npos; slash = path.rfind('/')) {
    path.resize(slash);
    const auto entry = registry.entryAtPath(path);
    if (!entry) continue;
    // One higher up replaces a nearer one.
    if (PlistValue found = registry.property(*entry, interconnectKey); !found.isNull()) remembered = found;
    if (registry.property(*entry, "IOProviderClass") != PlistValue("IOPCIDevice")) continue;
    remembered = searchedFor(registry, *entry, interconnectKey);  // meant: also by nothing
    searchedFor(registry, *entry, "Force Write Cache Enable");    // meant: read, and of no weight
    break;
  }
  return remembered;
}

std::vector<PlistValue> interconnectsOf(const RegistryEntry& service) {
  HardwareRegistry& registry = HardwareRegistry::current();
  std::vector<PlistValue> found;
  for (const std::string& path : registry.servicePaths(service)) found.push_back(interconnectAbove(registry, path));
  return found;
}

bool isSupported(const PlistValue& interconnect) {
  constexpr std::string_view names[] = {"SAS", "SATA", "Parallel SCSI", "ATA", "Fibre Channel Interface"};
  return interconnect.isString() && std::ranges::find(names, interconnect.stringValue()) != std::end(names);
}

Verdict judge(const PlistValue& path) try {
  const auto file = fileSystemPath(path);
  const auto volume = file ? Volumes::current().volumeOf(*file) : std::nullopt;
  if (!volume) return {fullsyncFailed, pathOrVolume};
  const auto service = HardwareRegistry::current().diskService(diskName(volume->device));
  if (!service) return {fullsyncNoDevice, noService};
  const std::vector<PlistValue> interconnects = interconnectsOf(*service);
  if (interconnects.empty() || !std::ranges::all_of(interconnects, isSupported))
    return {fullsyncNotSupported, undetermined};
  errno = 0;
  return {fullsyncSupported, supported};
} catch (const std::bad_alloc&) {
  errno = ENOMEM;
  return {fullsyncFailed, pathOrVolume};
}

}  // namespace

std::int32_t VolumeSupportsFullsync(const PlistValue& path, PlistValue* reason) try {
  if (!path.isString() || (reason != nullptr && !reason->isNull())) {
    errno = EINVAL;
    return fullsyncFailed;
  }
  PlistValue told = PlistValue::mutableDictionaryOf({{"ReasonCode", std::int32_t{supported}}});
  const Verdict verdict = judge(path);
  const int error = errno;
  told.set("ReasonCode", std::int32_t{verdict.code});
  if (reason != nullptr) *reason = told;
  errno = error;
  return verdict.result;
} catch (const std::bad_alloc&) {
  errno = ENOMEM;
  return fullsyncFailed;  // there was no room for the dictionary
}

PlistValue VolumeInterconnects(const PlistValue& path) {
  PlistValue names = PlistValue::mutableArray();
  const auto file = path.isString() ? fileSystemPath(path) : std::nullopt;
  const auto volume = file ? Volumes::current().volumeOf(*file) : std::nullopt;
  const auto service = volume ? HardwareRegistry::current().diskService(diskName(volume->device)) : std::nullopt;
  if (!service) return names.immutableCopy();
  for (const PlistValue& interconnect : interconnectsOf(*service))
    names.append(interconnect.isString() ? interconnect : PlistValue(""));
  return names.immutableCopy();
}

}  // namespace ostrel
