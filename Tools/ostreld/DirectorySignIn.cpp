#include "ostreld/DirectorySignIn.h"

#include <string.h>

#include "Directory/DirectoryMemory.h"
#include "Directory/DirectoryRecords.h"
#include "Directory/DirectorySessions.h"
#include "Platform/DirectoryMembership.h"

namespace ostrel {
namespace {

/// A session with the search node open; both end with it.
class SearchNodeSession {
 public:
  SearchNodeSession() = default;
  ~SearchNodeSession() {
    DSCloseNode(session_, &node_);
    DSCloseDirectoryServices(&session_);
  }
  SearchNodeSession(const SearchNodeSession&) = delete;
  SearchNodeSession& operator=(const SearchNodeSession&) = delete;

  DirectoryStatus open() {
    char* path = nullptr;
    DirectoryStatus status = DSOpenDirectoryServices({}, 0, {}, {}, &session_);
    if (status == directoryStatus::success)
      status = DSOpenNodeByType(session_, directoryNodeType::search, &node_, &path);
    DSDeallocPointer(&path);
    return status;
  }

  DirectoryStatus checkPassword(const std::string& user, const std::string& password) const {
    DirectoryDataBuffer* buffer = nullptr;
    DirectoryStatus status = DSBuildAuthenticationBuffer(session_, user.c_str(), password.c_str(), &buffer);
    if (status != directoryStatus::success) return status;
    DirectoryDataNode* method = dsDataNodeAllocateString(directoryName::clearTextMethod.data());
    DirectoryHandle continuation = 0;
    status = dsDoDirNodeAuth(node_, method, true, buffer, nullptr, &continuation);
    DSDataNodeDeAllocate(&method);
    explicit_bzero(buffer->bytes(), buffer->capacity);
    DSDataBufferDeAllocate(&buffer);
    return status;
  }

  /// "" when there is none.
  std::string firstValue(const std::string& user, std::string_view attribute) const {
    char* value = nullptr;
    DSGetRecordAttributeValueByName(session_, node_, directoryName::users.data(), user.c_str(), attribute.data(),
                                    &value);
    std::string text(value == nullptr ? "" : value);
    DSDeallocPointer(&value);
    return text;
  }

 private:
  DirectoryHandle session_ = 0;
  DirectoryHandle node_ = 0;
};

}  // namespace

DirectoryStatus checkPassword(const std::string& user, const std::string& password, DirectoryAccount& account) {
  SearchNodeSession session;
  DirectoryStatus status = session.open();
  if (status == directoryStatus::success) status = session.checkPassword(user, password);
  if (status != directoryStatus::success) return status;
  // The record is found by the same rules as its password: by any of its names, in any case.
  account.user = session.firstValue(user, directoryName::recordName);
  account.identifier = directoryUserIdentifier(session.firstValue(user, directoryName::generatedUID),
                                               session.firstValue(user, directoryName::uniqueID));
  // From now on the user goes by its first name, which must not be another's on a node that is asked earlier.
  const auto known = DirectoryMemberships::ofUser(account.user);
  const bool isCertain = known && known->identifier() == account.identifier;
  return isCertain ? directoryStatus::success : directoryStatus::recordNotFound;
}

}  // namespace ostrel
