#include "Directory/DirectorySessions.h"

#include <string.h>

#include "Directory/Internal/Released.h"
#include "Directory/Internal/SearchPath.h"
#include "Directory/Internal/SecretBuffer.h"
#include "Directory/Internal/Utf8Text.h"

namespace ostrel {
namespace {

using detail::ReleasedBuffer;
using detail::ReleasedContinuation;
using detail::ReleasedDataNode;
using detail::ReleasedList;
using detail::ReleasedSession;
using detail::ReleasedText;
using detail::SecretBuffer;

constexpr std::uint32_t foundNodesCapacity = 2048;
constexpr std::uint32_t responseCapacity = 256;

DirectoryStatus openProxySession(const PlistValue& host, std::int32_t port, const PlistValue& user,
                                 const PlistValue& password, DirectoryHandle* session) {
  ReleasedSession temporary;
  const DirectoryStatus status = dsOpenDirService(temporary.place());
  if (status != directoryStatus::success) return status;
  const auto hostText = detail::utf8Text(host);
  const ReleasedDataNode method(dsDataNodeAllocateString(directoryName::clearTextMethod.data()));
  const SecretBuffer authentication(temporary.get(), user, password);
  const ReleasedBuffer response(dsDataBufferAllocate(responseCapacity));
  if (!hostText || !method || !authentication || !response) return directoryStatus::outOfMemory;
  return dsOpenDirServiceProxy(session, hostText->c_str(), port, method.get(), authentication.get(), response.get(),
                               nullptr);
}

// The path of the found node that stands furthest behind in the search path.
DirectoryStatus pathOfLastSearched(DirectoryHandle session, const DirectoryDataBuffer* buffer, std::uint32_t count,
                                   ReleasedText& best) {
  long bestLevel = -1;
  for (std::uint32_t index = 1; index <= count; ++index) {
    ReleasedText path;
    DirectoryStatus status = DSGetDirNodePathName(session, buffer, index, path.place());
    if (status != directoryStatus::success) return status;
    long level = -1;
    status = detail::levelInSearchPath(session, path.get(), level);
    if (status != directoryStatus::success) return status;
    if (level < bestLevel) continue;
    bestLevel = level;
    *best.place() = path.take();
  }
  return directoryStatus::success;
}

}  // namespace

DirectoryStatus DSOpenDirectoryServices(const PlistValue& host, std::int32_t port, const PlistValue& user,
                                        const PlistValue& password, DirectoryHandle* session) {
  *session = 0;
  if (host.isNull() || user.isNull() || password.isNull()) return dsOpenDirService(session);
  return openProxySession(host, port, user, password, session);
}

DirectoryStatus DSCloseDirectoryServices(DirectoryHandle* session) noexcept {
  const DirectoryHandle closed = std::exchange(*session, 0);
  return closed == 0 ? directoryStatus::success : dsCloseDirService(closed);
}

DirectoryStatus DSOpenNodeByPath(DirectoryHandle session, const char* path, DirectoryHandle* node) noexcept {
  *node = 0;
  const ReleasedList name(dsBuildFromPath(path, "/"));
  return name ? dsOpenDirNode(session, name.get(), node) : directoryStatus::outOfMemory;
}

DirectoryStatus DSOpenNodeByType(DirectoryHandle session, std::uint32_t nodeType, DirectoryHandle* node,
                                 char** path) noexcept {
  *node = 0;
  *path = nullptr;
  const ReleasedBuffer buffer(dsDataBufferAllocate(foundNodesCapacity));
  if (!buffer) return directoryStatus::outOfMemory;
  ReleasedContinuation continuation(session);
  std::uint32_t count = 0;
  DirectoryStatus status = dsFindDirNodes(session, buffer.get(), nodeType, &count, continuation.place());
  // The count decides before the status: a search that failed found none.
  if (count == 0) return directoryStatus::noNodeOfType;
  if (status != directoryStatus::success) return status;
  ReleasedText found;
  status = nodeType == directoryNodeType::locallyHosted ? pathOfLastSearched(session, buffer.get(), count, found)
                                                        : DSGetDirNodePathName(session, buffer.get(), 1, found.place());
  if (status != directoryStatus::success) return status;
  if (!found) return directoryStatus::nodeNotFound;
  status = DSOpenNodeByPath(session, found.get(), node);
  if (status == directoryStatus::success) *path = found.take();
  return status;
}

DirectoryStatus DSCloseNode(DirectoryHandle /*session*/, DirectoryHandle* node) noexcept {
  const DirectoryHandle closed = std::exchange(*node, 0);
  return closed == 0 ? directoryStatus::success : dsCloseDirNode(closed);
}

DirectoryStatus DSGetDirNodePathName(DirectoryHandle session, const DirectoryDataBuffer* buffer, std::uint32_t index,
                                     char** path) noexcept {
  *path = nullptr;
  ReleasedList name;
  const DirectoryStatus status = dsGetDirNodeName(session, buffer, index, name.place());
  if (status != directoryStatus::success) return status;
  *path = dsGetPathFromList(name.get(), "/");
  return *path == nullptr ? directoryStatus::outOfMemory : directoryStatus::success;
}

PlistValue DSGetDefaultLocalNodePath(DirectoryHandle session) {
  ReleasedSession own;
  if (session == 0) {
    if (DSOpenDirectoryServices(nullptr, 0, nullptr, nullptr, own.place()) != directoryStatus::success) return {};
    session = own.get();
  }
  const ReleasedBuffer buffer(dsDataBufferAllocate(foundNodesCapacity));
  if (!buffer) return {};
  ReleasedContinuation continuation(session);
  std::uint32_t count = 0;
  const DirectoryStatus status =
      dsFindDirNodes(session, buffer.get(), directoryNodeType::local, &count, continuation.place());
  ReleasedText path;
  if (status != directoryStatus::success || count == 0 ||
      DSGetDirNodePathName(session, buffer.get(), 1, path.place()) != directoryStatus::success)
    return {};
  return PlistValue::stringFromUTF8(path.get());
}

}  // namespace ostrel
