#include "ostrelctl/ConfigText.h"

#include <algorithm>
#include <string_view>

namespace ostrel {
namespace {

struct FormatName {
  const char* name;
  ConfigFormat format;
};

constexpr FormatName names[] = {
    {"apache", ConfigFormat::apache}, {"keyvalue", ConfigFormat::keyValue}, {"xinetd", ConfigFormat::xinetd},
    {"syslog", ConfigFormat::syslog}, {"plist", ConfigFormat::plist},
};

bool isNameCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

// Whether every line that says something is NAME=..., and there is one.
bool isKeyValueText(std::string_view text) {
  bool hasOne = false;
  while (!text.empty()) {
    std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    line.remove_prefix(std::min(line.find_first_not_of(" \t\r"), line.size()));
    if (line.empty() || line.front() == '#') continue;
    const std::size_t equals = line.find('=');
    if (equals == 0 || equals == std::string_view::npos) return false;
    if (!std::ranges::all_of(line.substr(0, equals), isNameCharacter)) return false;
    hasOne = true;
  }
  return hasOne;
}

// Whether the first line that says something begins a service or the defaults of all, and the next one opens a brace.
bool isXinetdText(std::string_view text) {
  bool isNamed = false;
  while (!text.empty()) {
    std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    line.remove_prefix(std::min(line.find_first_not_of(" \t\r"), line.size()));
    if (line.empty() || line.front() == '#') continue;
    if (isNamed) return line.front() == '{';
    const std::string_view word = line.substr(0, line.find_first_of(" \t\r"));
    if (word != "service" && word != "defaults") return false;
    isNamed = true;
  }
  return false;
}

}  // namespace

std::optional<ConfigFormat> configFormatNamed(const std::string& name) {
  for (const FormatName& row : names)
    if (name == row.name) return row.format;
  return std::nullopt;
}

const char* nameOf(ConfigFormat format) { return std::ranges::find(names, format, &FormatName::format)->name; }

ConfigFormat guessConfigFormat(const std::string& path, const std::string& text) {
  if (path.ends_with(".plist") || text.starts_with("bplist00")) return ConfigFormat::plist;
  if (text.starts_with("<?xml") || text.starts_with("<plist")) return ConfigFormat::plist;
  if (path.find("/xinetd.d/") != std::string::npos || isXinetdText(text)) return ConfigFormat::xinetd;
  if (path.ends_with("syslog.conf")) return ConfigFormat::syslog;
  if (path == "hostconfig" || path.ends_with("/hostconfig") || isKeyValueText(text)) return ConfigFormat::keyValue;
  return ConfigFormat::apache;
}

std::unique_ptr<ConfigText> makeConfigText(ConfigFormat format, const std::string& path, const std::string& text,
                                           std::string& fault) {
  switch (format) {
    case ConfigFormat::xinetd:
      return makeXinetdText(path, text, fault);
    case ConfigFormat::syslog:
      return makeSyslogText(text, fault);
    case ConfigFormat::plist:
      return makePropertyListText(text, fault);
    default:
      return makeDirectiveText(format, text, fault);
  }
}

}  // namespace ostrel
