#include "Platform/HostMemory.h"

#include <algorithm>

#include "Containers/LeadingInteger.h"
#include "Platform/Files.h"

namespace ostrel {
namespace {

/// "NAME:   NUMBER kB" on a line of its own, in bytes.
std::optional<std::uint64_t> fieldOf(std::string_view text, std::string_view name) {
  constexpr std::uint64_t mostKilobytes = UINT64_MAX / 1024;
  while (!text.empty()) {
    std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(text.size(), line.size() + 1));
    if (!line.starts_with(name) || !line.substr(name.size()).starts_with(':')) continue;
    const auto kilobytes = leadingInteger(line.substr(name.size() + 1));
    if (!kilobytes || *kilobytes < 0 || !line.ends_with(" kB")) return std::nullopt;
    const auto count = static_cast<std::uint64_t>(*kilobytes);
    return count <= mostKilobytes ? std::optional(count * 1024) : std::nullopt;
  }
  return std::nullopt;
}

}  // namespace

std::optional<HostMemory> parseHostMemory(std::string_view text) {
  const auto total = fieldOf(text, "MemTotal");
  const auto available = fieldOf(text, "MemAvailable");
  if (!total || !available || *available > *total) return std::nullopt;
  return HostMemory{*total, *available};
}

std::optional<HostMemory> hostMemory() {
  const auto text = readWholeFile("/proc/meminfo");
  return text ? parseHostMemory(*text) : std::nullopt;
}

}  // namespace ostrel
