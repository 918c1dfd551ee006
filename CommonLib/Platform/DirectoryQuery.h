// The directory service as objects: a session, a node, and a query that answers all it finds at once.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Containers/Export.h"
#include "Containers/PlistValue.h"
#include "Platform/DirectoryTypes.h"

namespace ostrel {

class DirectoryNode;

namespace detail {
class NodeSet;
}

/// What to look for, and what to answer of it.
struct DirectoryQuery {
  std::vector<std::string> recordTypes;
  std::string attribute{directoryName::recordName};
  std::uint32_t match = directoryMatch::any;  ///< one of `directoryMatch`
  std::string value;                          ///< "dsRecordsAll": every record, whatever the match type
  std::vector<std::string> attributes;        ///< to answer; "dsAttributesAll" for every one
  std::size_t maximum = 0;                    ///< of records; 0 for no limit
};

/// A record that was found.
struct DirectoryResult {
  std::string recordType;
  /// Attribute name -> array of its values as strings, in order, for those asked for that have values. A mutable
  /// dictionary of mutable arrays. Values that are no UTF-8 are left out.
  PlistValue attributes;
};

/// A node to be asked. Threads: any, several at once.
class OSTREL_EXPORT DirectoryQueryNode {
 public:
  DirectoryQueryNode(std::shared_ptr<const detail::NodeSet> set, std::shared_ptr<DirectoryNode> node);

  const std::string& path() const;
  /// Every record that matches, at most `maximum`, each once, in the node's order. May block on disk or network. On a
  /// failure the result is empty; `status` (may be null) says why, as the calls of DirectoryService.h do.
  std::vector<DirectoryResult> results(const DirectoryQuery& query, DirectoryStatus* status = nullptr) const;

 private:
  std::shared_ptr<const detail::NodeSet> set_;
  std::shared_ptr<DirectoryNode> node_;
};

/// A session. Threads: any, several at once. Nothing here throws except std::bad_alloc.
class OSTREL_EXPORT DirectorySession {
 public:
  /// The session on this host's nodes as they are configured now. Null when the configuration cannot be used.
  static std::shared_ptr<DirectorySession> defaultSession(DirectoryStatus* status = nullptr);

  explicit DirectorySession(std::shared_ptr<const detail::NodeSet> set);

  /// Null (`nodeNotFound`) when no node has this path.
  std::shared_ptr<DirectoryQueryNode> nodeNamed(std::string_view path, DirectoryStatus* status = nullptr) const;
  /// The first node of a type of `directoryNodeType`. Null (`noNodeOfType`) when there is none.
  std::shared_ptr<DirectoryQueryNode> nodeOfType(std::uint32_t type, DirectoryStatus* status = nullptr) const;

 private:
  std::shared_ptr<const detail::NodeSet> set_;
};

}  // namespace ostrel
