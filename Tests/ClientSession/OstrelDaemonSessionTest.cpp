#include "ClientSession/OstrelDaemonSession.h"

#include <gtest/gtest.h>

#include "ClientSession/Fixtures.h"
#include "Containers/PropertyList.h"

namespace ostrel::testing {
namespace {

class SilentTarget final : public OstrelDaemonSessTarget {
 public:
  bool respondsTo(std::string_view) const override { return false; }
  void perform(std::string_view, OstrelDaemonSessNotification&) override {}
};

std::string urlText(const std::optional<CommandURL>& url) { return url ? url->text() : "none"; }

TEST(OstrelDaemonSession, InitialisersSetWhatTheyName) {
  const auto plain = OstrelDaemonSession::init();
  EXPECT_EQ(urlText(plain->buildURL({}, {})), "https://localhost:311/commands/ostrel_sample");
  EXPECT_EQ(plain->userName(), std::nullopt);
  EXPECT_EQ(plain->sessionID(), std::nullopt);
  EXPECT_EQ(plain->status(), 0);
  EXPECT_EQ(plain->pendingRequestsCount(), 0);
  EXPECT_FALSE(plain->forceValidCertificate() || plain->useTimeoutForTransactions());

  const auto target = std::make_shared<SilentTarget>();
  for (const auto& session :
       {OstrelDaemonSession::initWithServiceSessionID("mail", target, "done:", "id"),
        OstrelDaemonSession::initWithServiceUseGlobalPlexnetLockSessionID("mail", target, "done:", true, "id")}) {
    EXPECT_EQ(session->service(), "mail");
    EXPECT_EQ(session->notifyTarget(), target);
    EXPECT_EQ(session->notifySelector(), "done:");
    EXPECT_EQ(session->sessionID(), "id");
    EXPECT_EQ(session->host(), "localhost");
  }
}

TEST(OstrelDaemonSession, DictionaryFormHoldsSixStrings) {
  const auto session = OstrelDaemonSession::initWithDictionary(PlistValue::dictionaryOf(
      {{"host", "h"}, {"port", 311}, {"userName", "u"}, {"sessionID", "s"}, {"password", PlistValue(true)}}));
  EXPECT_EQ(session->port(), std::nullopt);  // a number is no text
  EXPECT_EQ(session->sessionID(), std::nullopt);
  const PlistValue dictionary = session->dictionary();
  EXPECT_EQ(dictionary, PlistValue::dictionaryOf({{"host", "h"}, {"userName", "u"}}));
  EXPECT_FALSE(dictionary.isMutable());
  EXPECT_EQ(urlText(session->buildURL({}, {})), "https://h:311/commands/(null)");
  EXPECT_EQ(OstrelDaemonSession::initWithDictionary("text")->dictionary().count(), 0U);
}

TEST(OstrelDaemonSession, ArchiveKeepsAbsentValuesInTheirPlaces) {
  const auto session = OstrelDaemonSession::init();
  session->setPort(std::nullopt);
  session->setHost("");
  session->setPassword("p");
  PlistValue coder = PlistValue::mutableArray();
  ASSERT_TRUE(session->encodeWithCoder(coder));
  EXPECT_EQ(coder, PlistValue::arrayOf({"https", false, "ostrel_sample", "", false, "p"}));

  const auto archive = writeBinaryPropertyList(coder);
  ASSERT_TRUE(archive);
  const auto restored = OstrelDaemonSession::initWithCoder(readPropertyList(*archive));
  ASSERT_TRUE(restored);
  EXPECT_EQ(restored->dictionary(), session->dictionary());
  EXPECT_EQ(restored->port(), std::nullopt);

  EXPECT_FALSE(session->encodeWithCoder(PlistValue::arrayOf({})));
  for (const PlistValue& broken :
       {PlistValue(), PlistValue::arrayOf({"https", "311"}), PlistValue::arrayOf({"https", "311", "s", "h", "u", true}),
        PlistValue::arrayOf({"https", "311", "s", "h", "u", 0})}) {
    EXPECT_EQ(OstrelDaemonSession::initWithCoder(broken), nullptr) << broken.description();
  }
}

TEST(OstrelDaemonSession, DescriptionStopsAtTheFirstAbsentValue) {
  const auto session = OstrelDaemonSession::init();
  const auto afterBase = [&] {
    const std::string text = session->description();
    EXPECT_TRUE(text.starts_with("<OstrelDaemonSession: 0x")) << text;
    return text.substr(text.find('>') + 1);
  };
  EXPECT_EQ(afterBase(), ",localhost,ostrel_sample");
  session->setUserName("alice");
  EXPECT_EQ(afterBase(), ",localhost,ostrel_sample,alice");
  session->setHost(std::nullopt);
  EXPECT_EQ(afterBase(), "");
}

TEST(OstrelDaemonSession, LettingGoWithNothingPendingIsImmediate) {
  const auto session =
      OstrelDaemonSession::initWithServiceSessionID("s", std::make_shared<SilentTarget>(), "done:", "id");
  session->deauthenticate();
  EXPECT_EQ(session->sessionID(), std::nullopt);
  session->deinit();
  EXPECT_EQ(session->notifyTarget(), nullptr);
}

TEST(OstrelDaemonSession, RecognisesRefusedCredentials) {
  EXPECT_TRUE(OstrelDaemonSession::didAuthenticationFail("HTTP_REQUEST_FAILED: u: Authorization REQUIRED"));
  EXPECT_TRUE(OstrelDaemonSession::didAuthenticationFail("authorization required"));
  EXPECT_FALSE(OstrelDaemonSession::didAuthenticationFail("authorization required."));
  EXPECT_FALSE(OstrelDaemonSession::didAuthenticationFail("required"));
  EXPECT_FALSE(OstrelDaemonSession::didAuthenticationFail(std::nullopt));
}

TEST(OstrelDaemonSession, BuildsUrls) {
  const auto session = OstrelDaemonSession::init();
  EXPECT_EQ(urlText(session->buildURL({}, "http://other.example:8080/x")), "http://other.example:8080/x");
  EXPECT_EQ(urlText(session->buildURL({}, "")), "none");
  session->setProtocol(std::nullopt);
  session->setPort(std::nullopt);
  EXPECT_EQ(urlText(session->buildURL({}, {})), "https://localhost:311/commands/ostrel_sample");
  session->setService("mail HTTP/1.0\r\nX: y");
  EXPECT_EQ(urlText(session->buildURL({}, {})), "none");
}

TEST(OstrelDaemonSession, BuildsBasicAuthorization) {
  const auto url = CommandURL::parse("http://h:1/");
  const auto header = [&](auto user, auto password) {
    return OstrelDaemonSession::buildAuthorizationHeader(url, user, password);
  };
  EXPECT_EQ(header("Aladdin", "open sesame"), "Basic QWxhZGRpbjpvcGVuIHNlc2FtZQ==");
  EXPECT_EQ(header("J\xC3\xBCrgen", ""), "Basic SsO8cmdlbjo=");
  EXPECT_EQ(header(std::nullopt, "p"), std::nullopt);
  EXPECT_EQ(header("u", std::nullopt), std::nullopt);
  EXPECT_EQ(OstrelDaemonSession::buildAuthorizationHeader(std::nullopt, "u", "p"), std::nullopt);
}

TEST(OstrelDaemonSession, EncodesRequests) {
  const auto encode = [](const PlistValue& request) { return OstrelDaemonSession::encodeRequest(request); };
  const std::string body = encode(PlistValue::dictionaryOf({{"command", "a&b+c/d e"}}));
  EXPECT_TRUE(body.starts_with("input=%3C?xml%20version=%221.0%22")) << body;
  EXPECT_NE(body.find("a%26amp;b%2Bc%2Fd%20e"), std::string::npos) << body;
  EXPECT_EQ(encode(PlistData{"a&b+c/d e"}), "input=a%26b%2Bc%2Fd%20e");
  EXPECT_EQ(encode(PlistValue()), "");
  EXPECT_EQ(encode(PlistData{""}), "");
  EXPECT_EQ(encode(PlistData{"\xFF"}), "");
  EXPECT_EQ(encode(PlistValue::dictionaryOf({{"command", "\x01"}})), "");  // no XML can carry it
}

TEST(OstrelDaemonSession, DecodesReplies) {
  const auto decode = [](std::optional<std::string_view> bytes) {
    return OstrelDaemonSession::buildNSDictionaryFromResponseData(bytes);
  };
  EXPECT_EQ(decode("<plist version=\"1.0\"><dict><key>a</key><integer>1</integer></dict></plist>"),
            PlistValue::dictionaryOf({{"a", 1}}));
  EXPECT_EQ(decode(*writeBinaryPropertyList(PlistValue::dictionaryOf({{"a", 1}}))),
            PlistValue::dictionaryOf({{"a", 1}}));
  const std::string_view array = "<plist version=\"1.0\"><array/></plist>";
  for (const std::string_view text : {array, std::string_view("no list"), std::string_view("")}) {
    EXPECT_EQ(decode(text), PlistValue::dictionaryOf({{"RawResponse", text}}));
  }
  const PlistValue notText = decode("\xFF\xFE\xFD");
  EXPECT_TRUE(notText.isDictionary());
  EXPECT_EQ(notText.count(), 0U);
  EXPECT_TRUE(decode(std::nullopt).isNull());
}

}  // namespace
}  // namespace ostrel::testing
