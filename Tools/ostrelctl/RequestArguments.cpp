#include "ostrelctl/RequestArguments.h"

#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <string_view>
#include <utility>

#include "Containers/Base64.h"
#include "Containers/Format.h"
#include "Platform/Files.h"
#include "ostrelctl/JsonForm.h"
#include "ostrelctl/TextForm.h"

namespace ostrel {
namespace {

/// One word, taken apart.
struct Argument {
  std::string key;
  std::string type;
  bool fromFile = false;
  std::string text;
};

std::optional<Argument> argumentFrom(const std::string& word, std::string& fault) {
  const std::size_t end = word.find_first_of("=@");
  Argument argument;
  argument.key = word.substr(0, end);
  argument.type = "text";
  const std::size_t colon = argument.key.rfind(':');
  if (colon != std::string::npos) {
    argument.type = argument.key.substr(colon + 1);
    argument.key.erase(colon);
  }
  if (end == std::string::npos || argument.key.empty()) {
    fault = format("'%s' is not KEY[:TYPE]=VALUE or KEY[:TYPE]@FILE", word);
    return std::nullopt;
  }
  argument.fromFile = word[end] == '@';
  argument.text = word.substr(end + 1);
  if (!argument.fromFile) return argument;
  auto content = contentOf(argument.text, fault);
  if (!content) return std::nullopt;
  argument.text = std::move(*content);
  return argument;
}

template <class Number>
PlistValue numberFrom(std::string_view text) {
  Number number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() && !text.empty() ? PlistValue(number) : PlistValue();
}

PlistValue integerFrom(std::string_view text) {
  PlistValue number = numberFrom<std::int64_t>(text);
  return number.isNull() ? numberFrom<std::uint64_t>(text) : number;
}

/// Null when the text is not of the type. A file's last line end does not count, except in text and data.
PlistValue valueFrom(const Argument& argument, std::string& fault) {
  std::string_view text = argument.text;
  if (argument.type == "text") return PlistValue::stringFromUTF8(text);
  if (argument.type == "data" && argument.fromFile) return PlistData{text};
  if (argument.fromFile && text.ends_with('\n')) text.remove_suffix(1);
  if (argument.type == "int") return integerFrom(text);
  if (argument.type == "real") return numberFrom<double>(text);
  if (argument.type == "bool" && (text == "true" || text == "false")) return text == "true";
  if (argument.type == "date") {
    const auto date = dateFromText(text);
    return date ? PlistValue(*date) : PlistValue();
  }
  if (argument.type == "data") {
    const auto bytes = decodeBase64(text);
    return bytes ? PlistValue(PlistData{*bytes}) : PlistValue();
  }
  if (argument.type == "json") return valueFromJson(text, fault).value_or(PlistValue());
  return {};
}

bool isType(const std::string& type) {
  for (const char* known : {"text", "int", "real", "bool", "date", "data", "json"}) {
    if (type == known) return true;
  }
  return false;
}

}  // namespace

std::optional<std::string> contentOf(const std::string& file, std::string& fault) {
  auto content = file == "-" ? readToEnd(STDIN_FILENO) : readWholeFile(file);
  if (!content) fault = format("cannot read %s: %s", file == "-" ? "standard input" : file, std::strerror(errno));
  return content;
}

std::optional<PlistValue> requestFromWords(const std::string& command, const std::vector<std::string>& words,
                                           std::string& fault) {
  PlistValue request = PlistValue::mutableDictionaryOf({{"command", command}});
  for (const std::string& word : words) {
    const auto argument = argumentFrom(word, fault);
    if (!argument) return std::nullopt;
    if (!isType(argument->type)) {
      fault = format("'%s' is no type: text, int, real, bool, date, data or json", argument->type);
      return std::nullopt;
    }
    if (request.contains(argument->key)) {
      fault = format("'%s' is given twice", argument->key);
      return std::nullopt;
    }
    std::string reason;
    PlistValue value = valueFrom(*argument, reason);
    if (value.isNull()) {
      fault = format("the value of '%s' is not of the type %s%s", argument->key, argument->type,
                     reason.empty() ? "" : ": " + reason);
      return std::nullopt;
    }
    request.set(argument->key, std::move(value));
  }
  return request;
}

}  // namespace ostrel
