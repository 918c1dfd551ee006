#include "ConfigFiles/HostConfigUtilities.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "ConfigFiles/Internal/HostConfigText.h"
#include "ConfigFiles/Internal/TextLines.h"
#include "Containers/Format.h"
#include "Platform/HostRoot.h"
#include "Platform/Mutex.h"
#include "Platform/SystemLog.h"

namespace ostrel {
namespace {

constexpr const char* hostConfigFile = "/etc/hostconfig";

}  // namespace

std::string detail::hostConfigWithEntry(std::string_view text, std::string_view key, std::string_view value) {
  const std::string entry = format("%@=%@", key, value);
  std::string made;
  made.reserve(text.size() + entry.size() + 2);
  bool replaced = false;
  for (const std::string_view line : linesOf(text)) {
    const std::string_view trimmed = trimBlanks(line);
    const bool matches = trimmed.starts_with(key);
    made.append(matches ? entry : trimmed) += '\n';
    replaced = replaced || matches;
  }
  made.pop_back();
  if (replaced) return made;
  // A last line without its end stays a line of its own.
  if (!made.empty() && !made.ends_with('\n')) made += '\n';
  return made + entry + '\n';
}

std::shared_ptr<HostConfigUtilities> HostConfigUtilities::hostConfigUtilities() {
  return std::make_shared<HostConfigUtilities>();
}

bool HostConfigUtilities::getValueForKey(const PlistValue& key, PlistValue* value) const {
  if (!key.isString() || value == nullptr) return false;
  const std::string path = hostPath(hostConfigFile);
  const std::string text = detail::readConfigurationText(path).value_or("");
  const std::string prefix = format("%@=", key);
  for (const std::string_view line : detail::linesOf(text)) {
    const std::string_view trimmed = detail::trimBlanks(line);
    if (!trimmed.starts_with(prefix)) continue;
    if (std::ranges::count(trimmed, '=') != 1) {
      logNotice("Error: bad line in %@:\n%@", path, trimmed);
      return false;
    }
    *value = PlistValue(trimmed.substr(prefix.size()));
    return true;
  }
  *value = PlistValue("");
  return true;
}

std::optional<FileChange> HostConfigUtilities::changeOfEntryForKey(const PlistValue& key,
                                                                   const PlistValue& newValue) const {
  if (!detail::fitsOneLine(key) || !detail::fitsOneLine(newValue) || key.stringValue().empty()) return std::nullopt;
  const std::string path = hostPath(hostConfigFile);
  const auto text = detail::readConfigurationText(path);
  if (!text) return std::nullopt;
  return detail::readableChange(path, text,
                                detail::hostConfigWithEntry(*text, key.stringValue(), newValue.stringValue()));
}

bool HostConfigUtilities::setOrAddEntryForKey(const PlistValue& key, const PlistValue& newValue) const {
  const MutexLock lock(detail::editing());
  const auto change = changeOfEntryForKey(key, newValue);
  return change && change->write();
}

}  // namespace ostrel
