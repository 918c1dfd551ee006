// The session identifier that the daemon leaves for its own user.
#include "ostreld/RunningFiles.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "Platform/UserDatabase.h"

namespace ostrel {
namespace {

using ::testing::MatchesRegex;

class OneUser final : public UserDatabase {
 public:
  explicit OneUser(std::string name) : name_(std::move(name)) {}
  std::optional<UserEntry> userNamed(const std::string&) override { return std::nullopt; }
  std::optional<UserEntry> userWithId(uid_t uid) override {
    UserEntry user;
    user.name = name_;
    user.uid = uid;
    return user;
  }
  std::optional<GroupEntry> groupNamed(const std::string&) override { return std::nullopt; }
  std::optional<GroupEntry> groupWithId(gid_t) override { return std::nullopt; }
  std::vector<gid_t> groupsOfUser(const std::string&) override { return {}; }

 private:
  const std::string name_;
};

TEST(SessionIdentifier, IsOneWordOfAHeaderWhateverTheUserIsCalled) {
  const std::string number = std::to_string(geteuid());
  const std::pair<std::string, std::string> cases[] = {
      {"root", "root"},      {"a.b-c_d$", "a.b-c_d\\$"}, {"", number},          {"a@b", number},
      {"two words", number}, {"r\u00f6t", number},       {"a\r\nX: y", number},
  };
  for (const auto& [name, shown] : cases) {
    OneUser users(name);
    const ScopedOverride<UserDatabase> override(users);
    EXPECT_THAT(makeSessionIdentifier().value_or(""), MatchesRegex(shown + "@[A-Za-z0-9]+")) << name;
  }
}

}  // namespace
}  // namespace ostrel
