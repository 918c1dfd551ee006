#include "PluginFramework/Internal/ModuleException.h"

#include <cxxabi.h>

#include <cstdlib>
#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <typeinfo>

#include "Containers/Format.h"

namespace ostrel::detail {
namespace {

PlistValue validText(std::string_view words) {
  PlistValue text = PlistValue::stringFromUTF8(words);
  if (!text.isNull()) return text;
  std::string ascii(words);
  for (char& c : ascii)
    if (static_cast<unsigned char>(c) >= 0x80) c = '?';
  return ascii;
}

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
    return validText(exception.what());
  } catch (const std::string& words) {
    return validText(words);
  } catch (const char* words) {
    return words == nullptr ? PlistValue() : validText(words);
  } catch (const PlistValue& value) {
    return value.isNull() ? PlistValue() : validText(value.description());
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    return currentTypeName();
  }
}

}  // namespace ostrel::detail
