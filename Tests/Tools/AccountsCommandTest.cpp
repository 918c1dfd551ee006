// ostrelctl users and groups against a real daemon.
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "Tools/DaemonProcess.h"
#include "ostrelctl/AccountsText.h"

namespace ostrel {
namespace {

using testing::DaemonProcess;
using ::testing::HasSubstr;
using testing::Outcome;
using testing::runProgram;
using testing::writeFile;

class AccountsCommand : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string bundle = daemon.root() + "/usr/share/ostreld/bundles/ostrel_accounts.bundle";
    std::filesystem::copy_file(OSTREL_ACCOUNTS_BUNDLE, bundle);
    std::filesystem::permissions(bundle, std::filesystem::perms(0755));
    writeFile(daemon.root() + "/etc/ostreld/directory.plist",
              "<plist><dict><key>HostNode</key><false/></dict></plist>");
    ASSERT_TRUE(daemon.start()) << daemon.log();
  }
  Outcome control(std::vector<std::string> words) {
    words.insert(words.begin(), {OSTRELCTL_PROGRAM, "--root", daemon.root()});
    return runProgram(words);
  }
  nlohmann::json json(std::vector<std::string> words) {
    words.insert(words.begin(), "--json");
    return nlohmann::json::parse(control(words).output, nullptr, false);
  }
  DaemonProcess daemon{DaemonProcess::Transport::plain};
};

TEST_F(AccountsCommand, MakesListsAndDeletesUsersAndGroups) {
  const std::string secret = "correct horse battery";
  writeFile(daemon.root() + "/password", secret + "\n");
  const auto made = control({"users", "create", "ada", "--real-name", "Ada Kïng", "--set", "Comment=a=b", "--set",
                             "Comment=c", "--new-password-file", daemon.root() + "/password"});
  EXPECT_EQ(made.status, 0) << made.errors;
  EXPECT_THAT(made.output, HasSubstr("UniqueID: 1000\n"));
  EXPECT_THAT(made.output, HasSubstr("Comment:\n  - a=b\n  - c\n"));
  EXPECT_THAT(made.output, HasSubstr("hasPassword: true\n"));
  EXPECT_EQ(control({"users", "create", "--set", "Comment=x", "bob"}).status, 0) << "a name behind an option";
  EXPECT_EQ(control({"users", "list"}).output,
            "NAME  ID    GROUP  ADMIN  REAL NAME\n"
            "ada   1000  65534  -      Ada Kïng\n"
            "bob   1001  65534  -      bob\n");
  EXPECT_EQ(control({"groups", "create", "admin", "--id", "80", "--add-member", "ada", "--add-member", "bob"}).status,
            0);
  EXPECT_EQ(control({"groups", "list"}).output, "NAME   ID  MEMBERS  REAL NAME\nadmin  80  2\n");
  const auto page = control({"users", "list", "--max", "1"});
  EXPECT_THAT(page.output, HasSubstr("ada   1000  65534  yes"));
  EXPECT_EQ(page.errors, "ostrelctl: there are more than these 1 (--max)\n");
  EXPECT_EQ(json({"users", "list", "--max", "1"})["moreRecords"], true);
  EXPECT_EQ(json({"users", "list", "--match", "idIs=1001"})["recordsArray"][0]["dsAttrTypeStandard:RecordName"], "bob");
  EXPECT_EQ(json({"groups", "list", "--match", "nameContains="})["nbRecords"], 1) << "80 is no system group";
  EXPECT_EQ(control({"users", "change", "ada", "--unset", "Comment", "--shell", "/bin/sh"}).status, 0);
  EXPECT_FALSE(json({"users", "show", "ada"})["record"].contains("dsAttrTypeStandard:Comment"));
  EXPECT_EQ(control({"users", "delete", "bob"}).output, "deleted: bob\n");
  EXPECT_EQ(json({"groups", "show", "admin"})["record"]["dsAttrTypeStandard:Member"], "ada");
  EXPECT_EQ(control({"groups", "delete", "admin"}).status, 0);
  const std::string everything = daemon.log() + made.output + made.errors;
  EXPECT_EQ(everything.find("horse"), std::string::npos) << "a password is nobody's business";
}

TEST_F(AccountsCommand, TellsWhatWasWrong) {
  writeFile(daemon.root() + "/short", "short\n");
  ASSERT_EQ(control({"users", "create", "ada"}).status, 0);
  struct Case {
    std::vector<std::string> words;
    int status;
    const char* errors;
  };
  const Case cases[] = {
      {{"users", "create", "ADA"}, 1, "ADA: there is one with this name or number already"},
      {{"users", "create", "eve", "--id", "1000"}, 1, "there is one with this name or number already"},
      {{"users", "show", "eve"}, 1, "there is no user or group of this name"},
      {{"users", "show", "*"}, 1, "INVALID_ARG_ERR"},
      {{"groups", "create", "g", "--add-member", "eve"}, 1, "no such user to be a member"},
      {{"users", "create", "eve", "--node", "/Search"}, 1, "the node takes no changes"},
      {{"users", "list", "--node", "/None"}, 1, "there is no such node"},
      {{"users", "list", "--match", "nameLooksLike=x"}, 2, "--match takes KEY=TEXT"},
      {{"users", "list", "--match", "nameIs=x", "--starts-with", "y"}, 2, "--match takes KEY=TEXT"},
      {{"users", "list", "--max", "0"}, 2, "--max"},
      {{"users", "list", "--starts-with", "a", "--contains", "b"}, 2, "excludes"},
      {{"users", "change", "ada"}, 2, "nothing is to be changed"},
      {{"users", "change", "ada", "--set", "x"}, 2, "'x' is not ATTRIBUTE=VALUE"},
      {{"users", "change", "ada", "--set", "Password=secret"}, 1, "INVALID_ARG_ERR"},
      {{"users", "create", "eve", "--new-password-file", daemon.root() + "/short"}, 2, "fewer than 8"},
      {{"users", "create", "eve", "--new-password-file", "/does/not/exist"}, 2, "cannot read"},
      {{"users", "create", "eve", "--password", "secret"}, 2, "--password"},
      {{"users", "create"}, 2, "NAME"},
      {{"users"}, 2, "subcommand"},
  };
  for (const Case& c : cases) {
    const Outcome outcome = control(c.words);
    EXPECT_EQ(outcome.status, c.status) << ::testing::PrintToString(c.words) << outcome.errors;
    EXPECT_THAT(outcome.errors, HasSubstr(c.errors)) << ::testing::PrintToString(c.words);
  }
  EXPECT_EQ(control({"users", "list"}).output, "NAME  ID    GROUP  ADMIN  REAL NAME\nada   1000  65534  -      ada\n");
}

TEST(AccountsTable, KeepsColumnsWhateverTheNames) {
  EXPECT_EQ(alignedTable({{"A", "B"}, {"é\x1b[31m", "x\ny"}, {"long name", ""}}),
            "A          B\n"
            "é\\x1B[31m  x y\n"
            "long name\n");
}

}  // namespace
}  // namespace ostrel
