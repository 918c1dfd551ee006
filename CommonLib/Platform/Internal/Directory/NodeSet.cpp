#include "Platform/Internal/Directory/NodeSet.h"

#include <algorithm>
#include <utility>

#include "Platform/Internal/Directory/SearchNode.h"

namespace ostrel::detail {

NodeSet::NodeSet(Nodes nodes, Nodes searched, std::shared_ptr<DirectoryNode> local)
    : nodes_(std::move(nodes)), local_(std::move(local)), search_(std::make_shared<SearchNode>(std::move(searched))) {}

std::shared_ptr<DirectoryNode> NodeSet::nodeAt(std::string_view path) const {
  if (path == search_->path()) return search_;
  const auto found = std::ranges::find_if(nodes_, [&](const auto& node) { return node->path() == path; });
  return found == nodes_.end() ? nullptr : *found;
}

NodeSet::Nodes NodeSet::nodesOfType(std::uint32_t type) const {
  Nodes found;
  if (type == directoryNodeType::local && local_) found.push_back(local_);
  if (type == directoryNodeType::search) found.push_back(search_);
  if (type == directoryNodeType::locallyHosted)
    std::ranges::copy_if(nodes_, std::back_inserter(found), [](const auto& node) { return node->isLocallyHosted(); });
  return found;
}

std::string normalizedNodePath(std::string_view path) {
  std::string normalized;
  while (!path.empty()) {
    const std::size_t end = path.find('/');
    if (end != 0) normalized.append("/").append(path.substr(0, end));
    path.remove_prefix(end == std::string_view::npos ? path.size() : end + 1);
  }
  return normalized;
}

}  // namespace ostrel::detail
