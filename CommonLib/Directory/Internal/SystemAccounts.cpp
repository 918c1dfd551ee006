#include "Directory/Internal/SystemAccounts.h"

#include <algorithm>
#include <array>
#include <optional>

#include "Containers/LeadingInteger.h"
#include "Directory/Internal/RecordDictionaries.h"

namespace ostrel::detail {
namespace {

constexpr int firstSiteUser = 500;
constexpr int lastSystemGroup = 499;
constexpr int undecidedGroup = 99;
constexpr std::array siteGroups = {10, 12, 16, 20, 50, 61, 62, 80};

std::string_view firstText(const PlistValue& attributes, std::string_view name) {
  const PlistValue* values = attributes.find(name);
  return values == nullptr || values->elements().empty() ? std::string_view() : values->elements()[0].stringValue();
}

std::optional<int> firstNumber(const PlistValue& attributes, std::string_view name) {
  if (!attributes.contains(name)) return std::nullopt;
  return leadingInt(firstText(attributes, name));
}

}  // namespace

bool HiddenAccounts::hide(std::string_view type, const PlistValue& attributes) const {
  const std::string_view name = firstText(attributes, directoryName::recordName);
  bool hidden = false;
  if (users) {
    const auto id = firstNumber(attributes, directoryName::uniqueID);
    hidden = (id && *id < firstSiteUser) || name.starts_with("netboot");
  }
  if (groups && type != directoryName::users && type != userAliases) {
    const auto id = firstNumber(attributes, directoryName::primaryGroupID);
    if (id && *id <= lastSystemGroup && *id != undecidedGroup)
      hidden = std::ranges::find(siteGroups, *id) == siteGroups.end();
    if (name.starts_with("netboot") || name.starts_with("com.brantle.")) hidden = true;
  }
  return hidden;
}

}  // namespace ostrel::detail
