#include <cstddef>
#include <cstdint>

#include "PlistInvariants.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using namespace ostrel;
  const PlistValue value = fuzz::readBothForms(readStringsFile, {reinterpret_cast<const char*>(bytes), size});
  if (value.isNull()) return 0;
  fuzz::require(value.isDictionary(), "a strings file is a dictionary");
  for (const PlistEntry& entry : value.entries()) fuzz::require(entry.value.isString(), "its values are text");
  return 0;
}
