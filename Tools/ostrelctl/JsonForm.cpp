#include "ostrelctl/JsonForm.h"

#include <cmath>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "Containers/Base64.h"
#include "Containers/PropertyList.h"
#include "ostrelctl/TextForm.h"

namespace ostrel {
namespace {

using Json = nlohmann::ordered_json;

Json jsonOf(const PlistValue& value) {
  switch (value.kind()) {
    case PlistValue::Kind::null:
      return nullptr;
    case PlistValue::Kind::boolean:
      return value.boolValue();
    case PlistValue::Kind::string:
      return value.stringValue();
    case PlistValue::Kind::date:
      return dateText(value.dateValue());
    case PlistValue::Kind::data:
      return encodeBase64(value.dataBytes());
    case PlistValue::Kind::number:
      break;
    case PlistValue::Kind::array: {
      Json array = Json::array();
      for (const PlistValue& element : value.elements()) array.push_back(jsonOf(element));
      return array;
    }
    case PlistValue::Kind::dictionary: {
      Json object = Json::object();
      for (const PlistEntry& entry : value.entries()) object[std::string(entry.keyText())] = jsonOf(entry.value);
      return object;
    }
  }
  if (value.isReal()) {
    if (std::isfinite(value.doubleValue())) return value.doubleValue();
    return value.description();
  }
  if (value.uint64Value() > INT64_MAX && value.doubleValue() > 0) return value.uint64Value();
  return value.int64Value();
}

/// Builds the value while the text is read, so that its depth is bounded and repeated names are seen.
class Reader final : public nlohmann::json_sax<Json> {
 public:
  PlistValue takeResult() { return std::move(result_); }
  const std::string& fault() const { return fault_; }

  bool null() override { return fail("it holds a null, which property lists do not have"); }
  bool boolean(bool value) override { return add(value); }
  bool number_integer(number_integer_t value) override { return add(value); }
  bool number_unsigned(number_unsigned_t value) override { return add(value); }
  bool number_float(number_float_t value, const std::string&) override { return add(value); }
  bool string(std::string& value) override { return add(value); }
  bool binary(binary_t&) override { return false; }
  bool start_object(std::size_t) override { return open(PlistValue::mutableDictionary()); }
  bool start_array(std::size_t) override { return open(PlistValue::mutableArray()); }
  bool end_object() override { return close(); }
  bool end_array() override { return close(); }
  bool key(std::string& name) override {
    if (open_.back().container.contains(name)) return fail("it repeats the name \"" + name + "\"");
    open_.back().key = std::move(name);
    return true;
  }
  bool parse_error(std::size_t position, const std::string&, const nlohmann::detail::exception&) override {
    return fail("it is not JSON at byte " + std::to_string(position));
  }

 private:
  struct Open {
    PlistValue container;
    std::string key;
  };

  bool fail(std::string fault) {
    fault_ = std::move(fault);
    return false;
  }
  bool open(PlistValue container) {
    if (open_.size() >= maximumPlistDepth) return fail("it nests too deep");
    open_.push_back({std::move(container), {}});
    return true;
  }
  bool close() {
    PlistValue whole = std::move(open_.back().container);
    open_.pop_back();
    return add(std::move(whole));
  }
  bool add(PlistValue value) {
    if (open_.empty()) {
      result_ = std::move(value);
    } else if (open_.back().container.isArray()) {
      open_.back().container.append(std::move(value));
    } else {
      open_.back().container.set(open_.back().key, std::move(value));
    }
    return true;
  }

  std::vector<Open> open_;
  PlistValue result_;
  std::string fault_;
};

}  // namespace

std::string jsonText(const PlistValue& value) {
  return jsonOf(value).dump(2, ' ', false, Json::error_handler_t::replace) + '\n';
}

std::optional<PlistValue> valueFromJson(std::string_view text, std::string& fault) {
  Reader reader;
  if (Json::sax_parse(text, &reader)) return reader.takeResult();
  fault = reader.fault();
  return std::nullopt;
}

}  // namespace ostrel
