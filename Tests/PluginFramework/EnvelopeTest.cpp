#include "PluginFramework/Envelope.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/UserDatabase.h"

namespace ostrel {
namespace {

PlistValue bodyOf(std::string_view bytes) { return PlistData{bytes}; }
PlistValue error(const char* code) { return PlistValue::dictionaryOf({{"error", code}}); }

std::string fallback(const std::string& code) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
         "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n<plist version=\"0.9\">\n<dict>\n<key>error</key>\n"
         "<string>" +
         code + "</string>\n</dict>\n</plist>";
}

TEST(Envelope, ReadsBodies) {
  const PlistValue request = PlistValue::dictionaryOf({{"command", "getState"}});
  const struct {
    PlistValue body;
    PlistValue expected;  // null: refused
  } cases[] = {
      {bodyOf(""), PlistValue::dictionaryOf({})},
      {bodyOf("<plist version=\"1.0\"><dict><key>command</key><string>getState</string></dict></plist>"), request},
      {bodyOf("<plist version=\"1.0\"><array/></plist>"), nullptr},
      {bodyOf("<plist version=\"1.0\"><dict><key>command</key></dict></plist>"), nullptr},
      {bodyOf("command=getState"), nullptr},
      {"<plist version=\"1.0\"><dict/></plist>", nullptr},  // text is no body
      {nullptr, nullptr},
  };
  for (const auto& [body, expected] : cases) {
    PlistValue dictionary = "left over";
    PlistValue document = "left over";
    EXPECT_EQ(convert_request_data_to_dict(body, dictionary, document), !expected.isNull()) << body.description();
    EXPECT_EQ(dictionary, expected);
    EXPECT_FALSE(dictionary.isMutable());
    EXPECT_EQ(document, expected.isNull() ? bodyOf(fallback("CANNOT_PARSE_XML_REQUEST_ERR")) : PlistValue());

    EXPECT_EQ(convert_response_data_to_dict(body, dictionary), !expected.isNull()) << body.description();
    const char* code = body.isNull() ? "UNEXPECTED_COMMAND" : "CANNOT_PARSE_XML_RESPONSE_ERR";
    EXPECT_EQ(dictionary, expected.isNull() ? error(code) : expected);
  }
}

TEST(Envelope, WritesResponses) {
  PlistValue document;
  EXPECT_TRUE(convert_response_dict_to_data(error("UNEXPECTED_COMMAND"), document));
  PlistValue readBack;
  EXPECT_TRUE(convert_response_data_to_dict(document, readBack));
  EXPECT_EQ(readBack, error("UNEXPECTED_COMMAND"));

  EXPECT_FALSE(convert_response_dict_to_data(nullptr, document));
  EXPECT_EQ(document, bodyOf(fallback("UNEXPECTED_COMMAND")));
  EXPECT_FALSE(convert_response_dict_to_data(PlistValue::dictionaryOf({{"bell", "\a"}}), document));
  EXPECT_EQ(document, bodyOf(fallback("CANNOT_CREATE_XML_RESPONSE_ERR")));
}

TEST(Envelope, FindsTheRequestingUser) {
  const struct {
    PlistValue sessionId;
    const char* remoteUser;
    const char* header;
    PlistValue user;  // null: none is set
  } cases[] = {
      {"alice@4F2A", "bob", nullptr, "alice"},
      {"alice", nullptr, nullptr, "alice"},
      {"@4F2A", "bob", nullptr, ""},
      {42, "bob", nullptr, nullptr},
      {nullptr, "bob@host", nullptr, "bob@host"},
      {nullptr, nullptr, "carol@77", nullptr},
      {nullptr, "<USE_SESSION_ID>", "carol@77@x", "carol"},
      {nullptr, "<USE_SESSION_ID>", nullptr, nullptr},
      {nullptr, "<use_session_id>", "carol@77", "<use_session_id>"},
  };
  const auto setVariable = [](const char* name, const char* value) {
    value == nullptr ? unsetenv(name) : setenv(name, value, 1);
  };
  for (const auto& [sessionId, remoteUser, header, user] : cases) {
    setVariable("REMOTE_USER", remoteUser);
    setVariable("HTTP_OSTRELSESSIONID", header);
    const PlistValue dictionary = PlistValue::mutableDictionary();
    EXPECT_EQ(add_user_to_dict(dictionary, sessionId), !user.isNull()) << sessionId.description();
    EXPECT_EQ(dictionary.get("_user_"), user);
  }
  setVariable("REMOTE_USER", nullptr);
  setVariable("HTTP_OSTRELSESSIONID", nullptr);
  EXPECT_FALSE(add_user_to_dict(PlistValue::dictionaryOf({}), "alice@1")) << "an immutable dictionary takes none";

  const PlistValue dictionary = PlistValue::mutableDictionaryOf({{"_user_", 7}});
  EXPECT_FALSE(remove_user_from_dict(dictionary));
  EXPECT_TRUE(dictionary.contains("_user_")) << "what is no string stays";
  EXPECT_TRUE(add_user_to_dict(dictionary, "dave@1"));
  EXPECT_TRUE(remove_user_from_dict(dictionary));
  EXPECT_FALSE(remove_user_from_dict(dictionary));
}

class OneUser final : public UserDatabase {
 public:
  std::optional<UserEntry> userNamed(const std::string& name) override {
    if (name != "alice") return std::nullopt;
    return UserEntry{name, 501, 20, {}, {}, {}};
  }
  std::optional<UserEntry> userWithId(uid_t) override { return std::nullopt; }
  std::optional<GroupEntry> groupNamed(const std::string&) override { return std::nullopt; }
  std::optional<GroupEntry> groupWithId(gid_t) override { return std::nullopt; }
  std::vector<gid_t> groupsOfUser(const std::string&) override { return {}; }
};

TEST(Envelope, LooksTheUserUp) {
  OneUser users;
  const ScopedOverride<UserDatabase> override(users);
  const auto none = static_cast<uid_t>(-1);
  const struct {
    PlistValue user;
    PlistValue name;
    uid_t uid;
    gid_t gid;
  } cases[] = {{"alice", "alice", 501, 20}, {"eve", "eve", none, none}, {501, nullptr, none, none}};
  for (const auto& [user, name, expectedUid, expectedGid] : cases) {
    uid_t uid = 1;
    gid_t gid = 1;
    EXPECT_EQ(do_get_user(PlistValue::dictionaryOf({{"_user_", user}}), &uid, &gid), name);
    EXPECT_EQ(uid, expectedUid);
    EXPECT_EQ(gid, expectedGid);
  }
  EXPECT_EQ(do_get_user(PlistValue::dictionaryOf({{"_user_", "alice"}})), PlistValue("alice"));
  EXPECT_TRUE(do_get_user(nullptr).isNull());
}

TEST(Envelope, HelpsWithDictionaries) {
  const PlistValue first = PlistValue::dictionaryOf({{"name", "a"}, {"v", 1}});
  const PlistValue second = PlistValue::dictionaryOf({{"name", "a"}, {"v", 2}});
  const PlistValue collection = PlistValue::arrayOf({first, "a", second, PlistValue::dictionaryOf({{"name", "b"}})});
  EXPECT_EQ(findSubDictionary("a", "name", collection), second) << "the last match wins";
  EXPECT_TRUE(findSubDictionary("c", "name", collection).isNull());
  EXPECT_TRUE(findSubDictionary("a", "name", nullptr).isNull());

  EXPECT_EQ(get_str_value_for_key(first, "name"), PlistValue("a"));
  EXPECT_TRUE(get_str_value_for_key(first, "v").isNull());
  EXPECT_TRUE(get_str_value_for_key(nullptr, "v").isNull());

  const PlistValue source = PlistValue::mutableDictionaryOf({{"a", 1}});
  const PlistValue larger = add_key_value_to_dict(source, 2, "b");
  EXPECT_EQ(larger, PlistValue::dictionaryOf({{"a", 1}, {"b", 2}}));
  EXPECT_FALSE(larger.isMutable());
  EXPECT_TRUE(add_key_value_to_dict(source, nullptr, "b").isIdentical(source));
  EXPECT_TRUE(add_key_value_to_dict(nullptr, 2, "b").isNull());
  EXPECT_EQ(remove_key_from_dict(larger, "a"), PlistValue::dictionaryOf({{"b", 2}}));
  EXPECT_TRUE(remove_key_from_dict(nullptr, "a").isNull());
  EXPECT_EQ(source, PlistValue::dictionaryOf({{"a", 1}})) << "the input never changes";

  const std::unique_ptr<std::uint32_t, decltype(&free)> numbers(
      do_convert_int_nsarray2carray(PlistValue::arrayOf({1, "two", 4294967295U, true})), &free);
  ASSERT_NE(numbers, nullptr);
  EXPECT_EQ(numbers.get()[0], 1U);
  EXPECT_EQ(numbers.get()[2], 4294967295U);
  EXPECT_EQ(numbers.get()[3], 1U);
  EXPECT_EQ(do_convert_int_nsarray2carray(PlistValue::arrayOf({})), nullptr);
  EXPECT_EQ(do_convert_int_nsarray2carray("1"), nullptr);
}

TEST(Envelope, DecodesHexadecimalText) {
  using namespace std::string_literals;
  const struct {
    std::string text;
    std::string bytes;
  } cases[] = {
      {"0a 1B\nff", "\x0A\x1B\xFF"},
      {"", ""},
      {"a", ""},          // a lone digit is dropped
      {"4 142", "\x14"},  // also before white space
      {"  \t41\r\n\v42  ", "AB"},
      {"fFFf", "\xFF\xFF"},
      {"g0", "\0"s},   // no digit: 'g' is 103, 103 - 55 is 0 in four bits
      {"0!", "\xCA"},  // and 33 - 87 in eight
  };
  for (const auto& [text, bytes] : cases) {
    unsigned char* decoded = nullptr;
    std::size_t length = 99;
    ASSERT_EQ(hexdecode_buffer(text.c_str(), decoded, length), nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(decoded), length), bytes) << text;
    free(decoded);
  }
  char* text = nullptr;
  ASSERT_EQ(hexencode_buffer("\x0A\x1B\xFF", 3, text), nullptr);
  EXPECT_STREQ(text, "0A1BFF");
  free(text);
  EXPECT_STREQ(hexencode_buffer("", SIZE_MAX / 2, text), "CANNOT_MALLOC_ERR");
  EXPECT_EQ(text, nullptr);
}

