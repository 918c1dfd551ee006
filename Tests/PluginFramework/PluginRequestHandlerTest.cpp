#include "PluginFramework/PluginRequestHandler.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "HostFixture.h"
#include "Network/NetworkChangeContext.h"
#include "Platform/FileDescriptor.h"
#include "Platform/NotificationCenter.h"
#include "PluginFramework/ContextStore.h"
#include "PluginFramework/Envelope.h"

namespace ostrel {
namespace {

using testing::HostFixture;

PlistValue error(const char* code) { return PlistValue::dictionaryOf({{"error", code}}); }

class Handler : public PluginRequestHandler {
 public:
  Handler() : PluginRequestHandler(operations()) {}
  explicit Handler(const OperationTable& table) : PluginRequestHandler(table) {}

  PlistValue askWithRequest(const PlistValue& request) {
    calls.push_back("ask");
    return onAsk ? onAsk(request) : PlistValue();
  }
  PlistValue getLogPathsWithRequest(const PlistValue&) { return logPaths; }
  PlistValue startServiceWithVariant(const PlistValue& variant) override { return stateCall("start", variant); }
  PlistValue stopServiceWithVariant(const PlistValue& variant) override { return stateCall("stop", variant); }
  int doIdleAtCount(int count) override {
    calls.push_back("idle " + std::to_string(count));
    EXPECT_TRUE(currentRequest().isNull()) << "there is none, also after one that threw";
    return count + 1;
  }
  void didReceiveNetworkChangedNotification(NetworkChangeContext& change) {
    calls.push_back("network " + change.newAddr().description());
    throw std::runtime_error("not today");
  }

  static const OperationTable& operations() {
    static const OperationTable table{
        {"askWithRequest:", &Handler::askWithRequest},
        {"getLogPathsWithRequest:", &Handler::getLogPathsWithRequest},
        {"didReceiveNetworkChangedNotification:", &Handler::didReceiveNetworkChangedNotification}};
    return table;
  }

  std::vector<std::string> calls;
  std::function<PlistValue(const PlistValue&)> onAsk;
  PlistValue stateAnswer;
  PlistValue logPaths;

 private:
  PlistValue stateCall(const std::string& name, const PlistValue& variant) {
    calls.push_back(name + " " + variant.description());
    return stateAnswer;
  }
};

/// The same with a state to tell and a "setState" of its own kept from the base.
class TellingHandler : public Handler {
 public:
  TellingHandler() : Handler(moreOperations()) {}
  PlistValue getStateWithRequest(const PlistValue& request) {
    calls.push_back("getState");
    return PlistValue::dictionaryOf({{"asked", request}});
  }

