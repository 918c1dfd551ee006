// Property lists: values by key path.
#include "Containers/Format.h"
#include "Containers/PropertyList.h"
#include "ostrelctl/ConfigText.h"
#include "ostrelctl/RequestArguments.h"

namespace ostrel {
namespace {

class PropertyListText final : public ConfigText {
 public:
  PropertyListText(PlistValue root, bool isBinary, std::string text)
      : root_(std::move(root)), isBinary_(isBinary), text_(std::move(text)) {}

  std::optional<std::vector<PlistValue>> get(const ConfigEdit& place, std::string& fault) override {
    if (!hasPlace(place, fault)) return std::nullopt;
    const PlistValue value = root_.nestedObjectForKey(place.key);
    return value.isNull() ? std::vector<PlistValue>() : std::vector<PlistValue>{value};
  }

  bool apply(const ConfigEdit& edit, std::string& fault) override {
    if (!hasPlace(edit, fault)) return false;
    if (edit.verb == ConfigEdit::Verb::set) return set(edit, fault);
    if (edit.verb != ConfigEdit::Verb::unset) {
      fault = "a property list takes only set and unset";
      return false;
    }
    if (root_.nestedObjectForKey(edit.key).isNull()) {
      fault = format("there is nothing at %s", edit.key);
      return false;
    }
    root_.removeNestedObjectForKey(edit.key);
    isChanged_ = true;
    fault = format("%s cannot be removed", edit.key);
    return root_.nestedObjectForKey(edit.key).isNull();
  }

  std::optional<std::string> text(std::string& fault) override {
    if (!isChanged_) return text_;
    fault = "the property list cannot be written in its form";
    return isBinary_ ? writeBinaryPropertyList(root_) : writeXmlPropertyList(root_);
  }

 private:
  static bool hasPlace(const ConfigEdit& edit, std::string& fault) {
    fault = "a property list's values are named by a key path alone, such as users:ada:name";
    return edit.blocks.empty() && !edit.key.empty();
  }

  bool set(const ConfigEdit& edit, std::string& fault) {
    const auto typed = requestFromWords("set", {"value:" + edit.type + "=" + edit.value}, fault);
    if (!typed) return false;
    const PlistValue value = typed->get("value");
    if (root_.nestedObjectForKey(edit.key) == value) return true;
    fault = format("%s cannot be set: what it lies in must be there", edit.key);
    isChanged_ = true;
    return root_.setNestedObject(value, edit.key, true);
  }

  PlistValue root_;
  bool isBinary_;
  bool isChanged_ = false;  // a list that says the same keeps its bytes
  std::string text_;
};

}  // namespace

std::unique_ptr<ConfigText> makePropertyListText(const std::string& text, std::string& fault) {
  PlistError error;
  PlistValue root = readPropertyList(text, PlistForm::mutableContainers, &error);
  if (!root.isDictionary()) {
    fault = root.isNull() ? format("it is no property list: %s (line %zu)", error.message, error.line)
                          : "the property list is no dictionary";
    return nullptr;
  }
  return std::make_unique<PropertyListText>(std::move(root), text.starts_with("bplist00"), text);
}

}  // namespace ostrel
