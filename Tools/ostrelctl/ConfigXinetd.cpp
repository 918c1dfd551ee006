// A service's file of the xinetd super-server.
#include "ConfigFiles/XinetdUtilities.h"
#include "Containers/Format.h"
#include "ostrelctl/ConfigScratch.h"
#include "ostrelctl/ConfigText.h"

namespace ostrel {
namespace {

class XinetdText final : public ConfigText {
 public:
  XinetdText(std::string service, std::string text) : service_(std::move(service)), text_(std::move(text)) {}

  std::optional<std::vector<PlistValue>> get(const ConfigEdit& place, std::string& fault) override {
    const auto service = serviceOf(place, fault);
    if (!service) return std::nullopt;
    const ConfigScratch scratch(text_, "/etc/xinetd.d/" + *service);
    const PlistValue value = valueIn(*service, place.key);
    return value.stringValue().empty() ? std::vector<PlistValue>() : std::vector<PlistValue>{value};
  }

  bool apply(const ConfigEdit& edit, std::string& fault) override {
    const auto service = serviceOf(edit, fault);
    if (!service) return false;
    const ConfigScratch scratch(text_, "/etc/xinetd.d/" + *service);
    XinetdUtilities xinetd(*service, "ostrelctl");
    if (edit.verb == ConfigEdit::Verb::set) {
      fault = format(
          "%s cannot be set: the service %s must be in the file, with \"{\" on a line of its own, and the "
          "value must be one line",
          edit.key, *service);
      if (!xinetd.setOrAddEntryForKey(edit.key, edit.value) || valueIn(*service, edit.key) != PlistValue(edit.value))
        return false;
    } else if (edit.verb == ConfigEdit::Verb::unset) {
      fault = format("there is no %s in the service %s", edit.key, *service);
      if (valueIn(*service, edit.key).stringValue().empty() || !xinetd.removeEntryForKey(edit.key)) return false;
    } else {
      fault = "a service's file takes only set and unset";
      return false;
    }
    text_ = scratch.text();
    return true;
  }

  std::optional<std::string> text(std::string&) override { return text_; }

 private:
  std::optional<std::string> serviceOf(const ConfigEdit& edit, std::string& fault) const {
    const std::string service = edit.blocks.empty() ? service_ : edit.blocks.back();
    const bool isName = !service.empty() && service != "." && service != ".." &&
                        service.find_first_of(std::string_view("/ \t\n\0", 5)) == std::string::npos;
    if (edit.key.empty()) fault = "say which KEY";
    if (!isName || edit.blocks.size() > 1) fault = format("'%s' cannot be the name of a service (--in)", service);
    if (!isName || edit.blocks.size() > 1 || edit.key.empty()) return std::nullopt;
    return service;
  }

  static PlistValue valueIn(const std::string& service, const std::string& key) {
    PlistValue value;
    XinetdUtilities(service, "ostrelctl").getValueForKey(key, &value);
    return value;
  }

  std::string service_;
  std::string text_;
};

}  // namespace

std::unique_ptr<ConfigText> makeXinetdText(const std::string& path, const std::string& text, std::string&) {
  return std::make_unique<XinetdText>(path.substr(path.rfind('/') + 1), text);
}

}  // namespace ostrel
