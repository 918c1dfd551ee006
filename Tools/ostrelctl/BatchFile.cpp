#include "ostrelctl/BatchFile.h"

#include <sstream>
#include <vector>

#include "Containers/Format.h"
#include "Containers/PropertyList.h"
#include "ostrelctl/JsonForm.h"
#include "ostrelctl/RequestArguments.h"

namespace ostrel {
namespace {

constexpr const char* blanks = " \t\r";

/// The words of one line; absent when a quote is left open.
std::optional<std::vector<std::string>> wordsOf(const std::string& line, std::string& fault) {
  std::vector<std::string> words;
  std::string word;
  bool isInWord = false;
  char quote = '\0';
  for (std::size_t at = 0; at < line.size(); ++at) {
    const char c = line[at];
    if (quote == '\0' && std::string_view(blanks).find(c) != std::string_view::npos) {
      if (isInWord) words.push_back(std::move(word));
      word.clear();
      isInWord = false;
    } else if (c == '\\' && quote != '\'' && at + 1 < line.size()) {
      word += line[++at];
      isInWord = true;
    } else if (quote == '\0' && (c == '\'' || c == '"')) {
      quote = c;
      isInWord = true;
    } else if (quote != '\0' && c == quote) {
      quote = '\0';
    } else {
      word += c;
      isInWord = true;
    }
  }
  if (quote != '\0') {
    fault = "a quote is left open";
    return std::nullopt;
  }
  if (isInWord) words.push_back(std::move(word));
  return words;
}

std::optional<PlistValue> memberFromLine(const std::string& line, std::string& fault) {
  const auto words = wordsOf(line, fault);
  if (!words) return std::nullopt;
  if (words->size() < 2) {
    fault = "a line is MODULE COMMAND [ARGUMENT...]";
    return std::nullopt;
  }
  const auto request = requestFromWords((*words)[1], {words->begin() + 2, words->end()}, fault);
  if (!request) return std::nullopt;
  return PlistValue::dictionaryOf({{"name", words->front()}, {"request", *request}});
}

std::optional<PlistValue> requestsFromLines(const std::string& text, std::string& fault) {
  PlistValue requests = PlistValue::mutableArray();
  std::istringstream lines(text);
  std::string line;
  for (int number = 1; std::getline(lines, line); ++number) {
    const std::size_t start = line.find_first_not_of(blanks);
    if (start == std::string::npos || line[start] == '#') continue;
    const auto member = memberFromLine(line, fault);
    if (!member) {
      fault = format("line %d: %s", number, fault);
      return std::nullopt;
    }
    requests.append(*member);
  }
  return requests;
}

/// The array in any of the forms that a document may have.
std::optional<PlistValue> requestsIn(const PlistValue& document, std::string& fault) {
  PlistValue requests = document;
  if (document.contains("requestsArray")) {
    requests = document.get("requestsArray");
  } else if (document.isDictionary()) {
    requests = PlistValue::arrayOf({document});
  }
  bool isComplete = requests.isArray();
  for (const PlistValue& member : requests.elements()) {
    isComplete = isComplete && member.get("name").isString() && member.get("request").get("command").isString();
  }
  if (isComplete) return requests;
  fault = "a batch is an array of {\"name\": MODULE, \"request\": {\"command\": COMMAND, ...}}";
  return std::nullopt;
}

}  // namespace

std::optional<PlistValue> requestsFromText(const std::string& text, std::string& fault) {
  const std::size_t start = text.find_first_not_of(" \t\r\n");
  const std::string_view body = start == std::string::npos ? "" : std::string_view(text).substr(start);
  if (body.starts_with('[') || body.starts_with('{')) {
    const auto document = valueFromJson(body, fault);
    if (document) return requestsIn(*document, fault);
    fault = "not JSON: " + fault;
    return std::nullopt;
  }
  if (body.starts_with('<') || body.starts_with("bplist")) return requestsIn(readPropertyList(body), fault);
  return requestsFromLines(text, fault);
}

}  // namespace ostrel
