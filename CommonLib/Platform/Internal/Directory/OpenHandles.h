// What the handles of the directory service stand for.
#pragma once

#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "Platform/DirectoryNode.h"
#include "Platform/DirectoryService.h"
#include "Platform/Internal/Directory/HandleTable.h"
#include "Platform/Internal/Directory/NodeSet.h"
#include "Platform/Internal/Directory/PackedBuffer.h"
#include "Platform/Mutex.h"

namespace ostrel::detail {

struct Session {
  NodeSetPointer nodes;
  DirectoryIdentityPointer identity;  ///< of the search node, for a session on another host
};

/// An open node.
class NodeReference {
 public:
  NodeReference(DirectoryHandle session, NodeSetPointer set, std::shared_ptr<DirectoryNode> node,
                DirectoryIdentityPointer identity)
      : session_(session), set_(std::move(set)), node_(std::move(node)), identity_(std::move(identity)) {}

  DirectoryHandle session() const { return session_; }
  DirectoryNode& node() const { return *node_; }
  DirectoryIdentityPointer identity() {
    const MutexLock lock(mutex_);
    return identity_;
  }
  void speakFor(DirectoryIdentityPointer identity) {
    const MutexLock lock(mutex_);
    identity_.swap(identity);
  }

 private:
  const DirectoryHandle session_;
  const NodeSetPointer set_;  ///< keeps what the node leads to
  const std::shared_ptr<DirectoryNode> node_;
  Mutex mutex_;
  DirectoryIdentityPointer identity_ OSTREL_GUARDED_BY(mutex_);
};

struct OpenRecord {
  DirectoryHandle node = 0;
  std::shared_ptr<NodeReference> keep;
  std::unique_ptr<DirectoryRecord> record;
};

/// A search between two calls; the continuation.
struct OpenSearch {
  DirectoryHandle node = 0;
  std::shared_ptr<NodeReference> keep;
  std::unique_ptr<DirectorySearch> search;
  const DirectoryRecordView* pending = nullptr;  ///< found and not yet answered
};

/// An attribute list or a value list: a place in a buffer that a node filled.
struct OpenList {
  DirectoryHandle node = 0;
  PackedPlace place;
};

struct OpenHandles {
  HandleTable<std::shared_ptr<Session>> sessions{1};
  HandleTable<std::shared_ptr<NodeReference>> nodes{2};
  HandleTable<std::shared_ptr<OpenRecord>> records{3};
  HandleTable<std::shared_ptr<OpenSearch>> searches{4};
  HandleTable<OpenList> attributeLists{5};
  HandleTable<OpenList> valueLists{6};

  /// Those of the process.
  static OpenHandles& current();
};

/// Runs the body of an exported operation: nothing leaves it as an exception.
template <class Body>
DirectoryStatus answered(Body&& body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return directoryStatus::outOfMemory;
  } catch (...) {
    return directoryStatus::storageFailed;
  }
}

/// Gives `value` a handle. `outOfMemory` when all are in use.
template <class Value>
DirectoryStatus handOut(HandleTable<Value>& table, Value value, DirectoryHandle* handle) {
  *handle = table.add(std::move(value));
  return *handle == 0 ? directoryStatus::outOfMemory : directoryStatus::success;
}

/// The open node, or null.
inline std::shared_ptr<NodeReference> openNode(DirectoryHandle node) {
  return OpenHandles::current().nodes.find(node).value_or(nullptr);
}

}  // namespace ostrel::detail
