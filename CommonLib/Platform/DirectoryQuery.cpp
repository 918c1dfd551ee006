#include "Platform/DirectoryQuery.h"

#include <utility>

#include "Platform/DirectoryNode.h"
#include "Platform/Internal/Directory/MatchTypes.h"
#include "Platform/Internal/Directory/NodeSet.h"

namespace ostrel {
namespace {

DirectoryStatus tell(DirectoryStatus* out, DirectoryStatus status) {
  if (out != nullptr) *out = status;
  return status;
}

DirectoryResult resultOf(const DirectoryRecordView& record) {
  DirectoryResult result{std::string(record.type), PlistValue::mutableDictionary()};
  for (const DirectoryAttribute& attribute : record.attributes) {
    PlistValue values = PlistValue::mutableArray();
    for (const DirectoryValue& value : attribute.values) values.append(PlistValue::stringFromUTF8(value.bytes));
    if (values.count() > 0) result.attributes.set(attribute.name, std::move(values));
  }
  return result;
}

DirectoryStatus collect(DirectoryNode& node, const DirectoryQuery& query, std::vector<DirectoryResult>& results) {
  const DirectorySearchRequest request{
      query.recordTypes, query.attribute, query.match, {query.value}, query.attributes};
  if (!detail::isMatchType(query.match) && !request.asksForAll()) return directoryStatus::matchUnknown;
  std::unique_ptr<DirectorySearch> search;
  DirectoryStatus status = node.search(request, nullptr, search);
  while (status == directoryStatus::success && (query.maximum == 0 || results.size() < query.maximum)) {
    const DirectoryRecordView* record = nullptr;
    status = search->next(record);
    if (record == nullptr) break;
    results.push_back(resultOf(*record));
  }
  return status;
}

}  // namespace

DirectoryQueryNode::DirectoryQueryNode(std::shared_ptr<const detail::NodeSet> set, std::shared_ptr<DirectoryNode> node)
    : set_(std::move(set)), node_(std::move(node)) {}

const std::string& DirectoryQueryNode::path() const { return node_->path(); }

std::vector<DirectoryResult> DirectoryQueryNode::results(const DirectoryQuery& query, DirectoryStatus* status) const {
  std::vector<DirectoryResult> results;
  if (tell(status, collect(*node_, query, results)) != directoryStatus::success) results.clear();
  return results;
}

std::shared_ptr<DirectorySession> DirectorySession::defaultSession(DirectoryStatus* status) {
  detail::NodeSetPointer set;
  if (tell(status, detail::currentNodes(set)) != directoryStatus::success) return nullptr;
  return std::make_shared<DirectorySession>(std::move(set));
}

DirectorySession::DirectorySession(std::shared_ptr<const detail::NodeSet> set) : set_(std::move(set)) {}

std::shared_ptr<DirectoryQueryNode> DirectorySession::nodeNamed(std::string_view path, DirectoryStatus* status) const {
  auto node = set_->nodeAt(detail::normalizedNodePath(path));
  tell(status, node ? directoryStatus::success : directoryStatus::nodeNotFound);
  return node ? std::make_shared<DirectoryQueryNode>(set_, std::move(node)) : nullptr;
}

std::shared_ptr<DirectoryQueryNode> DirectorySession::nodeOfType(std::uint32_t type, DirectoryStatus* status) const {
  auto nodes = set_->nodesOfType(type);
  tell(status, nodes.empty() ? directoryStatus::noNodeOfType : directoryStatus::success);
  return nodes.empty() ? nullptr : std::make_shared<DirectoryQueryNode>(set_, std::move(nodes.front()));
}

}  // namespace ostrel
