#include <algorithm>
#include <limits>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "Directory/DirectorySessions.h"
#include "Directory/Internal/Released.h"
#include "Directory/ServiceSettings.h"
#include "Platform/DirectoryNode.h"

namespace ostrel {
namespace {

using detail::ReleasedBuffer;

// Asks for the node list, with a buffer of twice the capacity for as long as it does not fit.
DirectoryStatus askForNodes(DirectoryHandle session, ReleasedBuffer& buffer, std::uint32_t& count,
                            DirectoryHandle* continuation) {
  for (;;) {
    const DirectoryStatus status = dsGetDirNodeList(session, buffer.get(), &count, continuation);
    if (status != directoryStatus::bufferTooSmall) return status;
    const std::uint32_t capacity = buffer->capacity;
    if (capacity > std::numeric_limits<std::uint32_t>::max() / 2) return directoryStatus::outOfMemory;
    *buffer.place() = dsDataBufferAllocate(capacity * 2);
    if (!buffer) return directoryStatus::outOfMemory;
  }
}

PlistValue componentsOf(std::string_view path) {
  if (path.starts_with('/')) path.remove_prefix(1);
  PlistValue components = PlistValue::mutableArray();
  for (;;) {
    const std::size_t end = path.find('/');
    components.append(path.substr(0, end));
    if (end == std::string_view::npos) return components.immutableCopy();
    path.remove_prefix(end + 1);
  }
}

DirectoryStatus appendNodes(DirectoryHandle session, const ReleasedBuffer& buffer, std::uint32_t count,
                            PlistValue& matrix) {
  for (std::uint32_t index = 1; index <= count; ++index) {
    detail::ReleasedText path;
    const DirectoryStatus status = DSGetDirNodePathName(session, buffer.get(), index, path.place());
    if (status != directoryStatus::success) return status;
    matrix.append(componentsOf(path.get()));
  }
  return directoryStatus::success;
}

struct Component {
  std::string folded;
  std::string text;
  friend bool operator==(const Component&, const Component&) = default;
  friend bool operator<(const Component& left, const Component& right) {
    return std::tie(left.folded, left.text) < std::tie(right.folded, right.text);
  }
};

// The components at a level, each once, sorted ignoring case. The matrix may have been to a client and back.
std::vector<Component> componentsAt(const PlistValue& matrix, const PlistValue& parent, std::size_t level) {
  std::vector<Component> found;
  for (const PlistValue& path : matrix.elements()) {
    const auto components = path.elements();
    if (components.size() <= level || !components[level].isString()) continue;
    if (level > 0 && (!parent.isString() || components[level - 1] != parent)) continue;
    const std::string_view text = components[level].stringValue();
    found.push_back({foldedCase(text), std::string(text)});
  }
  std::sort(found.begin(), found.end());
  found.erase(std::unique(found.begin(), found.end()), found.end());
  return found;
}

}  // namespace

DirectoryStatus DSGetMatrixOfNodes(DirectoryHandle session, PlistValue* matrix) {
  *matrix = nullptr;
  PlistValue gathered = PlistValue::mutableArray();
  ReleasedBuffer buffer(dsDataBufferAllocate(detail::answerCapacity));
  if (!buffer) return directoryStatus::outOfMemory;
  detail::ReleasedContinuation continuation(session);
  std::uint32_t count = 0;
  do {
    DirectoryStatus status = askForNodes(session, buffer, count, continuation.place());
    if (status == directoryStatus::success) status = appendNodes(session, buffer, count, gathered);
    if (status != directoryStatus::success) return status;
  } while (count > 0 && continuation);
  *matrix = gathered.immutableCopy();
  return directoryStatus::success;
}

PlistValue DSGetNodeFromMatrixOfNodes(const PlistValue& matrix, const PlistValue& parent, long index, long level,
                                      long* count) {
  const auto components =
      level < 0 ? std::vector<Component>{} : componentsAt(matrix, parent, static_cast<std::size_t>(level));
  if (count != nullptr) *count = static_cast<long>(components.size());
  if (index < 0 || static_cast<std::size_t>(index) >= components.size()) return {};
  return components[static_cast<std::size_t>(index)].text;
}

}  // namespace ostrel
