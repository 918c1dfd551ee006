// The programs of the documentation, run as it says.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Tools/DaemonProcess.h"

namespace ostrel {
namespace {

using testing::DaemonProcess;
using ::testing::HasSubstr;

TEST(Examples, ThePollClientTalksToTheDaemonFromALoopOfItsOwn) {
  for (const auto transport : {DaemonProcess::Transport::plain, DaemonProcess::Transport::tls}) {
    if (transport == DaemonProcess::Transport::tls && !testing::mayUseTlsPort()) continue;
    DaemonProcess daemon(transport);
    ASSERT_TRUE(daemon.start()) << daemon.log();
    const auto run = [&](const std::string& input) {
      return testing::runProgram({"/bin/sh", "-c", input + " | \"$0\" \"$@\"", POLL_CLIENT_PROGRAM, daemon.host(),
                                  std::to_string(daemon.port()), daemon.root() + "/var/ostreld/local_session",
                                  "ostrel_test"});
    };
    const auto answered = run("printf 'count\\nthrow\\n'");
    EXPECT_EQ(answered.status, 0);
    EXPECT_THAT(answered.output, HasSubstr("1: {\n    count = 0;\n}\n"));
    EXPECT_THAT(answered.output, HasSubstr("2: {\n    error = \"NIL_RESPONSE_ERR (out of paper)\";\n}\n"));
    EXPECT_EQ(run("printf 'count\\ncancel\\n'").output, "1: cancelled\n");
    EXPECT_EQ(run("printf ''").output, "");
    daemon.child().send(SIGKILL);
    daemon.child().wait();
    EXPECT_THAT(run("echo count").output, HasSubstr("1: HTTP_REQUEST_FAILED: https://"));
  }
}

}  // namespace
}  // namespace ostrel
