// The host node: the users and groups of the machine, through the name service.
#pragma once

#include <memory>
#include <string>

#include "Platform/DirectoryNode.h"

namespace ostrel::detail {

inline constexpr std::string_view hostNodePath = "/Host";

/// Read-only. Users and groups have the attributes that docs/directory.md lists. Passwords are checked against the
/// host's shadow entries, which only root can read.
class HostNode final : public DirectoryNode {
 public:
  const std::string& path() const override { return path_; }
  bool isReadOnly() const override { return true; }
  DirectoryStatus search(const DirectorySearchRequest& request, const DirectoryIdentityPointer& identity,
                         std::unique_ptr<DirectorySearch>& search) override;
  DirectoryStatus openRecord(std::string_view type, std::string_view name, const DirectoryIdentityPointer& identity,
                             std::unique_ptr<DirectoryRecord>& record) override;
  DirectoryStatus authenticate(std::string_view user, std::string_view password,
                               DirectoryIdentityPointer& identity) override;

 private:
  const std::string path_{hostNodePath};
};

}  // namespace ostrel::detail
