#include "Platform/Internal/Directory/LocalNode.h"

#include <algorithm>
#include <utility>

#include "Containers/Utf8.h"
#include "Platform/Internal/Directory/PasswordHash.h"

namespace ostrel::detail {
namespace {

constexpr std::size_t longestValue = 65535;

}  // namespace

bool isValueText(std::string_view text) {
  return text.size() <= longestValue && text.find('\0') == std::string_view::npos && isValidUtf8(text);
}

DirectoryStatus LocalNode::search(const DirectorySearchRequest& request, const DirectoryIdentityPointer&,
                                  std::unique_ptr<DirectorySearch>& search) {
  if (!request.asksForAll() && !std::ranges::all_of(request.patterns, isValueText))
    return directoryStatus::invalidValue;
  search = makeLocalSearch(store_, request);
  return directoryStatus::success;
}

DirectoryStatus LocalNode::openRecord(std::string_view type, std::string_view name, const DirectoryIdentityPointer&,
                                      std::unique_ptr<DirectoryRecord>& record) {
  return onStore([&] {
    const LocalStore::Lease connection(*store_);
    const auto typeId = connection->typeNamed(type);
    const auto found = typeId ? recordNamed(*connection, *typeId, name) : std::nullopt;
    if (!found) throw StoreFailure{directoryStatus::recordNotFound};
    record = makeLocalRecord(store_, *found, *typeId);
  });
}

DirectoryStatus LocalNode::createRecord(std::string_view type, std::string_view name, const DirectoryIdentityPointer&,
                                        std::unique_ptr<DirectoryRecord>& record) {
  return onStore([&] {
    const LocalStore::Lease connection(*store_);
    SqliteTransaction transaction(*connection);
    if (!isLocalName(type)) throw StoreFailure{directoryStatus::invalidName};
    const std::int64_t typeId = connection->makeType(type);
    const std::int64_t made = insertRecord(*connection, typeId, name);
    transaction.commit();
    record = makeLocalRecord(store_, made, typeId);
  });
}

DirectoryStatus LocalNode::authenticate(std::string_view user, std::string_view password, DirectoryIdentityPointer&) {
  std::string hash;
  const DirectoryStatus status = onStore([&] {
    const LocalStore::Lease connection(*store_);
    const auto type = connection->typeNamed(directoryName::users);
    const auto record = type ? recordNamed(*connection, *type, user) : std::nullopt;
    if (!record) throw StoreFailure{directoryStatus::userUnknown};
    SqliteStatement select(*connection, "SELECT hash FROM password WHERE record=?1");
    if (select.with(*record).step()) hash = select.blob(0);
  });
  if (status != directoryStatus::success) return status;
  return passwordMatches(password, hash) ? directoryStatus::success : directoryStatus::passwordRefused;
}

}  // namespace ostrel::detail
