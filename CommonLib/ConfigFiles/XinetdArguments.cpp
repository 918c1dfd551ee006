#include <algorithm>

#include "ConfigFiles/XinetdUtilities.h"
#include "Containers/Format.h"
#include "Containers/Utf8.h"
#include "Platform/SystemLog.h"

namespace ostrel {
namespace {

constexpr const char* pathKey = "path";
constexpr int warningPriority = static_cast<int>(LogLevel::warning);

}  // namespace

PlistValue XinetdUtilities::argListFromDictionary(const PlistValue& dictionary) const {
  if (!dictionary.isDictionary()) return {};
  std::string arguments;
  if (const PlistValue* path = dictionary.find(pathKey); path != nullptr) arguments = format("%@ ", *path);
  for (const PlistEntry& entry : dictionary.entries()) {
    const auto& [key, value] = entry;
    if (entry.keyText() == pathKey) continue;
    if (value.isString()) {
      arguments += format("-%@ %@ ", key, value);
    } else if (value.isNumber()) {
      if (value.boolValue()) arguments += format("-%@ ", key);
    } else if (value.isArray()) {
      for (const PlistValue& element : value.elements()) arguments += format("-%@ %@ ", key, element);
    } else {
      fLogger->messageWithPriority(warningPriority, "Unrecognized object type for service '%@' key '%@'", fServiceName,
                                   key);
    }
  }
  return arguments;
}

PlistValue XinetdUtilities::dictionaryFromArgList(const PlistValue& argList) const {
  if (!argList.isString()) return {};
  PlistValue dictionary = PlistValue::mutableDictionary();
  std::string_view rest = argList.stringValue();
  // What stands up to the next blank; nothing when that is the first.
  const auto takeUpToBlank = [&] {
    const std::string_view taken = rest.substr(0, rest.find_first_of(fWhiteSpace));
    rest.remove_prefix(taken.size());
    return taken;
  };
  if (rest.starts_with('/')) dictionary.set(pathKey, takeUpToBlank());
  for (;;) {
    const std::size_t dash = rest.find('-');
    if (dash == std::string_view::npos) return dictionary;
    rest.remove_prefix(dash + 1);
    const std::string_view word = takeUpToBlank();
    const std::size_t letter = leadingCharacterLength(word);
    if (word.size() > letter) {
      storeOption(dictionary, argList, word.substr(0, letter), word.substr(letter));
      continue;
    }
    rest.remove_prefix(std::min(rest.find_first_not_of(fWhiteSpace), rest.size()));
    const bool hasValue = !rest.empty() && !rest.starts_with('-');
    storeOption(dictionary, argList, word, hasValue ? PlistValue(takeUpToBlank()) : PlistValue(true));
  }
}

void XinetdUtilities::storeOption(PlistValue options, const PlistValue& argList, std::string_view option,
                                  const PlistValue& value) const {
  if (option.empty()) {
    fLogger->messageWithPriority(warningPriority, "Unexpected arglist '%@' for service '%@' key='%@' value='%@'",
                                 argList, fServiceName, option, value);
    return;
  }
  PlistValue present = options.get(option);
  if (present.isArray())
    present.append(value);
  else
    options.set(option, present.isString() ? PlistValue::mutableArrayOf({present, value}) : value);
}

}  // namespace ostrel
