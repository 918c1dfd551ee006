#include "PluginFramework/Internal/ModuleException.h"

#include <cxxabi.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <typeinfo>

#include "Containers/Format.h"

namespace ostrel::detail {
namespace {

bool isControl(char c) { return static_cast<unsigned char>(c) < ' ' && c != '\t' && c != '\n' && c != '\r'; }

/// With a "?" for what a response could not carry: XML has no form for control characters.
PlistValue validText(std::string_view words) {
  std::string text(words);
  std::ranges::replace_if(text, isControl, '?');
  PlistValue valid = PlistValue::stringFromUTF8(text);
  if (!valid.isNull()) return valid;
  std::ranges::replace_if(
      text, [](char c) { return static_cast<unsigned char>(c) >= 0x80; }, '?');
  return text;
}

PlistValue textOrNull(const char* words) { return words == nullptr ? PlistValue() : validText(words); }

PlistValue currentTypeName() {
  const std::type_info* type = abi::__cxa_current_exception_type();
  if (type == nullptr) return "foreign exception";
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> name(abi::__cxa_demangle(type->name(), nullptr, nullptr, &status),
                                                         &std::free);
  return format("exception of type %s", name != nullptr ? name.get() : type->name());
}

}  // namespace

PlistValue describeCurrentException() {
  try {
    throw;
  } catch (const std::exception& exception) {
    return textOrNull(exception.what());  // some answer null
  } catch (const std::string& words) {
    return validText(words);
  } catch (const char* words) {
    return textOrNull(words);
  } catch (const PlistValue& value) {
    return value.isNull() ? PlistValue() : validText(value.description());
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    return currentTypeName();
  }
}

}  // namespace ostrel::detail