TEST(Envelope, RefusesHexadecimalTextBeyondItsLimit) {
  std::string text(2'097'156, '0');
  unsigned char* decoded = nullptr;
  std::size_t length = 0;
  ASSERT_EQ(hexdecode_buffer(text.c_str(), decoded, length), nullptr);
  EXPECT_EQ(length, 1'048'578U);
  free(decoded);
  text += '0';
  EXPECT_STREQ(hexdecode_buffer(text.c_str(), decoded, length), "CANNOT_MALLOC_ERR");
  EXPECT_EQ(decoded, nullptr);
}

TEST(Envelope, PrintsForCommandLines) {
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(do_output_version(), 0);
  EXPECT_EQ(do_output_context(nullptr), 0);
  EXPECT_EQ(do_output_context(PlistValue::dictionaryOf({{"a", 1}})), 0);
  EXPECT_EQ(do_output_history(), 0);
  const std::string printed = ::testing::internal::GetCapturedStdout();
  const std::string description = PlistValue::dictionaryOf({{"a", 1}}).description();
  EXPECT_TRUE(printed.starts_with("Version: N/A, Built: ")) << printed;
  EXPECT_TRUE(
      printed.ends_with("\nContext dictionary: " + description + "\nNo longer supported, use show_context instead\n"))
      << printed;
}

}  // namespace
}  // namespace ostrel
