// A directory node and the changes of its records that the commands are made of.
#pragma once

#include <string>
#include <vector>

#include "AccountKind.h"
#include "Containers/PlistValue.h"
#include "Platform/DirectoryTypes.h"

namespace ostrel::accounts {

/// An open node with a session of its own. Threads: one at a time. Blocks on the node's disk or network.
class AccountNode {
 public:
  explicit AccountNode(std::string path);
  ~AccountNode();
  AccountNode(const AccountNode&) = delete;
  AccountNode& operator=(const AccountNode&) = delete;

  DirectoryStatus open();
  const std::string& path() const { return path_; }
  DirectoryHandle session() const { return session_; }
  DirectoryHandle node() const { return node_; }

  DirectoryStatus create(const AccountKind& kind, const std::string& name);
  DirectoryStatus remove(const AccountKind& kind, const std::string& name);

  /// All values of an attribute.
  DirectoryStatus values(const AccountKind& kind, const std::string& name, std::string_view attribute,
                         std::vector<std::string>& values) const;
  /// Makes these the attribute's values, none of them: removes it. Reads them back: `invalidValue` when the node did
  /// not take them.
  DirectoryStatus set(const AccountKind& kind, const std::string& name, std::string_view attribute,
                      const std::vector<std::string>& values);
  DirectoryStatus append(const AccountKind& kind, const std::string& name, std::string_view attribute,
                         const std::string& value);
  DirectoryStatus removeValue(const AccountKind& kind, const std::string& name, std::string_view attribute,
                              const std::string& value);
  DirectoryStatus setPassword(const std::string& user, const std::string& password);

  /// Whether a record of the kind has this number; the lowest from 1000 up that no user of the node or of the search
  /// path has.
  DirectoryStatus isNumberTaken(const AccountKind& kind, const std::string& number, bool& taken) const;
  DirectoryStatus freeUserNumber(std::string& number) const;

 private:
  std::string path_;
  DirectoryHandle session_ = 0;
  DirectoryHandle node_ = 0;
};

/// The record of a name on a node, with all its attributes but the password, of which "hasPassword" tells.
/// `recordNotFound` when there is none.
DirectoryStatus findRecord(const AccountKind& kind, const PlistValue& nodePath, const std::string& name,
                           PlistValue& record);

/// The first value of an attribute in a record of a listing; "" without one.
std::string firstValue(const PlistValue& record, std::string_view attribute);

}  // namespace ostrel::accounts
