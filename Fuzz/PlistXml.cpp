#include <cstddef>
#include <cstdint>

#include "PlistInvariants.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using namespace ostrel;
  const PlistValue value = fuzz::readBothForms(readXmlPropertyList, {reinterpret_cast<const char*>(bytes), size});
  if (value.isNull()) return 0;
  const auto written = writeXmlPropertyList(value);
  fuzz::require(written.has_value(), "what was read from XML can be written");
  const PlistValue again = readXmlPropertyList(*written);
  fuzz::require(again == value, "what was written reads back equal");
  fuzz::require(writeXmlPropertyList(again) == written, "equal values of one order are written alike");
  fuzz::requireBinaryRoundTrip(value);
  return 0;
}
