#include "Network/NetworkChangeContext.h"

#include <string>
#include <thread>

#include <gmock/gmock.h>

namespace ostrel {
namespace {

using Context = NetworkChangeContext;

PlistValue description(PlistValue name, PlistValue address, PlistValue host = {}) {
  PlistValue made = PlistValue::mutableDictionary();
  made.set("name", name);
  made.set("ipAddress", address);
  made.set("dnsName", host);
  return made;
}

// A null state is left out of the payload.
std::shared_ptr<Context> contextOf(PlistValue oldState, PlistValue newState) {
  PlistValue payload = PlistValue::mutableDictionary();
  payload.set("oldState", oldState);
  payload.set("newState", newState);
  return Context::networkChangeContextWithNotification(
      {.name = "com.brantle.ostrel_info.netchanged", .userInfo = payload});
}

std::shared_ptr<Context> contextOf(const char* request) {
  return Context::networkChangeContextWithChangeIPRequest(request);
}

TEST(NetworkChangeContext, ARequestOfTwoWordsSpeaksOfAddresses) {
  const auto context = contextOf("10.0.0.1 10.0.0.2");
  EXPECT_EQ(context->changeSource(), 1);
  EXPECT_TRUE(context->resultMessage().isNull());
  EXPECT_EQ(context->changeInfo().get("changes"), PlistValue("en0"));
  EXPECT_EQ(context->changeInfo().get("oldState"),
            PlistValue::arrayOf(
                {PlistValue::dictionaryOf({{"name", "en0"}, {"family", "AF_INET"}, {"ipAddress", "10.0.0.1"}})}));
  EXPECT_TRUE(context->hasAddrChanged());
  EXPECT_FALSE(context->hasHostChanged());
  EXPECT_EQ(context->oldAddr(), PlistValue("10.0.0.1"));
  EXPECT_EQ(context->newAddr(), PlistValue("10.0.0.2"));
  EXPECT_TRUE(context->newHost().isNull());
  EXPECT_EQ(context->newAddrForAddr("10.0.0.1"), PlistValue("10.0.0.2"));
  EXPECT_TRUE(context->newHostForHost(PlistValue()).isNull()) << "an absent host matches no absent name";
}

TEST(NetworkChangeContext, ARequestOfFourWordsSpeaksOfHostsToo) {
  const auto context = contextOf("10.0.0.1\t10.0.0.1\nold.example new.example");
  EXPECT_FALSE(context->hasAddrChanged());
  EXPECT_TRUE(context->hasHostChanged());
  EXPECT_EQ(context->oldHost(), PlistValue("old.example"));
  EXPECT_EQ(context->newHost(), PlistValue("new.example"));
  EXPECT_EQ(context->newHostForHost("old.example"), PlistValue("new.example"));
  EXPECT_TRUE(context->newHostForHost("new.example").isNull());
  EXPECT_EQ(context->changeInfo().get("newState").at(0).get("family"), PlistValue("AF_INET"));
}

TEST(NetworkChangeContext, OtherCountsOfWordsKeepTheDescription) {
  const auto context = contextOf("10.0.0.1 10.0.0.2");
  const PlistValue before = context->changeInfo();
  for (const PlistValue& request : {PlistValue("a b c"), PlistValue("a  b"), PlistValue(" a b c d"), PlistValue("a"),
                                    PlistValue(""), PlistValue("a b c d e"), PlistValue(), PlistValue(4)}) {
    context->setResultMessage("stale");
    context->setChangeSource(2);
    context->setChangeInfoFromChangeIPRequest(request);
    EXPECT_EQ(context->resultMessage(), PlistValue("invalid parameters count for changeip request"));
    EXPECT_TRUE(context->changeInfo().isIdentical(before)) << request.description();
    EXPECT_EQ(context->changeSource(), 1);
  }
  // Empty words count: three spaces make four words, and the hosts are empty, not absent.
  context->setChangeInfoFromChangeIPRequest("10.0.0.1   ");
  EXPECT_TRUE(context->resultMessage().isNull());
  EXPECT_EQ(context->changeInfo().get("newState").at(0).get("ipAddress"), PlistValue(""));
  EXPECT_EQ(context->oldHost(), PlistValue(""));
}

TEST(NetworkChangeContext, TheSourceDecidesWhatIsTaken) {
  const Notification notification{.name = "n", .userInfo = PlistValue::dictionaryOf({{"changes", "x"}})};
  const PlistValue request("10.0.0.1 10.0.0.2");
  const struct {
    Context::Data data;
    std::int32_t source;
    bool filled;
  } cases[] = {{request, 1, true},       {notification, 2, true}, {request, 2, false}, {notification, 1, false},
               {notification, 3, false}, {request, 0, false},     {{}, 1, false},      {PlistValue(), 1, false}};
  for (const auto& [data, source, filled] : cases) {
    Context context(data, source);
    EXPECT_EQ(context.changeSource(), source);
    EXPECT_EQ(!context.changeInfo().isNull(), filled) << source;
    EXPECT_TRUE(context.resultMessage().isNull());
  }
  EXPECT_TRUE(Context(notification, 2).changeInfo().isIdentical(notification.userInfo));
}

TEST(NetworkChangeContext, ChecksLeaveTheirMessage) {
  struct Case {
    const char* what;
    PlistValue address;
    bool enabled, selfAssigned;
    const char* enabledMessage;
    const char* selfAssignedMessage;
    const char* validMessage;
  };
  const char* none = "(null)";
  const char* disabled = "Invalid configuration on interface en3 (disabled network interface).";
  const char* selfAssigned = "Invalid configuration on interface en3 (self-assigned address on interface).";
  const Case cases[] = {
      {"good", "10.0.0.1", true, false, none, none, none},
      {"near miss", "169.25.4.1", true, false, none, none, none},
      {"self-assigned", "169.254.3.4", true, true, none,
       "Detected SELF-ASSIGNED ADDRESS for interface: en3 (addr=169.254.3.4)", selfAssigned},
      {"empty", "", false, false, "Detected DISABLED network configuration for interface: en3 (addr=)", none, disabled},
      {"absent",
       {},
       false,
       false,
       "Detected DISABLED network configuration for interface: en3 (addr=(null))",
       none,
       disabled},
      {"no text", 7, false, false, "Detected DISABLED network configuration for interface: en3 (addr=7)", none,
       disabled},
  };
  for (const Case& each : cases) {
    const auto context = contextOf(PlistValue(), PlistValue::arrayOf({description("en3", each.address)}));
    const auto message = [&] { return context->resultMessage().description(); };
    context->setResultMessage("stale");
    EXPECT_EQ(context->isInterfaceEnabled("en3", "newState"), each.enabled) << each.what;
    EXPECT_EQ(message(), each.enabledMessage) << each.what;
    context->setResultMessage("stale");
    EXPECT_EQ(context->isAddressSelfAssignedForState("newState", "en3"), each.selfAssigned) << each.what;
    EXPECT_EQ(message(), each.selfAssignedMessage) << each.what;
    const bool valid = each.enabled && !each.selfAssigned;
    context->setResultMessage("stale");
    EXPECT_EQ(context->hasValidConfigurationForInterface("en3"), valid) << each.what;
    EXPECT_EQ(message(), each.validMessage) << each.what;
    context->setResultMessage("stale");
    EXPECT_EQ(context->hasValidNetworkConfiguration(), valid) << each.what;
    EXPECT_EQ(message(), each.validMessage) << each.what;
    EXPECT_EQ(context->defaultInterface().isNull(), !valid) << each.what;
    EXPECT_FALSE(context->isNewAddressSelfAssigned()) << each.what;
    EXPECT_FALSE(context->isOldAddressSelfAssigned()) << each.what;
  }
}

TEST(NetworkChangeContext, LookupsFollowTheOrderOfTheDescriptions) {
  const auto context = contextOf(
      PlistValue::arrayOf({description("en1", "10.0.1.1", "b.example"), description("en0", "10.0.0.1", "a.example"),
                           description("en2", "10.0.2.1", "c.example")}),
      PlistValue::arrayOf({description("en0", "169.254.9.9", "zero"), description("en1", "10.0.1.9", "new.example"),
                           description("en0", "10.0.0.9", "second"), description("en1", "10.0.1.8", "third")}));
  EXPECT_EQ(context->allInterfacesForState("newState"), PlistValue::arrayOf({"en0", "en1", "en0", "en1"}));
  EXPECT_EQ(context->getSetting("dnsName", "newState", "en0"), PlistValue("zero")) << "the first of its name";
  EXPECT_EQ(context->defaultInterface(), PlistValue("en1"));
  EXPECT_EQ(context->defaultInterfaceForState("oldState"), PlistValue("en1"));
  EXPECT_TRUE(context->hasValidNetworkConfiguration());
  EXPECT_EQ(context->newHost(), PlistValue("new.example"));
  EXPECT_EQ(context->newHostForHost("b.example"), PlistValue("new.example"));
  EXPECT_TRUE(context->newHostForHost("a.example").isNull()) << "its interface is not valid any more";
  EXPECT_TRUE(context->newHostForHost("c.example").isNull()) << "its interface is gone";
  EXPECT_TRUE(context->hasSettingChanged("ipAddress", "en2")) << "present before, absent now";
  EXPECT_FALSE(context->hasSettingChanged("family", "en0")) << "absent in both";
}

// A dictionary may have the key "", which no absent or wrongly typed state or key asks for.
TEST(NetworkChangeContext, WhatIsNoKeyFindsNoEmptyKey) {
  const PlistValue state = PlistValue::arrayOf({PlistValue::dictionaryOf({{"name", "en0"}, {"", "hidden"}})});
  Context context(PlistValue(), 0);
  context.setChangeInfo(PlistValue::dictionaryOf({{"", state}, {"newState", state}}));
  for (const PlistValue& none : {PlistValue(), PlistValue(5), state}) {
    EXPECT_TRUE(context.findItemState(none, "en0").isNull());
    EXPECT_EQ(context.allInterfacesForState(none).count(), 0U);
    EXPECT_TRUE(context.getSetting(none, "newState", "en0").isNull());
    EXPECT_FALSE(context.hasSettingChanged(none, "en0"));
  }
  EXPECT_EQ(context.getSetting("", "newState", "en0"), PlistValue("hidden"));
}

// Every interface is checked, so the last one's message stands, also when an earlier one was valid.
TEST(NetworkChangeContext, TheMessageIsTheLastInterfaces) {
  const PlistValue good = description("en0", "10.0.0.1");
  const PlistValue bad = description("en1", "");
  auto context = contextOf(PlistValue(), PlistValue::arrayOf({good, bad}));
  EXPECT_TRUE(context->hasValidNetworkConfiguration());
  EXPECT_EQ(context->resultMessage(),
            PlistValue("Invalid configuration on interface en1 (disabled network interface)."));
  context = contextOf(PlistValue(), PlistValue::arrayOf({bad, good}));
  EXPECT_TRUE(context->hasValidNetworkConfiguration());
  EXPECT_TRUE(context->resultMessage().isNull());
}

TEST(NetworkChangeContext, ForeignShapesFindNothing) {
  const PlistValue odd[] = {PlistValue(), "text", 5, PlistValue::dictionaryOf({{"name", "en0"}}),
                            PlistValue::arrayOf({"en0", 5, PlistValue::arrayOf({}), PlistValue::dictionaryOf({}),
                                                 PlistValue::dictionaryOf({{"name", 5}})})};
  for (const PlistValue& state : odd) {
    const auto context = contextOf(state, state);
    EXPECT_EQ(context->allInterfacesForState("newState").count(), 0U);
    EXPECT_FALSE(context->hasValidNetworkConfiguration());
    EXPECT_FALSE(context->hasAddrChanged());
    EXPECT_TRUE(context->newAddr().isNull());
    EXPECT_TRUE(context->newAddrForAddr("10.0.0.1").isNull());
    EXPECT_TRUE(context->findItemState("newState", PlistValue()).isNull());
    EXPECT_TRUE(context->findItemState(PlistValue(), "en0").isNull());
    EXPECT_TRUE(context->findItemState("newState", 5).isNull());
  }
}

TEST(NetworkChangeContext, FieldsAreReadAndReplacedFromManyThreads) {
  const auto context = contextOf("10.0.0.1 10.0.0.2 old.example new.example");
  std::thread writer([&] {
    for (int i = 0; i < 500; ++i) context->setChangeInfoFromChangeIPRequest("10.0.0.1 169.254.0.1 old.example none");
  });
  for (int i = 0; i < 500; ++i) {
    context->hasValidNetworkConfiguration();
    const std::string message = context->resultMessage().description();
    EXPECT_TRUE(message == "(null)" || message.ends_with(").")) << message;
  }
  writer.join();
}

}  // namespace
}  // namespace ostrel
