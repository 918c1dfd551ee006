// A configuration file's text in one of the formats that ostrelctl config knows.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Containers/PlistValue.h"
#include "ostrelctl/ConfigEdit.h"

namespace ostrel {

/// Nothing here touches the file itself: `text` is what it is to hold. Threads: one object on one thread.
class ConfigText {
 public:
  virtual ~ConfigText() = default;
  /// The values that stand under the edit's blocks and key, commented ones left out. Empty when there is none; absent
  /// with the reason in `fault` when the place cannot be told.
  virtual std::optional<std::vector<PlistValue>> get(const ConfigEdit& place, std::string& fault) = 0;
  /// Makes one change in memory. False with the reason in `fault`, when the text may be half changed: throw it away.
  virtual bool apply(const ConfigEdit& edit, std::string& fault) = 0;
  /// The text now; absent with the reason in `fault`.
  virtual std::optional<std::string> text(std::string& fault) = 0;
};

enum class ConfigFormat { apache, keyValue, xinetd, syslog, plist };

/// "apache", "keyvalue", "xinetd", "syslog", "plist".
std::optional<ConfigFormat> configFormatNamed(const std::string& name);
const char* nameOf(ConfigFormat format);

/// What a file of this path and text is, judged by both.
ConfigFormat guessConfigFormat(const std::string& path, const std::string& text);

/// Null with the reason in `fault` when the text is not in that format.
std::unique_ptr<ConfigText> makeConfigText(ConfigFormat format, const std::string& path, const std::string& text,
                                           std::string& fault);

// The formats, each in its file.
std::unique_ptr<ConfigText> makeDirectiveText(ConfigFormat format, const std::string& text, std::string& fault);
std::unique_ptr<ConfigText> makeSyslogText(const std::string& text, std::string& fault);
std::unique_ptr<ConfigText> makeXinetdText(const std::string& path, const std::string& text, std::string& fault);
std::unique_ptr<ConfigText> makePropertyListText(const std::string& text, std::string& fault);

}  // namespace ostrel
