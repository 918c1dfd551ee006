// Batches, status, idle passes and the watchdog of a real daemon, by the client library and the command line.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <future>
#include <nlohmann/json.hpp>
#include <thread>

#include "Containers/ErrorCodes.h"
#include "Tools/DaemonProcess.h"
#include "ostrelctl/BatchFile.h"
#include "ostrelctl/JsonForm.h"
#include "ostreld/ServiceWatchdog.h"

namespace ostrel {
namespace {

using testing::DaemonProcess;
using testing::eventually;
using ::testing::HasSubstr;
using testing::Outcome;
using testing::runProgram;
using testing::writeFile;

PlistValue batch(const PlistValue& members) {
  return PlistValue::dictionaryOf({{"command", "batch"}, {"requestsArray", members}});
}
PlistValue member(const char* module, const PlistValue& request) {
  return PlistValue::dictionaryOf({{"name", module}, {"request", request}});
}
PlistValue sleepFor(double seconds) {
  return PlistValue::dictionaryOf({{"command", "sleep"}, {"seconds", seconds}, {"secret", "hunter2"}});
}
Outcome control(const DaemonProcess& daemon, std::vector<std::string> words) {
  words.insert(words.begin(), {OSTRELCTL_PROGRAM, "--root", daemon.root()});
  return runProgram(words);
}
/// The bytes of a request, for a connection that nobody waits for.
std::string requestBytes(const DaemonProcess& daemon, const std::string& module, const PlistValue& request) {
  const std::string body = OstrelDaemonSession::encodeRequest(request);
  return "POST /commands/" + module + " HTTP/1.0\r\nOstrelSessionID: " + daemon.sessionIdentifier() +
         "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

TEST(DaemonBatch, RunsAuditsAndLimits) {
  DaemonProcess daemon(DaemonProcess::Transport::plain);
  ASSERT_TRUE(daemon.start({"--max-batch", "4", "--max-batch-commands", "4"})) << daemon.log();
  const PlistValue echo = member("ostrel_sample", PlistValue::dictionaryOf({{"command", "echo"}, {"pin", "hunter2"}}));
  const PlistValue thrown = member("ostrel_test", PlistValue::dictionaryOf({{"command", "throw"}}));
  const PlistValue nested = member("ostreld", batch(PlistValue::arrayOf({})));
  const PlistValue answer = daemon.send(batch(PlistValue::arrayOf({echo, thrown, nested})), "ostreld");
  EXPECT_EQ(answer.get("responsesArray").count(), 3U) << answer.description();
  EXPECT_THAT(answer.description(), HasSubstr("NIL_RESPONSE_ERR (out of paper)"));
  EXPECT_THAT(answer.description(), HasSubstr("CANNOT_LOAD_BUNDLE_ERR")) << "a batch runs no batches";

  EXPECT_TRUE(eventually([&] { return daemon.auditLines().size() == 4; }));
  const std::string log = daemon.log();
  for (const char* line : {"module=\"ostrel_sample\" command=\"echo\" outcome=\"ok\"",
                           "module=\"ostrel_test\" command=\"throw\" outcome=\"error NIL_RESPONSE_ERR (out of paper)\"",
                           "module=\"ostreld\" command=\"batch\" outcome=\"ok\""}) {
    EXPECT_THAT(log, HasSubstr(line));
  }
  for (const std::string& line : daemon.auditLines()) EXPECT_THAT(line, HasSubstr("audit user=\"root\" from=\"127."));

  const PlistValue invalid = PlistValue::dictionaryOf({{"error", errors::invalidArgument}});
  for (const PlistValue& members : {PlistValue(), PlistValue("x"), PlistValue::arrayOf({echo, 3}),
                                    PlistValue::arrayOf({echo, echo, echo, echo, echo}),
                                    PlistValue::arrayOf({PlistValue::dictionaryOf({{"name", "ostrel_test"}})})}) {
    EXPECT_EQ(daemon.send(batch(members), "ostreld"), invalid) << members.description();
  }
  const testing::RawConnection slow = daemon.connectRaw();
  slow.write(requestBytes(daemon, "ostreld", batch(PlistValue::arrayOf({member("ostrel_test", sleepFor(20)), echo}))));
  const auto running = [&] {
    return daemon.send(PlistValue::dictionaryOf({{"command", "getStatus"}}), "ostreld").get("outstandingRequests");
  };
  EXPECT_TRUE(eventually([&] { return running().count() == 1; })) << "the echo is done, and the other sleeps";
  EXPECT_EQ(running().at(0).get("module"), PlistValue("ostrel_test"));
  EXPECT_EQ(running().at(0).get("command"), PlistValue("sleep"));
  EXPECT_GE(running().at(0).get("ageSeconds").doubleValue(), 0);
  EXPECT_EQ(daemon.send(batch(PlistValue::arrayOf({echo, echo, echo})), "ostreld"),
            PlistValue::dictionaryOf({{"error", errors::cannotRunBundle}}));
  EXPECT_EQ(daemon.send(batch(PlistValue::arrayOf({echo})), "ostreld").get("responsesArray").count(), 1U);
  EXPECT_EQ(daemon.log().find("hunter2"), std::string::npos) << "never an argument";
}

TEST(DaemonBatch, FinishesBeforeTheDaemonStops) {
  DaemonProcess daemon(DaemonProcess::Transport::plain);
  ASSERT_TRUE(daemon.start()) << daemon.log();
  auto answer = std::async(std::launch::async, [&] {
    return daemon.send(batch(PlistValue::arrayOf({member("ostrel_test", sleepFor(1.5))})), "ostreld");
  });
  EXPECT_TRUE(eventually([&] {
    return control(daemon, {"status", "--json"}).output.find("\"sleep\"") != std::string::npos;
  }));
  const auto begun = std::chrono::steady_clock::now();
  EXPECT_EQ(daemon.stop(), 0) << daemon.log();
  EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(5)) << "its threads hold up no stop";
  EXPECT_EQ(answer.get().get("responsesArray").at(0).get("response").get("count"), PlistValue(1));
  ASSERT_TRUE(daemon.start()) << daemon.log();
  EXPECT_EQ(daemon.send(PlistValue::dictionaryOf({{"command", "count"}}), "ostrel_test").get("count"), PlistValue(1));
}

TEST(DaemonIdle, PassesRunAndAreTold) {
  DaemonProcess daemon(DaemonProcess::Transport::plain);
  ASSERT_TRUE(daemon.start({"--idle-interval", "0.05"})) << daemon.log();
  const auto passes = [&] {
    return nlohmann::json::parse(control(daemon, {"status", "--json"}).output)["idlePasses"].get<int>();
  };
  EXPECT_TRUE(eventually([&] { return passes() >= 2; }));
  EXPECT_THAT(control(daemon, {"status"}).output, HasSubstr("one every 0.1 s"));
  EXPECT_EQ(daemon.stop(), 0);
  ASSERT_TRUE(daemon.start({"--idle-interval", "0"})) << daemon.log();
  EXPECT_THAT(control(daemon, {"status"}).output, HasSubstr("idle passes: none"));
}

TEST(DaemonWatchdog, PingsTheServiceManager) {
  DaemonProcess daemon(DaemonProcess::Transport::plain);
  const std::string path = daemon.root() + "/notify";
  const int listener = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  const timeval limit{20, 0};
  setsockopt(listener, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  ASSERT_TRUE(daemon.start({}, {"NOTIFY_SOCKET=" + path, "WATCHDOG_USEC=400000"})) << daemon.log();
  std::vector<std::string> heard;
  for (char text[64]; heard.size() < 3;) {
    const ssize_t size = recv(listener, text, sizeof text, 0);
    if (size <= 0) break;
    heard.emplace_back(text, static_cast<std::size_t>(size));
  }
  EXPECT_THAT(heard, ::testing::ElementsAre("READY=1", "WATCHDOG=1", "WATCHDOG=1"));
  daemon.stop();
  char text[64];
  while (recv(listener, text, sizeof text, MSG_DONTWAIT) > 0) {
  }
  setenv("NOTIFY_SOCKET", path.c_str(), 1);
  setenv("WATCHDOG_USEC", "2", 1);
  ServiceWatchdog watchdog;
  std::this_thread::sleep_for(std::chrono::milliseconds(1));
  watchdog.tick(false);
  EXPECT_LT(recv(listener, text, sizeof text, MSG_DONTWAIT), 0) << "what is not well must not look well";
  watchdog.tick(true);
  EXPECT_EQ(recv(listener, text, sizeof text, MSG_DONTWAIT), 10);
  unsetenv("NOTIFY_SOCKET");
  unsetenv("WATCHDOG_USEC");
  close(listener);
}

TEST(DaemonWatchdog, AHungModuleEndsTheDaemonAndItComesBack) {
  DaemonProcess daemon(DaemonProcess::Transport::plain);
  daemon.useProgram(OSTRELD_FAST_PROGRAM);
  daemon.startThrough({"/bin/sh", OSTREL_SUPERVISE});
  // The limits on time run fast, too.
  ASSERT_TRUE(daemon.start({"--request-time", "86400", "--reply-time", "86400"})) << daemon.log();
  const std::string first = daemon.sessionIdentifier();
  const testing::RawConnection hung = daemon.connectRaw();
  hung.write(requestBytes(daemon, "ostrel_test", sleepFor(1e6)));
  EXPECT_TRUE(eventually([&] {
    return control(daemon, {"status", "--json"}).output.find("\"sleep\"") != std::string::npos;
  }));
  const testing::RawConnection next = daemon.connectRaw();
  next.write(requestBytes(daemon, "ostrel_test", PlistValue::dictionaryOf({{"command", "count"}})));

  EXPECT_TRUE(eventually([&] { return daemon.log().find("started again after status 1") != std::string::npos; }));
  const std::string log = daemon.log();
  EXPECT_THAT(log, HasSubstr("[com.brantle.message.signature ostreld: ostrel_test detected deadlock] requests = "));
  EXPECT_THAT(log, HasSubstr("ostrel_test has waited 10 seconds for its context, which ostrel_test sleep had last"));
  EXPECT_THAT(log, HasSubstr("flock(ostrel_test) FATAL time out"));
  EXPECT_EQ(log.find("hunter2"), std::string::npos);

  EXPECT_TRUE(eventually([&] {
    return daemon.saysWhereItListens() && daemon.sessionIdentifier() != first && !daemon.sessionIdentifier().empty();
  }));
  EXPECT_TRUE(eventually([&] {
    daemon.lookWhereItListens();
    return daemon.send(PlistValue::dictionaryOf({{"command", "count"}}), "ostrel_test").get("count") == PlistValue(0);
  })) << daemon.log();
  EXPECT_EQ(daemon.stop(), 0) << daemon.log();
}

TEST(BatchFile, ReadsEveryForm) {
  std::string fault;
  const auto json = [&](const std::string& text) { return requestsFromText(text, fault); };
  const PlistValue expected = *valueFromJson(
      R"([{"name":"m","request":{"command":"a","text":"two words","n":5}},{"name":"k","request":{"command":"b"}}])",
      fault);
  EXPECT_EQ(json("# remark\n\nm a text='two words' n:int=5\r\n  k\tb  \n"), expected);
  EXPECT_EQ(json("m a text=two\\ words \"n:int=5\"\nk b"), expected);
  EXPECT_EQ(json(jsonText(expected)), expected);
  EXPECT_EQ(json(jsonText(PlistValue::dictionaryOf({{"requestsArray", expected}}))), expected);
  EXPECT_EQ(json(" {\"name\":\"k\",\"request\":{\"command\":\"b\"}}"), PlistValue::arrayOf({expected.at(1)}));
  EXPECT_EQ(json(""), PlistValue::arrayOf({}));
  const struct {
    const char* text;
    const char* fault;
  } wrong[] = {{"m", "line 1: a line is MODULE COMMAND"},
               {"m a\nm a 'b", "line 2: a quote is left open"},
               {"m a x:int=y", "not of the type int"},
               {"[1]", "a batch is an array"},
               {"{\"name\":\"m\"}", "a batch is an array"},
               {"[", "not JSON"},
               {"<plist", "a batch is an array"}};
  for (const auto& [text, reason] : wrong) {
    EXPECT_FALSE(json(text)) << text;
    EXPECT_THAT(fault, HasSubstr(reason)) << text;
  }
}

TEST(BatchCommand, PrintsEveryResponse) {
  DaemonProcess daemon(DaemonProcess::Transport::plain);
  ASSERT_TRUE(daemon.start()) << daemon.log();
  const std::string file = daemon.root() + "/batch";
  writeFile(file, "ostrel_sample echo a='b c'\n");
  EXPECT_EQ(control(daemon, {"batch", file}).output, "ostrel_sample echo:\n  echo:\n    command: echo\n    a: b c\n");
  writeFile(file, "ostrel_sample echo\nostrel_test throw\n");
  for (const char* option : {"--as-dictionary", "--json", "--xml"}) {
    const Outcome outcome = control(daemon, {"batch", file, option});
    EXPECT_EQ(outcome.status, 1) << option;
    EXPECT_EQ(outcome.errors, "ostrelctl: ostrel_test answered NIL_RESPONSE_ERR (out of paper) to throw\n");
    EXPECT_THAT(outcome.output, HasSubstr("ostrel_test")) << option;
  }
  EXPECT_EQ(control(daemon, {"batch", "/does/not/exist"}).status, 2);
  EXPECT_EQ(control(daemon, {"batch"}).status, 2);
  // On a terminal the waiting shows, and is cleared.
  const std::string slow =
      std::string(OSTRELCTL_PROGRAM) + " --root " + daemon.root() + " ostrel_test sleep seconds:real=1.3";
  const Outcome shown = runProgram({"/usr/bin/script", "-qec", slow, "/dev/null"});
  EXPECT_THAT(shown.output, HasSubstr("\r\x1B[Kwaiting for ostrel_test, 1 s\r\x1B[K"));
}

}  // namespace
}  // namespace ostrel
