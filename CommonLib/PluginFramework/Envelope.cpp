#include "PluginFramework/Envelope.h"

#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>

#include "Containers/Format.h"
#include "Containers/PropertyList.h"
#include "Platform/UserDatabase.h"

namespace ostrel {
namespace {

constexpr std::string_view userKey = "_user_";

/// What is sent when no proper document can be made. The version 0.9 is meant: it tells this text from written lists.
PlistValue fallbackDocument(const char* errorCode) {
  const std::string text = format(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
      "<plist version=\"0.9\">\n"
      "<dict>\n"
      "<key>error</key>\n"
      "<string>%s</string>\n"
      "</dict>\n"
      "</plist>",
      errorCode);
  return PlistData{text};
}

/// The dictionary in a body: empty for an empty body, null when there is none.
PlistValue dictionaryIn(const PlistValue& data) {
  if (!data.isData()) return nullptr;
  if (data.dataBytes().empty()) return PlistValue::dictionaryOf({});
  const PlistValue parsed = readPropertyList(data.dataBytes());
  return parsed.isDictionary() ? parsed : PlistValue();
}

bool setUserPart(PlistValue& dict, std::string_view sessionId) {
  return dict.set(userKey, PlistValue::stringFromUTF8(sessionId.substr(0, sessionId.find('@'))));
}

}  // namespace

bool convert_request_data_to_dict(const PlistValue& data, PlistValue& outDictionary, PlistValue& outErrorData) {
  outDictionary = dictionaryIn(data);
  const bool converted = !outDictionary.isNull();
  outErrorData = converted ? PlistValue() : fallbackDocument(errors::cannotParseXmlRequest);
  return converted;
}

bool convert_response_data_to_dict(const PlistValue& data, PlistValue& outDictionary) {
  if (data.isNull()) {
    outDictionary = PlistValue::dictionaryOf({{"error", errors::unexpectedCommand}});
    return false;
  }
  outDictionary = dictionaryIn(data);
  if (!outDictionary.isNull()) return true;
  outDictionary = PlistValue::dictionaryOf({{"error", errors::cannotParseXmlResponse}});
  return false;
}

bool convert_response_dict_to_data(const PlistValue& dict, PlistValue& outData) {
  if (dict.isNull()) {
    outData = fallbackDocument(errors::unexpectedCommand);
    return false;
  }
  const std::optional<std::string> document = writeXmlPropertyList(dict);
  outData = document ? PlistValue(PlistData{*document}) : fallbackDocument(errors::cannotCreateXmlResponse);
  return document.has_value();
}

bool add_user_to_dict(PlistValue dict, const PlistValue& sessionId) {
  if (!sessionId.isNull()) return sessionId.isString() && setUserPart(dict, sessionId.stringValue());
  const char* user = std::getenv("REMOTE_USER");
  if (user == nullptr) return false;
  if (std::string_view(user) != "<USE_SESSION_ID>") return dict.set(userKey, PlistValue::stringFromUTF8(user));
  const char* header = std::getenv("HTTP_OSTRELSESSIONID");
  return header != nullptr && setUserPart(dict, header);
}

bool remove_user_from_dict(PlistValue dict) { return dict.get(userKey).isString() && dict.remove(userKey); }

PlistValue do_get_user(const PlistValue& dict, uid_t* outUid, gid_t* outGid) {
  if (outUid != nullptr) *outUid = static_cast<uid_t>(-1);
  if (outGid != nullptr) *outGid = static_cast<gid_t>(-1);
  PlistValue name = get_str_value_for_key(dict, userKey);
  if (name.isNull() || (outUid == nullptr && outGid == nullptr)) return name;
  if (const auto user = UserDatabase::current().userNamed(std::string(std::string_view(name.stringValue())))) {
    if (outUid != nullptr) *outUid = user->uid;
    if (outGid != nullptr) *outGid = user->gid;
  }
  return name;
}

PlistValue get_str_value_for_key(const PlistValue& dict, std::string_view key) {
  PlistValue value = dict.get(key);
  return value.isString() ? value : PlistValue();
}

PlistValue findSubDictionary(const PlistValue& value, std::string_view key, const PlistValue& collection) {
  PlistValue match;
  for (const PlistValue& member : collection.elements()) {
    const PlistValue* entry = member.find(key);
    if (entry != nullptr && *entry == value) match = member;  // the last one wins
  }
  return match.immutableCopy();
}

PlistValue add_key_value_to_dict(const PlistValue& dict, const PlistValue& value, std::string_view key) {
  if (dict.isNull() || value.isNull()) return dict;
  PlistValue copy = dict.mutableCopy();
  copy.set(key, value);
  return copy.immutableCopy();
}

PlistValue remove_key_from_dict(const PlistValue& dict, std::string_view key) {
  PlistValue copy = dict.mutableCopy();
  copy.remove(key);
  return copy.immutableCopy();
}

std::uint32_t* do_convert_int_nsarray2carray(const PlistValue& array) {
  const auto count = static_cast<std::uint32_t>(array.elements().size());
  if (count == 0) return nullptr;
  auto* numbers = static_cast<std::uint32_t*>(std::malloc(count * sizeof(std::uint32_t)));
  if (numbers == nullptr) return nullptr;
  for (std::uint32_t i = 0; i < count; ++i) {
    const PlistValue& member = array.elements()[i];
    if (member.isNumber()) numbers[i] = static_cast<std::uint32_t>(member.uint64Value());
  }
  return numbers;
}

int do_output_version() {
  std::fputs(format("Version: %s, Built: %s %s\n", "N/A", __DATE__, __TIME__).c_str(), stdout);
  return 0;
}

int do_output_context(const PlistValue& context) {
  if (context.isNull()) return 0;
  std::fputs(format("Context dictionary: %s\n", context.description()).c_str(), stdout);
  return 0;
}

int do_output_history() {
  std::fputs("No longer supported, use show_context instead\n", stdout);
  return 0;
}

}  // namespace ostrel
