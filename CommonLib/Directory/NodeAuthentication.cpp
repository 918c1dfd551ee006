#include <algorithm>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>

#include "Directory/DirectoryRecords.h"
#include "Directory/DirectorySessions.h"
#include "Directory/Internal/Released.h"
#include "Directory/Internal/SecretBuffer.h"
#include "Directory/Internal/Utf8Text.h"

namespace ostrel {
namespace {

constexpr std::uint32_t usualCapacity = 256;
constexpr std::uint32_t responseCapacity = 256;

void appendCounted(DirectoryDataBuffer& buffer, std::string_view text) {
  const auto length = static_cast<std::uint32_t>(text.size());
  std::memcpy(buffer.bytes() + buffer.length, &length, sizeof length);
  buffer.length += sizeof length;
  std::copy(text.begin(), text.end(), buffer.bytes() + buffer.length);
  buffer.length += length;
}

// The short name of the user, or the given one.
PlistValue nameForAuthentication(DirectoryHandle session, DirectoryHandle node, const PlistValue& user) {
  const auto given = detail::utf8Text(user);
  if (!given) return user;
  detail::ReleasedText name;
  const DirectoryStatus status = DSGetRecordAttributeValueByName(
      session, node, directoryName::users.data(), given->c_str(), directoryName::recordName.data(), name.place());
  return status == directoryStatus::success && name ? PlistValue(name.get()) : user;
}

}  // namespace

namespace detail {

SecretBuffer::SecretBuffer(DirectoryHandle session, const PlistValue& user, const PlistValue& password) {
  const auto userText = utf8Text(user);
  auto givenPassword = utf8Text(password);
  if (!userText || !givenPassword) return;
  std::string& passwordText = *givenPassword;
  DSBuildAuthenticationBuffer(session, userText->c_str(), passwordText.c_str(), &buffer_);
  explicit_bzero(passwordText.data(), passwordText.size());
}

SecretBuffer::~SecretBuffer() {
  if (buffer_ != nullptr) explicit_bzero(buffer_->bytes(), buffer_->length);
  DSDataBufferDeAllocate(&buffer_);
}

}  // namespace detail

DirectoryStatus DSAuthenticateNode(DirectoryHandle session, DirectoryHandle node, const PlistValue& user,
                                   const PlistValue& password) {
  const PlistValue name = nameForAuthentication(session, node, user);
  const detail::ReleasedDataNode method(dsDataNodeAllocateString(directoryName::clearTextMethod.data()));
  const detail::SecretBuffer authentication(session, name, password);
  const detail::ReleasedBuffer response(dsDataBufferAllocate(responseCapacity));
  if (!method || !authentication || !response) return directoryStatus::outOfMemory;
  detail::ReleasedContinuation continuation(node);
  constexpr bool verifyOnly = false;  // the changes that follow on this node are the user's
  return dsDoDirNodeAuth(node, method.get(), verifyOnly, authentication.get(), response.get(), continuation.place());
}

DirectoryStatus DSBuildAuthenticationBuffer(DirectoryHandle /*session*/, const char* user, const char* password,
                                            DirectoryDataBuffer** buffer) noexcept {
  *buffer = nullptr;
  const std::string_view userText = user == nullptr ? "" : user;
  const std::string_view passwordText = password == nullptr ? "" : password;
  const std::size_t needed = 2 * sizeof(std::uint32_t) + userText.size() + passwordText.size();
  if (needed > std::numeric_limits<std::uint32_t>::max()) return directoryStatus::outOfMemory;
  *buffer = dsDataBufferAllocate(std::max(usualCapacity, static_cast<std::uint32_t>(needed)));
  if (*buffer == nullptr) return directoryStatus::outOfMemory;
  appendCounted(**buffer, userText);
  appendCounted(**buffer, passwordText);
  return directoryStatus::success;
}

}  // namespace ostrel
