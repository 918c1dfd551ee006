#include "ostrelctl/LocalAdministrator.h"

#include <algorithm>
#include <string_view>
#include <utility>
#include <vector>

#include "Containers/Format.h"
#include "Directory/DirectoryIdentifiers.h"
#include "Directory/DirectoryMemory.h"
#include "Directory/DirectoryRecords.h"
#include "Directory/DirectorySessions.h"
#include "Platform/DirectoryQuery.h"

namespace ostrel {
namespace {

constexpr const char* administrators = "admin";
constexpr const char* users = directoryName::users.data();
constexpr const char* groups = directoryName::groups.data();
constexpr int firstNumber = 501;
constexpr int lastNumber = 60'000;

std::string textOf(DirectoryStatus status) {
  switch (status) {
    case directoryStatus::configurationFault:
      return "the directory's configuration cannot be used: see the system log";
    case directoryStatus::storageFailed:
      return "the local directory cannot be read or written: run this as the user that ostreld runs as; the system "
             "log tells more";
    case directoryStatus::dataDamaged:
      return "the local directory is damaged: see the system log";
    case directoryStatus::busy:
      return "somebody else keeps the local directory busy: try again";
    case directoryStatus::invalidName:
      return "that cannot be a user's name";
    case directoryStatus::recordNotFound:
      return "the local directory has no such user";
    default:
      return format("the directory answers %d", status);
  }
}

/// A failure of the directory, with its text.
struct Failure {
  std::string text;
};

void check(DirectoryStatus status) {
  if (status != directoryStatus::success) throw Failure{textOf(status)};
}

/// Runs what throws failures.
template <class Work>
bool succeeds(Work&& work, std::string& fault) {
  try {
    work();
    return true;
  } catch (const Failure& failure) {
    fault = failure.text;
    return false;
  }
}

/// The local node, open for changes.
class LocalNode {
 public:
  LocalNode() {
    char* path = nullptr;
    DirectoryStatus status = DSOpenDirectoryServices({}, 0, {}, {}, &session_);
    if (status == directoryStatus::success)
      status = DSOpenNodeByType(session_, directoryNodeType::local, &node_, &path);
    DSDeallocPointer(&path);
    if (status != directoryStatus::success) close();
    check(status);
  }
  ~LocalNode() { close(); }
  LocalNode(const LocalNode&) = delete;
  LocalNode& operator=(const LocalNode&) = delete;

  void makeSureOf(const char* type, const std::string& name) {
    const DirectoryStatus status = DSCreateRecordByName(session_, node_, type, name.c_str());
    if (status != directoryStatus::recordExists) check(status);
  }
  /// "" when there is none.
  std::string value(const char* type, const std::string& name, std::string_view attribute) {
    char* read = nullptr;
    check(DSGetRecordAttributeValueByName(session_, node_, type, name.c_str(), attribute.data(), &read));
    std::string text(read == nullptr ? "" : read);
    DSDeallocPointer(&read);
    return text;
  }
  void set(const char* type, const std::string& name, std::string_view attribute, const std::string& value) {
    check(DSSetRecordAttributeValueByName(session_, node_, type, name.c_str(), attribute.data(), value.c_str()));
  }
  /// Only where it has no value: what is there was there first, or is what an interrupted run has done.
  void setIfMissing(const char* type, const std::string& name, std::string_view attribute, const std::string& text) {
    if (value(type, name, attribute).empty()) set(type, name, attribute, text);
  }
  void addIfMissing(const char* type, const std::string& name, std::string_view attribute, const std::string& text) {
    for (std::uint32_t index = 1;; ++index) {
      char* read = nullptr;
      const DirectoryStatus status =
          DSGetRecordAttributeValueByNameAndIndex(session_, node_, type, name.c_str(), attribute.data(), index, &read);
      const bool isThere = read != nullptr && text == read;
      DSDeallocPointer(&read);
      if (isThere) return;
      if (status == directoryStatus::noSuchValue) {
        return check(DSSetRecordAttributeValueByNameAndIndex(session_, node_, type, name.c_str(), attribute.data(),
                                                             index, text.c_str()));
      }
      check(status);
    }
  }

 private:
  void close() {
    DSCloseNode(session_, &node_);
    DSCloseDirectoryServices(&session_);
  }

