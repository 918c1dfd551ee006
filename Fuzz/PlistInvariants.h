// What must hold for every value that a reader of foreign bytes accepts.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "Containers/PropertyList.h"
#include "Containers/Utf8.h"

namespace ostrel::fuzz {

inline void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "invariant broken: %s\n", what);
  std::abort();
}

inline void requireWellFormed(const PlistValue& value, bool isMutable) {
  require(!value.isNull(), "no value holds null");
  if (value.isString()) require(isValidUtf8(value.stringValue()), "text is UTF-8");
  if (value.isDictionary() || value.isArray())
    require(value.isMutable() == isMutable, "containers have the asked form");
  for (const PlistEntry& entry : value.entries()) {
    require(entry.key.isString() && isValidUtf8(entry.keyText()), "keys are UTF-8 text");
    require(value.find(entry.keyText()) == &entry.value, "every key finds its own value");
    requireWellFormed(entry.value, isMutable);
  }
  for (const PlistValue& element : value.elements()) requireWellFormed(element, isMutable);
}

using Reader = PlistValue (*)(std::string_view, PlistForm, PlistError*);

/// Reads in both forms and checks the answers. Returns the value, null when it was refused.
inline PlistValue readBothForms(Reader read, std::string_view bytes) {
  PlistError error;
  PlistValue value = read(bytes, PlistForm::immutableContainers, &error);
  const PlistValue changeable = read(bytes, PlistForm::mutableContainers, nullptr);
  require(value == changeable, "both forms read alike");
  if (value.isNull()) {
    require(!error.message.empty() && error.offset <= bytes.size(), "a refusal says what and where");
    return value;
  }
  requireWellFormed(value, false);
  requireWellFormed(changeable, true);
  return value;
}

inline void requireBinaryRoundTrip(const PlistValue& value) {
  const auto binary = writeBinaryPropertyList(value);
  require(binary.has_value(), "what was read can be archived");
  const PlistValue again = readBinaryPropertyList(*binary);
  require(!again.isNull(), "an archive can be read");
  require(writeBinaryPropertyList(again) == binary, "an archive reads back as what was written");
}

}  // namespace ostrel::fuzz
