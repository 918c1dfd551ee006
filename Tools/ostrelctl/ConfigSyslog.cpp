// The system logger's file: a facility's level and where its messages go.
#include "ConfigFiles/SyslogUtilities.h"
#include "Containers/Format.h"
#include "ostrelctl/ConfigScratch.h"
#include "ostrelctl/ConfigText.h"

namespace ostrel {
namespace {

class SyslogText final : public ConfigText {
 public:
  explicit SyslogText(std::string text) : text_(std::move(text)) {}

  std::optional<std::vector<PlistValue>> get(const ConfigEdit& place, std::string& fault) override {
    if (!isFacility(place, fault)) return std::nullopt;
    const ConfigScratch scratch(text_);
    SyslogUtilities logger(scratch.path());
    const PlistValue actions = logger.actionsForFacility(SyslogUtilities::syslogFacilityForString(place.key), 0);
    if (actions.isNull()) return std::vector<PlistValue>();
    PlistValue found = PlistValue::mutableDictionary();
    const PlistValue level = logger.levelNameForFacilityName(place.key);
    if (!level.isNull()) found.set("level", level);
    found.set("actions", actions);
    return std::vector<PlistValue>{found};
  }

  bool apply(const ConfigEdit& edit, std::string& fault) override {
    if (!isFacility(edit, fault)) return false;
    if (edit.verb != ConfigEdit::Verb::set) {
      fault = "lines of the logger's file can be added and their level set, nothing else: set the level to none";
      return false;
    }
    const std::size_t blank = edit.value.find_first_of(" \t");
    const std::size_t second = blank == std::string::npos ? blank : edit.value.find_first_not_of(" \t", blank);
    if (second == std::string::npos) {
      fault = "the value must be LEVEL ACTION, for example: info /var/log/mail.log";
      return false;
    }
    return setLevel(edit.key, edit.value.substr(0, blank), edit.value.substr(second), fault);
  }

  std::optional<std::string> text(std::string&) override { return text_; }

 private:
  static bool isFacility(const ConfigEdit& edit, std::string& fault) {
    if (edit.blocks.empty() && SyslogUtilities::syslogFacilityForString(edit.key) >= 0) return true;
    fault = edit.blocks.empty() ? format("'%s' is no facility, such as mail, daemon, local0 or *", edit.key)
                                : "the logger's file has no blocks";
    return false;
  }

  bool setLevel(const std::string& facility, const std::string& level, const std::string& action, std::string& fault) {
    const ConfigScratch scratch(text_);
    SyslogUtilities logger(scratch.path());
    if (SyslogUtilities::syslogLevelForString(level) < 0) {
      fault = format("'%s' is no level: emerg, alert, crit, err, warning, notice, info, debug, none", level);
      return false;
    }
    logger.setLevelName(level, facility, action);
    const auto change = logger.change();
    if (!change || !change->changed()) {
      fault = "the action must be one word of ASCII, for example the path of a file";
      return false;
    }
    // Each object adds its own line: one that is there already would come twice.
    const std::string added = change->newText().substr(change->newText().rfind('\n', change->newText().size() - 2) + 1);
    if (("\n" + text_).find("\n" + added) == std::string::npos) text_ = change->newText();
    return true;
  }

  std::string text_;
};

}  // namespace

std::unique_ptr<ConfigText> makeSyslogText(const std::string& text, std::string&) {
  return std::make_unique<SyslogText>(text);
}

}  // namespace ostrel
