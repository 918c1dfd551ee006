// The conversion of a launcher's values.
#include "Platform/LaunchData.h"

#include <cstring>

#include "Containers/PropertyList.h"
#include "DaemonServices/LaunchDaemons.h"

namespace ostrel {
namespace {

/// Converts one value; containers recursively, down to the depth that every reader and writer stops at.
struct Converter {
  std::size_t depth = 0;

  PlistValue convert(const LaunchData& data) const { return std::visit(*this, data.value); }
  bool isTooDeep() const { return depth >= maximumPlistDepth; }

  /// The value may be null: then there is none.
  void addMember(const std::string& key, const LaunchData& data, PlistValue& target) const {
    PlistValue value = convert(data);
    if (value.isNull())
      target.remove(key);
    else
      target.set(key, std::move(value));
  }

  PlistValue operator()(const LaunchData::Dictionary& members) const {
    if (isTooDeep()) return {};
    PlistValue dictionary = PlistValue::mutableDictionary();
    for (const auto& [key, value] : members) Converter{depth + 1}.addMember(key, value, dictionary);
    return dictionary;
  }
  PlistValue operator()(const LaunchData::Array& elements) const {
    if (isTooDeep()) return {};
    PlistValue array = PlistValue::mutableArray();
    for (const LaunchData& element : elements) array.append(Converter{depth + 1}.convert(element));
    return array;
  }
  PlistValue operator()(LaunchData::Port port) const {
    char bytes[sizeof port.number];
    std::memcpy(bytes, &port.number, sizeof bytes);
    return PlistData{{bytes, sizeof bytes}};
  }
  PlistValue operator()(LaunchData::DescriptorNumber descriptor) const { return descriptor.number; }
  PlistValue operator()(LaunchData::ErrorNumber error) const { return error.number; }
  PlistValue operator()(std::int64_t number) const { return number; }
  PlistValue operator()(double number) const { return number; }
  PlistValue operator()(bool value) const { return value; }
  PlistValue operator()(const std::string& text) const { return PlistValue::stringFromUTF8(text); }
  PlistValue operator()(const LaunchData::Opaque& opaque) const { return PlistData{opaque.bytes}; }
  PlistValue operator()(std::monostate /*unknown*/) const { return {}; }
};

}  // namespace

PlistValue _CFCopyLaunchData(const LaunchData* value) {
  return value == nullptr ? PlistValue() : Converter{}.convert(*value);
}

void _launch_dict_callback(const LaunchData* value, const char* key, PlistValue target) {
  if (value != nullptr && key != nullptr) Converter{}.addMember(key, *value, target);
}

}  // namespace ostrel
