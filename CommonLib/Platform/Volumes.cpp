#include "Platform/Volumes.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <array>
#include <charconv>

#include "Containers/Format.h"
#include "Platform/Files.h"
#include "Platform/HostRoot.h"
#include "Platform/Internal/SystemCalls.h"

namespace ostrel {
namespace {

std::string_view takeField(std::string_view& line) {
  const std::string_view field = line.substr(0, line.find(' '));
  line.remove_prefix(std::min(field.size() + 1, line.size()));
  return field;
}

template <class Number>
bool takeNumber(std::string_view& text, Number& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  return error == std::errc();
}

// The kernel writes blanks, line feeds and backslashes as three octal digits behind a backslash.
std::string unescaped(std::string_view field) {
  const auto isOctal = [](char c) { return c >= '0' && c <= '7'; };
  std::string text;
  for (std::size_t at = 0; at < field.size(); ++at) {
    if (field[at] != '\\' || at + 3 >= field.size() || !std::all_of(&field[at + 1], &field[at + 3] + 1, isOctal)) {
      text += field[at];
      continue;
    }
    text += static_cast<char>((field[at + 1] - '0') * 64 + (field[at + 2] - '0') * 8 + (field[at + 3] - '0'));
    at += 3;
  }
  return text;
}

// ID PARENT MAJOR:MINOR ROOT PATH OPTIONS [OPTIONAL...] - TYPE SOURCE OPTIONS
std::optional<Mount> parseMount(std::string_view line) {
  Mount mount;
  std::string_view id = takeField(line);
  takeField(line);
  std::string_view device = takeField(line);
  takeField(line);
  mount.path = unescaped(takeField(line));
  takeField(line);
  if (!takeNumber(id, mount.id) || !id.empty()) return std::nullopt;
  if (!takeNumber(device, mount.deviceMajor) || !device.starts_with(':')) return std::nullopt;
  device.remove_prefix(1);
  if (!takeNumber(device, mount.deviceMinor) || !device.empty()) return std::nullopt;
  while (!line.empty()) {
    if (takeField(line) != "-") continue;
    mount.type = unescaped(takeField(line));
    mount.source = unescaped(takeField(line));
    return mount;
  }
  return std::nullopt;
}

// "/dev/NAME" of a block device by its number; the kernel writes "!" for the "/" of a name.
std::optional<std::string> deviceNumbered(unsigned int majorNumber, unsigned int minorNumber) {
  const auto link = readLink(hostPath(format("/sys/dev/block/%u:%u", majorNumber, minorNumber)));
  if (!link || link->ends_with('/')) return std::nullopt;
  std::string name = link->substr(link->rfind('/') + 1);
  std::ranges::replace(name, '!', '/');
  return "/dev/" + name;
}

// Some file systems (btrfs) have numbers of their own, and only the name says where they are.
std::optional<std::string> deviceNamed(const std::string& source) {
  struct stat status {};
  if (!source.starts_with("/dev/") || source.find("/../") != std::string::npos) return std::nullopt;
  if (::stat(source.c_str(), &status) != 0 || !S_ISBLK(status.st_mode)) return std::nullopt;
  return deviceNumbered(major(status.st_rdev), minor(status.st_rdev));
}

Volume volumeAt(const Mount& mount) {
  auto device = deviceNumbered(mount.deviceMajor, mount.deviceMinor);
  if (!device) device = deviceNamed(mount.source);
  return {mount.path, mount.type, device.value_or(mount.source)};
}

std::vector<Mount> mountTable() {
  constexpr std::size_t longest = 64U << 20U;
  return parseMountTable(readWholeFile("/proc/self/mountinfo", longest).value_or(""));
}

class HostVolumes final : public Volumes {
 public:
  std::optional<Volume> volumeOf(const std::string& path) override {
    struct statx status {};
    if (!detail::isUsablePath(path)) return std::nullopt;
    const auto call = [&] { return ::statx(AT_FDCWD, path.c_str(), AT_STATX_DONT_SYNC, STATX_MNT_ID, &status); };
    if (detail::retried(call) != 0) return std::nullopt;
    const std::vector<Mount> mounts = mountTable();
    const auto found = std::ranges::find(mounts, status.stx_mnt_id, &Mount::id);
    return found == mounts.end() ? Volume{} : volumeAt(*found);  // a mount that is gone meanwhile tells nothing
  }

  std::vector<Volume> list() override {
    std::vector<Volume> volumes;
    for (const Mount& mount : mountTable()) volumes.push_back(volumeAt(mount));
    return volumes;
  }
};

}  // namespace

std::vector<Mount> parseMountTable(std::string_view text) {
  std::vector<Mount> mounts;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    if (auto mount = parseMount(line)) mounts.push_back(*std::move(mount));
  }
  return mounts;
}

std::atomic<Volumes*>& Volumes::slot() {
  static std::atomic<Volumes*> slot{new HostVolumes};  // kept: other threads may use it while the process exits
  return slot;
}

}  // namespace ostrel
