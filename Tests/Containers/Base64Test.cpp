#include "Containers/Base64.h"

#include <gtest/gtest.h>

#include <cctype>
namespace ostrel {
namespace {

using namespace std::string_view_literals;

TEST(Base64, MatchesTheVectorsOfItsStandardBothWays) {
  const std::pair<std::string_view, std::string_view> vectors[] = {
      {"", ""},
      {"f", "Zg=="},
      {"fo", "Zm8="},
      {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="},
      {"fooba", "Zm9vYmE="},
      {"foobar", "Zm9vYmFy"},
      {"\x00\xFF\xFE\xFB\xEF\xBE"sv, "AP/+++++"},
  };
  for (const auto& [bytes, text] : vectors) {
    EXPECT_EQ(encodeBase64(bytes), text);
    EXPECT_EQ(decodeBase64(text), bytes);
  }
}

TEST(Base64, RefusesEverythingThatNoEncoderWrites) {
  for (const auto text : {"Zg"sv, "Zg="sv, "Z"sv, "Z==="sv, "===="sv, "Zg==Zg=="sv, "Zm9v\n"sv, "Zm 9"sv, "Zh=="sv,
                          "Zm9="sv, "Zm-_"sv, "Zg=v"sv, "Zm9vZ"sv, "Zg==\0\0\0\0"sv, "\xFF\xFF\xFF\xFF"sv}) {
    EXPECT_EQ(decodeBase64(text), std::nullopt) << text;
  }
}

TEST(Base64, TakesTheAlphabetAndNothingElseAtEveryPlace) {
  const std::string text(64, 'A');
  for (std::size_t at = 0; at < text.size(); ++at) {
    for (int byte = 0; byte < 256; ++byte) {
      std::string changed = text;
      changed[at] = static_cast<char>(byte);
      const bool isOfAlphabet = byte < 128 && (std::isalnum(byte) != 0 || byte == '+' || byte == '/');
      const bool isPadding = byte == '=' && at == text.size() - 1;
      EXPECT_EQ(decodeBase64(changed).has_value(), isOfAlphabet || isPadding) << byte << " at " << at;
    }
  }
}

TEST(Base64, RoundTripsEveryByteAtEveryLength) {
  std::string bytes;
  for (int i = 0; i < 300; ++i) {
    EXPECT_EQ(decodeBase64(encodeBase64(bytes)), bytes);
    bytes += static_cast<char>(i * 7);
  }
}

}  // namespace
}  // namespace ostrel
