#include <cstddef>
#include <cstdint>

#include "PlistInvariants.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using namespace ostrel;
  const PlistValue value = fuzz::readBothForms(readBinaryPropertyList, {reinterpret_cast<const char*>(bytes), size});
  if (value.isNull()) return 0;
  fuzz::requireBinaryRoundTrip(value);
  // XML cannot carry every text and every date, but what it takes comes back.
  if (const auto xml = writeXmlPropertyList(value))
    fuzz::require(readXmlPropertyList(*xml) == value, "XML reads back equal");
  return 0;
}
