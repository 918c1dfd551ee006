#include "Platform/Internal/Directory/SearchNode.h"

#include <utility>

#include "Platform/Internal/Directory/PasswordHash.h"
#include "Platform/SystemLog.h"

namespace ostrel::detail {
namespace {

// An identity belongs to the node that made it; the others are asked without.
struct SearchIdentity final : DirectoryIdentity {
  const DirectoryNode* node = nullptr;
  DirectoryIdentityPointer identity;
};

bool isPassedOver(const DirectoryNode& node, DirectoryStatus status) {
  if (status != directoryStatus::unreachable) return false;
  logNotice("[%d] directory node %s is unreachable and passed over", processId(), node.path());
  return true;
}

// The nodes' searches one behind the other. Names are not compared: a user in two nodes is answered twice.
class ChainedSearch final : public DirectorySearch {
 public:
  ChainedSearch(std::vector<std::shared_ptr<DirectoryNode>> nodes, DirectorySearchRequest request,
                DirectoryIdentityPointer identity)
      : nodes_(std::move(nodes)), request_(std::move(request)), identity_(std::move(identity)) {}

  DirectoryStatus next(const DirectoryRecordView*& record) override {
    record = nullptr;
    while (at_ < nodes_.size()) {
      const DirectoryStatus status = nextOf(*nodes_[at_], record);
      if (status != directoryStatus::success && !isPassedOver(*nodes_[at_], status)) return status;
      if (record != nullptr) return directoryStatus::success;
      search_.reset();
      ++at_;
    }
    return directoryStatus::success;
  }

  void pause() override {
    if (search_) search_->pause();
  }

 private:
  DirectoryStatus nextOf(DirectoryNode& node, const DirectoryRecordView*& record) {
    if (!search_) {
      const DirectoryStatus status = node.search(request_, identityFor(node, identity_), search_);
      if (status != directoryStatus::success) return status;
    }
    return search_->next(record);
  }

  const std::vector<std::shared_ptr<DirectoryNode>> nodes_;
  const DirectorySearchRequest request_;
  const DirectoryIdentityPointer identity_;
  std::size_t at_ = 0;
  std::unique_ptr<DirectorySearch> search_;
};

}  // namespace

DirectoryIdentityPointer identityFor(const DirectoryNode& node, const DirectoryIdentityPointer& identity) {
  const auto* known = dynamic_cast<const SearchIdentity*>(identity.get());
  return known != nullptr && known->node == &node ? known->identity : nullptr;
}

SearchNode::SearchNode(std::vector<std::shared_ptr<DirectoryNode>> searched) : searched_(std::move(searched)) {}

DirectoryStatus SearchNode::search(const DirectorySearchRequest& request, const DirectoryIdentityPointer& identity,
                                   std::unique_ptr<DirectorySearch>& search) {
  search = std::make_unique<ChainedSearch>(searched_, request, identity);
  return directoryStatus::success;
}

DirectoryStatus SearchNode::openRecord(std::string_view type, std::string_view name,
                                       const DirectoryIdentityPointer& identity,
                                       std::unique_ptr<DirectoryRecord>& record) {
  for (const auto& node : searched_) {
    const DirectoryStatus status = node->openRecord(type, name, identityFor(*node, identity), record);
    if (status != directoryStatus::recordNotFound && !isPassedOver(*node, status)) return status;
  }
  return directoryStatus::recordNotFound;
}

DirectoryStatus SearchNode::authenticate(std::string_view user, std::string_view password,
                                         DirectoryIdentityPointer& identity) {
  for (const auto& node : searched_) {
    auto known = std::make_shared<SearchIdentity>();
    const DirectoryStatus status = node->authenticate(user, password, known->identity);
    if (status == directoryStatus::userUnknown) continue;
    if (status == directoryStatus::success) {
      known->node = node.get();
      identity = std::move(known);
    }
    return status;
  }
  passwordMatches(password, "");  // a user whom nobody knows takes as long as a wrong password
  return directoryStatus::userUnknown;
}

std::vector<DirectoryNode::Fact> SearchNode::facts() const {
  std::vector<Fact> facts = DirectoryNode::facts();
  Fact paths{std::string(directoryName::searchPath), {}};
  for (const auto& node : searched_) paths.values.push_back(node->path());
  facts.push_back(std::move(paths));
  return facts;
}

}  // namespace ostrel::detail
