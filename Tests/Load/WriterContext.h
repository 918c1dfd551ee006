// What the writer outside the daemon keeps in a module's context.
#pragma once

#include <cstdint>
#include <string>

#include "Containers/PlistValue.h"

namespace ostrel::load {

/// Goes with the number, so that half a write shows.
inline std::string paddingFor(std::int64_t number) {
  return std::string(static_cast<std::size_t>(number * 37 % 5000), static_cast<char>('a' + number % 26));
}

inline void write(PlistValue context, std::int64_t number) {
  context.set("written", number);
  context.set("padding", paddingFor(number));
  context.set("contextDirty", true);
}

inline bool belongsToWriter(const PlistValue& context) { return context.contains("written"); }
inline std::int64_t writtenNumber(const PlistValue& context) { return context.get("written").int64Value(); }
inline bool isWhole(const PlistValue& context) {
  return belongsToWriter(context) && context.get("padding").stringValue() == paddingFor(writtenNumber(context));
}

}  // namespace ostrel::load