 private:
  static const OperationTable& moreOperations() {
    static const OperationTable table(operations(), {{"getStateWithRequest:", &TellingHandler::getStateWithRequest}});
    return table;
  }
};

PlistValue run(PluginRequestHandler& handler, const PlistValue& request) {
  int descriptor = -1;
  return handler.doProcessInputWithRequest(request, PlistValue::mutableDictionary(), &descriptor);
}
PlistValue commandRequest(const PlistValue& command) { return PlistValue::dictionaryOf({{"command", command}}); }

TEST(PluginRequestHandler, RoutesCommandsByName) {
  using namespace std::string_view_literals;
  Handler handler;
  handler.onAsk = [](const PlistValue&) { return PlistValue::dictionaryOf({{"answer", 42}}); };
  EXPECT_EQ(run(handler, commandRequest("ask")), PlistValue::dictionaryOf({{"answer", 42}}));
  handler.onAsk = nullptr;
  EXPECT_EQ(run(handler, commandRequest("ask")), error("UNEXPECTED_COMMAND")) << "null is no answer";
  handler.onAsk = [](const PlistValue&) { return PlistValue::arrayOf({1}); };
  EXPECT_EQ(run(handler, commandRequest("ask")), error("UNEXPECTED_COMMAND")) << "nor is what is no dictionary";
  EXPECT_EQ(handler.calls.size(), 3U);

  for (const std::string_view command :
       {"Ask"sv, "ask:"sv, "ask\0"sv, ""sv, "askWithRequest:"sv, "didReceiveNetworkChangedNotification:"sv,
        "getState"sv, "responseForError"sv, "doProcessInput"sv})
    EXPECT_EQ(run(handler, commandRequest(command)), error("UNEXPECTED_COMMAND")) << command;
  EXPECT_EQ(handler.calls.size(), 3U) << "none of these is callable";
  EXPECT_TRUE(run(handler, PlistValue::dictionaryOf({})).isNull());
  EXPECT_TRUE(run(handler, commandRequest(7)).isNull());
  EXPECT_TRUE(run(handler, nullptr).isNull());
}

TEST(PluginRequestHandler, ChangesTheServiceState) {
  const PlistValue done = PlistValue::dictionaryOf({{"done", true}});
  using Calls = std::vector<std::string>;
  const struct {
    PlistValue state;
    PlistValue answer;
    Calls calls;
    bool invalid;
  } cases[] = {
      {"START", done, {"start soft"}, false},
      {"STOP", done, {"stop soft"}, false},
      {"RESTART", done, {"stop soft", "start soft"}, false},
      {"START", nullptr, {"start soft", "getState"}, false},
      {"RECYCLE", nullptr, {"getState"}, false},
      {"start", done, {}, true},
      {7, done, {}, true},
      {nullptr, done, {}, true},
  };
  for (const auto& [state, answer, calls, invalid] : cases) {
    TellingHandler handler;
    handler.stateAnswer = answer;
    PlistValue request = PlistValue::mutableDictionaryOf({{"command", "setState"}, {"variant", "soft"}});
    request.set("state", state);
    const PlistValue asked = PlistValue::dictionaryOf({{"asked", request}});
    EXPECT_EQ(run(handler, request), invalid ? error("INVALID_ARG_ERR") : answer.isNull() ? asked : answer);
    EXPECT_EQ(handler.calls, calls) << state.description();
  }
  Handler silent;
  EXPECT_EQ(run(silent, PlistValue::dictionaryOf({{"command", "setState"}, {"state", "STOP"}})),
            error("UNEXPECTED_COMMAND"));
  EXPECT_EQ(silent.calls, Calls{"stop (null)"});
}

TEST(PluginRequestHandler, KeepsRequestsApart) {
  Handler first;
  TellingHandler second;
  const PlistValue context = PlistValue::mutableDictionaryOf({{"_user_", "alice"}});
  first.onAsk = [&](const PlistValue& request) {
    EXPECT_TRUE(first.currentRequest().isIdentical(request));
    EXPECT_EQ(first.currentCommand(), PlistValue("ask"));
    EXPECT_EQ(first.currentUserName(), PlistValue("alice"));
    EXPECT_TRUE(first.context().isIdentical(context));
    EXPECT_TRUE(second.context().isNull()) << "another class";
    std::thread([&] { EXPECT_TRUE(first.currentRequest().isNull()) << "another thread"; }).join();
    return request;
  };
  int descriptor = 77;
  first.doProcessInputWithRequest(commandRequest("ask"), context, &descriptor);
  EXPECT_EQ(descriptor, 77);
  EXPECT_TRUE(first.context().isNull()) << "nothing is left";
  EXPECT_EQ(first.cleanupFromRequest(), -1);
}

TEST(PluginRequestHandler, FindsItsRequestAgainAfterAnotherOfItsClass) {
  Handler outer;
  Handler inner;
  const PlistValue context = PlistValue::mutableDictionary();
  for (const bool throws : {false, true}) {
    inner.onAsk = [&](const PlistValue& request) {
      EXPECT_FALSE(outer.context().isIdentical(context)) << "overwritten meanwhile";
      return throws ? throw std::runtime_error("within") : request;
    };
    outer.onAsk = [&](const PlistValue& request) {
      int other = 88;
      try {
        inner.doProcessInputWithRequest(commandRequest("ask"), PlistValue::mutableDictionary(), &other);
      } catch (const std::runtime_error&) {
        EXPECT_TRUE(throws);
      }
      EXPECT_EQ(other, 88);
      EXPECT_TRUE(outer.context().isIdentical(context));
      return request;
    };
    int descriptor = 77;
    outer.doProcessInputWithRequest(commandRequest("ask"), context, &descriptor);
    EXPECT_EQ(descriptor, 77) << "the host gives up the lock that it has taken";
    EXPECT_TRUE(outer.context().isNull());
  }
}

TEST(PluginRequestHandler, TellsTheDescriptorThatIsLeft) {
  const HostFixture host;
  Handler handler;
  for (const bool throws : {false, true}) {
    int descriptor = -1;
    const PlistValue context = get_and_lock_context("m", &descriptor);
    handler.onAsk = [&](const PlistValue& request) {
      handler.context().set("kept", throws);
      handler.context().set("contextDirty", "YES");
      handler.unlockContext();
      handler.unlockContext();
      if (throws) throw std::runtime_error("after the unlock");
      return request;
    };
    try {
      handler.doProcessInputWithRequest(commandRequest("ask"), context, &descriptor);
      EXPECT_FALSE(throws);
    } catch (const std::runtime_error&) {
      EXPECT_TRUE(throws);
    }
    EXPECT_EQ(descriptor, -1) << "the host must not close what is closed";
    const PlistValue stored = get_and_lock_context("m", &descriptor);
    EXPECT_EQ(stored.get("kept"), PlistValue(throws));
    set_and_unlock_context(&descriptor, &stored);
  }
}

TEST(PluginRequestHandler, ReleasesNothingLateAfterAnException) {
  const HostFixture host;
  Handler handler;
  handler.onAsk = [](const PlistValue&) -> PlistValue { throw std::runtime_error("with the lock"); };
  int descriptor = -1;
  const PlistValue context = get_and_lock_context("m", &descriptor);
  const int number = descriptor;
  EXPECT_THROW(handler.doProcessInputWithRequest(commandRequest("ask"), context, &descriptor), std::runtime_error);
  EXPECT_EQ(descriptor, number);
  set_and_unlock_context(&descriptor, &context);
  const FileDescriptor other = openFile(host / "other", O_RDWR | O_CREAT, 0600);
  ASSERT_EQ(other.get(), number) << "the next file gets the number";
  handler.context().set("contextDirty", true);
  handler.unlockContext();
  EXPECT_NE(fcntl(number, F_GETFD), -1) << "and keeps it";
  const char* const idle[] = {"prog", "idle", "0"};
  EXPECT_EQ(handler.doProcessArgsWithArgc(3, idle, context, &descriptor), 1);
}

TEST(PluginRequestHandler, TakesCommandLines) {
  const struct {
    std::vector<const char*> arguments;
    int result;
    std::vector<std::string> calls;
  } cases[] = {
      {{"prog", "idle", "12"}, 13, {"idle 12"}},
      {{"prog", "idle", " -3x"}, -2, {"idle -3"}},
      {{"prog", "idle", "x"}, 1, {"idle 0"}},
      {{"prog", "idle", "-99999999999"}, -2147483647, {"idle -2147483648"}},
      {{"prog", "idle"}, 0, {}},
      {{"prog", "Idle", "1"}, 0, {}},
      {{"prog", "idle", "1", "2"}, 0, {}},
  };
  for (const auto& [arguments, result, calls] : cases) {
    Handler handler;
    int descriptor = 5;
    EXPECT_EQ(handler.doProcessArgsWithArgc(static_cast<int>(arguments.size()), arguments.data(),
                                            PlistValue::mutableDictionary(), &descriptor),
              result);
    EXPECT_EQ(descriptor, 5);
    EXPECT_EQ(handler.calls, calls);
  }
}

TEST(PluginRequestHandler, TailsAllowedLogs) {
  const HostFixture host;
  const std::string log = host / "system.log";
  testing::writeFile(log, "one\ntwo\n");
  Handler handler;
  handler.logPaths = PlistValue::dictionaryOf({{"system", log}});
  const PlistValue byPath =
      PlistValue::dictionaryOf({{"path", log}, {"offset", 4}, {"amount", 4}, {"tailContents", "two\n"}});
  PlistValue byIdentifier = PlistValue::mutableDictionaryOf({{"identifier", "system"}});
  for (const auto& [key, value] : byPath.entries()) byIdentifier.set(key.stringValue(), value);
  const struct {
    PlistValue arguments;
    PlistValue answer;
  } cases[] = {
      {PlistValue::dictionaryOf({{"path", log}, {"offset", 0}, {"amount", 4}}), byPath},
      {PlistValue::dictionaryOf({{"identifier", "system"}, {"path", "/x"}, {"offset", 0}, {"amount", 4}}),
       byIdentifier},
      {PlistValue::dictionaryOf({{"path", "/etc/passwd"}, {"offset", 0}, {"amount", 4}}),
       error("ILLEGAL_PATH_REQUESTED")},
      {PlistValue::dictionaryOf({{"identifier", "mail"}, {"offset", 0}, {"amount", 4}}),
       error("ILLEGAL_LOG_IDENTIFIER_REQUESTED")},
      {PlistValue::dictionaryOf({{"path", log}, {"offset", 0}}), error("INVALID_ARG_ERR")},
      {PlistValue::dictionaryOf({{"path", log}, {"offset", "0"}, {"amount", 4}}), error("INVALID_ARG_ERR")},
      {PlistValue::dictionaryOf({{"path", 1}, {"identifier", 2}, {"offset", 0}, {"amount", 4}}),
       error("INVALID_ARG_ERR")},
  };
  for (const auto& [arguments, answer] : cases) {
    const PlistValue request = add_key_value_to_dict(arguments, "tailFile", "command");
    const PlistValue response = run(handler, request);
    EXPECT_EQ(response, answer) << request.description();
    for (std::size_t i = 0; i < response.entries().size(); ++i)
      EXPECT_EQ(response.entries()[i].keyText(), answer.entries()[i].keyText()) << "the order of the keys";
  }
}

TEST(PluginRequestHandler, ObservesFromItsLastConstructorToItsFirstDestructor) {
  testing::RecordingLog log;
  const ScopedOverride<SystemLog> override(log);
  const auto post = [] {
    const PlistValue state =
        PlistValue::arrayOf({PlistValue::dictionaryOf({{"name", "eth0"}, {"ipAddress", "10.0.0.2"}})});
    NotificationCenter::defaultCenter().postNotification(
        {"com.brantle.ostrel_info.netchanged", nullptr, PlistValue::dictionaryOf({{"newState", state}}), nullptr});
  };
  Handler direct;  // not made as a module's instance: does not observe
  std::vector<std::string> heard;
  {
    const std::unique_ptr<PluginRequestHandler> instance(
        static_cast<PluginRequestHandler*>(detail::createModuleInstance<Handler>()));
    post();
    heard = static_cast<Handler&>(*instance).calls;
  }
  post();
  EXPECT_EQ(heard, std::vector<std::string>{"network 10.0.0.2"});
  EXPECT_TRUE(direct.calls.empty());
  EXPECT_EQ(log.lines(),
            std::vector<std::string>{testing::logLine("Exception in didReceiveNetworkChangedNotification: not today")})
      << "a module's exception does not reach the poster";
}

}  // namespace
}  // namespace ostrel
