// The local node: the records of this host, in a database of its own.
#pragma once

#include <memory>
#include <string>

#include "Platform/DirectoryNode.h"
#include "Platform/Internal/Directory/LocalStore.h"

namespace ostrel::detail {

inline constexpr std::string_view localNodePath = "/Local";

/// Rules of the records here:
/// Types, attribute names and record names are UTF-8 of 1 to 255 bytes without control characters; no record is named
/// "dsRecordsAll". Values are UTF-8 of at most 65,535 bytes without NUL. A record keeps at least one
/// name; no two records of a type have names that differ in case only. "dsAttrTypeStandard:Password" takes one value,
/// which is kept as a yescrypt hash (crypt(5)), is read as "********" and is found by no search; writing "********"
/// leaves it as it is.
/// Changes are made with the rights of the process, whoever was authenticated.
class LocalNode final : public DirectoryNode {
 public:
  /// The database is opened when it is first needed.
  explicit LocalNode(std::string databasePath) : store_(std::make_shared<LocalStore>(std::move(databasePath))) {}

  const std::string& path() const override { return path_; }
  bool isLocallyHosted() const override { return true; }
  DirectoryStatus search(const DirectorySearchRequest& request, const DirectoryIdentityPointer& identity,
                         std::unique_ptr<DirectorySearch>& search) override;
  DirectoryStatus openRecord(std::string_view type, std::string_view name, const DirectoryIdentityPointer& identity,
                             std::unique_ptr<DirectoryRecord>& record) override;
  DirectoryStatus createRecord(std::string_view type, std::string_view name, const DirectoryIdentityPointer& identity,
                               std::unique_ptr<DirectoryRecord>& record) override;
  DirectoryStatus authenticate(std::string_view user, std::string_view password,
                               DirectoryIdentityPointer& identity) override;

 private:
  const std::string path_{localNodePath};
  const std::shared_ptr<LocalStore> store_;
};

/// Runs what works on the store; a failure of it becomes its status.
template <class Work>
DirectoryStatus onStore(Work&& work) {
  try {
    work();
    return directoryStatus::success;
  } catch (const StoreFailure& failure) {
    return failure.status;
  }
}

/// Text that values and patterns can be: UTF-8 of at most 65,535 bytes without NUL.
bool isValueText(std::string_view text);
/// A name of a type or an attribute here.
bool isLocalName(std::string_view text);

/// An open record of the local node.
std::unique_ptr<DirectoryRecord> makeLocalRecord(std::shared_ptr<LocalStore> store, std::int64_t record,
                                                 std::int64_t type);
/// Makes a record with its name, within a transaction. Throws StoreFailure.
std::int64_t insertRecord(LocalConnection& connection, std::int64_t type, std::string_view name);
/// Makes many records in one transaction, each with its name and the values of its attributes besides the name: to fill
/// a database of measurements, for which single changes would take minutes. Passwords are not taken.
OSTREL_EXPORT DirectoryStatus importRecords(const std::string& databasePath,
                                            std::span<const DirectoryRecordView> records);
/// The record that has this name, whatever its case.
std::optional<std::int64_t> recordNamed(LocalConnection& connection, std::int64_t type, std::string_view name);

std::unique_ptr<DirectorySearch> makeLocalSearch(std::shared_ptr<LocalStore> store, DirectorySearchRequest request);

}  // namespace ostrel::detail
