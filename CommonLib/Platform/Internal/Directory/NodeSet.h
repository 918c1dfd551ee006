// The nodes of this host as its configuration tells them.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/DirectoryNode.h"

namespace ostrel::detail {

/// The nodes that a session works on. Immutable; sessions share it and keep it alive.
class NodeSet {
 public:
  using Nodes = std::vector<std::shared_ptr<DirectoryNode>>;

  /// `nodes` in the order of the configuration; `searched` those on the search path, in its order; `local` may be null.
  NodeSet(Nodes nodes, Nodes searched, std::shared_ptr<DirectoryNode> local);

  /// All but the search node.
  const Nodes& nodes() const { return nodes_; }
  const std::shared_ptr<DirectoryNode>& searchNode() const { return search_; }
  /// Null when no node has this path.
  std::shared_ptr<DirectoryNode> nodeAt(std::string_view path) const;
  Nodes nodesOfType(std::uint32_t type) const;

 private:
  Nodes nodes_;
  std::shared_ptr<DirectoryNode> local_;
  std::shared_ptr<DirectoryNode> search_;
};

using NodeSetPointer = std::shared_ptr<const NodeSet>;

/// The nodes of the host as configured now. They are made anew when the configuration file has changed or there is
/// another host root; otherwise all callers share one set.
DirectoryStatus currentNodes(NodeSetPointer& nodes);

/// A set whose only node is the directory of another host.
DirectoryStatus nodesOfHost(std::string_view host, std::uint16_t port, NodeSetPointer& nodes);

/// The path whose components are split at "/" and joined again: "/a//b/" becomes "/a/b".
std::string normalizedNodePath(std::string_view path);

}  // namespace ostrel::detail
