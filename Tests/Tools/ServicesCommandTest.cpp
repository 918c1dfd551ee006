// ostrelctl services, on a host below a temporary root.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "Tools/ChildProcess.h"

namespace ostrel {
namespace {

using testing::Outcome;
using testing::readFile;
using testing::TemporaryFolder;
using testing::writeFile;

TEST(ServicesCommand, SwitchesAndTells) {
  const TemporaryFolder root;
  const auto services = [&](std::vector<std::string> words) {
    words.insert(words.begin(), {OSTRELCTL_PROGRAM, "services", "--root", root.path()});
    return testing::runProgram(words);
  };
  const std::string path = root / "maild.plist";
  writeFile(path,
            "<plist><dict><key>Label</key><string>com.example.maild</string><key>ProgramArguments</key>"
            "<array><string>/usr/sbin/maild</string></array></dict></plist>");
  std::filesystem::permissions(path, std::filesystem::perms(0644));
  EXPECT_EQ(services({"enable", path}).status, 0);
  EXPECT_NE(readFile(root / "etc/systemd/system/com.example.maild.service").find("\"/usr/sbin/maild\""),
            std::string::npos);
  for (const std::string& name : {path, std::string("com.example.maild")})
    EXPECT_EQ(services({"show", name}).output, "enabled: true\n") << name;
  EXPECT_EQ(services({"disable", "com.example.maild"}).status, 0);
  EXPECT_EQ(services({"show", "com.example.maild", "--json"}).output, "{\n  \"enabled\": false\n}\n");

  // Refused with one line each.
  const struct {
    std::vector<std::string> words;
    int status;
    std::string errors;
  } cases[] = {
      {{"enable", "absent"}, 1, "ostrelctl: absent could not be switched on\n"},
      {{"disable", "../x"}, 1, "ostrelctl: ../x could not be switched off\n"},
      {{"list"}, 1, "ostrelctl: no service manager answers\n"},
      {{"turn"}, 2, ""},
  };
  for (const auto& [words, status, errors] : cases) {
    const Outcome outcome = services(words);
    EXPECT_EQ(outcome.status, status);
    if (!errors.empty()) {
      EXPECT_EQ(outcome.errors, errors);
    }
    EXPECT_EQ(outcome.output, "");
  }
}

}  // namespace
}  // namespace ostrel