  DirectoryHandle session_ = 0;
  DirectoryHandle node_ = 0;
};

using Records = std::vector<DirectoryResult>;

/// The records of one node, or of those on the search path, that have exactly this value.
Records recordsWith(std::uint32_t nodeType, std::string_view type, std::string_view attribute,
                    const std::string& value) {
  DirectoryStatus status = directoryStatus::success;
  const auto session = DirectorySession::defaultSession(&status);
  check(status);
  const auto node = session->nodeOfType(nodeType, &status);
  check(status);
  auto found = node->results({{std::string(type)},
                              std::string(attribute),
                              directoryMatch::exact,
                              value,
                              {std::string(directoryName::allAttributes)},
                              0},
                             &status);
  check(status);
  return found;
}

bool isFree(std::string_view type, std::string_view attribute, int number) {
  return recordsWith(directoryNodeType::search, type, attribute, std::to_string(number)).empty();
}

std::string freeNumber(std::string_view type, std::string_view attribute) {
  for (int number = firstNumber; number <= lastNumber; ++number) {
    if (isFree(type, attribute, number)) return std::to_string(number);
  }
  throw Failure{"there is no free number"};
}

std::string newIdentifier() {
  const PlistValue identifier = DSGenerateUniqueIdentifier();
  if (identifier.isNull()) throw Failure{"the kernel gives no identifier"};
  return std::string(identifier.stringValue());
}

/// Whether the directory lets a member of "admin" sign in.
bool canSignIn(const std::string& name) {
  const Records local = recordsWith(directoryNodeType::local, directoryName::users, directoryName::recordName, name);
  if (!local.empty()) return local.front().attributes.get(directoryName::password).count() > 0;
  return !recordsWith(directoryNodeType::search, directoryName::users, directoryName::recordName, name).empty();
}

void refuseForeignName(const std::string& user) {
  const Records local = recordsWith(directoryNodeType::local, directoryName::users, directoryName::recordName, user);
  const Records all = recordsWith(directoryNodeType::search, directoryName::users, directoryName::recordName, user);
  if (all.size() > local.size()) {
    throw Failure{format("%s is a user of this host or of another node already: choose another name", user)};
  }
}

}  // namespace

std::optional<std::string> knownAdministrator(std::string& fault) {
  std::optional<std::string> known;
  succeeds(
      [&] {
        const Records group =
            recordsWith(directoryNodeType::local, directoryName::groups, directoryName::recordName, administrators);
        if (group.empty()) return;
        for (const std::string_view attribute : {directoryName::member, directoryName::groupMembership}) {
          const PlistValue members = group.front().attributes.get(attribute);
          for (const PlistValue& member : members.elements()) {
            const std::string name(member.stringValue());
            if (!known && canSignIn(name)) known = name;
          }
        }
      },
      fault);
  return known;
}

bool makeAdministrator(const std::string& user, const std::string& realName, const std::string& password,
                       std::string& fault) {
  const auto make = [&] {
    refuseForeignName(user);
    LocalNode node;
    node.makeSureOf(groups, administrators);
    if (node.value(groups, administrators, directoryName::primaryGroupID).empty()) {
      node.set(groups, administrators, directoryName::primaryGroupID,
               freeNumber(directoryName::groups, directoryName::primaryGroupID));
    }
    node.setIfMissing(groups, administrators, directoryName::generatedUID, newIdentifier());
    node.setIfMissing(groups, administrators, directoryName::realName, "Administrators");

    node.makeSureOf(users, user);
    node.setIfMissing(users, user, directoryName::generatedUID, newIdentifier());
    if (node.value(users, user, directoryName::uniqueID).empty()) {
      node.set(users, user, directoryName::uniqueID, freeNumber(directoryName::users, directoryName::uniqueID));
    }
    node.setIfMissing(users, user, directoryName::realName, realName.empty() ? user : realName);
    node.setIfMissing(users, user, directoryName::primaryGroupID,
                      node.value(groups, administrators, directoryName::primaryGroupID));
    node.set(users, user, directoryName::password, password);

    const std::string name = node.value(users, user, directoryName::recordName);
    node.addIfMissing(groups, administrators, directoryName::groupMembers,
                      node.value(users, user, directoryName::generatedUID));
    node.addIfMissing(groups, administrators, directoryName::groupMembership, name);
    node.addIfMissing(groups, administrators, directoryName::member, name);
  };
  return succeeds(make, fault);
}

bool setLocalPassword(const std::string& user, const std::string& password, std::string& fault) {
  return succeeds([&] { LocalNode().set(users, user, directoryName::password, password); }, fault);
}

}  // namespace ostrel
