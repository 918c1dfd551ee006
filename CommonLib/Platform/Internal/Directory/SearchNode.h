// The search node: the nodes of the search path as one.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Platform/DirectoryNode.h"

namespace ostrel::detail {

inline constexpr std::string_view searchNodePath = "/Search";

/// Answers for every node of the search path, in its order. A node whose server is unreachable is passed over by
/// searches and record look-ups; it ends an authentication, because it may know the user.
class SearchNode final : public DirectoryNode {
 public:
  explicit SearchNode(std::vector<std::shared_ptr<DirectoryNode>> searched);

  const std::string& path() const override { return path_; }
  bool isReadOnly() const override { return true; }
  DirectoryStatus search(const DirectorySearchRequest& request, const DirectoryIdentityPointer& identity,
                         std::unique_ptr<DirectorySearch>& search) override;
  /// The record of the first node that has one: changes go to that node.
  DirectoryStatus openRecord(std::string_view type, std::string_view name, const DirectoryIdentityPointer& identity,
                             std::unique_ptr<DirectoryRecord>& record) override;
  DirectoryStatus authenticate(std::string_view user, std::string_view password,
                               DirectoryIdentityPointer& identity) override;
  std::vector<Fact> facts() const override;

 private:
  const std::string path_{searchNodePath};
  const std::vector<std::shared_ptr<DirectoryNode>> searched_;
};

/// The part of an identity of the search node that belongs to `node`; null when it was another that made it.
DirectoryIdentityPointer identityFor(const DirectoryNode& node, const DirectoryIdentityPointer& identity);

}  // namespace ostrel::detail
