// A setting's text: a line for its type, then the text.
#include <cmath>
#include <cstddef>
#include <cstdint>

#include "ConfigFiles/ConfigurationParser.h"
#include "EditorInputs.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using namespace ostrel;
  fuzz::NoLog::install();
  static ConfigurationParser parser{PlistValue()};
  std::string_view text(reinterpret_cast<const char*>(bytes), size);
  const std::string_view type = fuzz::takeLine(text);
  parser.setTypesDictionary(PlistValue::dictionaryOf({{"key", PlistValue(type)}}));
  const PlistValue value = parser.objectForKey("key", text);
  const PlistValue back = parser.stringForKey("key", value);
  fuzz::require(back.isString(), "every value has a text");
  if (type == "Integer" || type == "Real") {
    fuzz::require(value.isNumber() && value.isReal() == (type == "Real"), "numbers are of their type");
    fuzz::require(std::isfinite(value.doubleValue()), "and finite");
    fuzz::require(parser.objectForKey("key", back) == value, "and read back");
  } else if (value.isBoolean()) {
    const bool hasDistinctWords = type == "Boolean" || type == "Boolean on off";
    fuzz::require(!hasDistinctWords || parser.objectForKey("key", back) == value, "booleans read back");
  } else if (value.isArray()) {
    fuzz::require(type.starts_with("Array ") && value.count() > 0, "arrays are never empty");
    for (const PlistValue& element : value.elements())
      fuzz::require(element.isString() || element.isNumber(), "their elements are simple");
  }
  return 0;
}
