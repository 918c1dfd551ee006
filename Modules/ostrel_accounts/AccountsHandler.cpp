// The accounts module: lists, shows, makes, changes and deletes users and groups of a directory node.
#include <string>

#include "AccountArguments.h"
#include "AccountListings.h"
#include "AccountNode.h"
#include "Containers/ErrorCodes.h"
#include "Directory/DirectoryIdentifiers.h"
#include "Directory/GroupRecords.h"
#include "GroupMembers.h"
#include "Platform/Mutex.h"
#include "PluginFramework/PluginRequestHandler.h"

namespace ostrel::accounts {
namespace {

/// {"error", "status"}: the code for what the directory answered, and that itself.
PlistValue failure(DirectoryStatus status) {
  const char* code = errors::invalidArgument;  // the node, the name or a value is not as the request has it
  switch (status) {
    case directoryStatus::outOfMemory:
      code = errors::cannotAllocate;
      break;
    case directoryStatus::dataDamaged:
    case directoryStatus::busy:
    case directoryStatus::storageFailed:
    case directoryStatus::unreachable:
    case directoryStatus::configurationFault:
    case directoryStatus::limitExceeded:
      code = errors::cannotRunBundle;
      break;
    default:
      break;
  }
  return PlistValue::dictionaryOf({{"error", code}, {"status", status}});
}

/// Everything that a command which changes an account is given.
struct Order {
  std::string nodePath;
  std::string name;
  AttributeChanges changes;
  std::string password;  ///< "": not given
  std::vector<std::string> addedMembers;
  std::vector<std::string> removedMembers;
};

std::optional<Order> orderIn(const AccountKind& kind, const PlistValue& request) {
  const bool isGroup = kind.type == groups.type;
  const auto path = nodePathOf(request);
  const auto name = recordNameIn(request.get("name"));
  const auto changes = attributeChangesIn(request);
  const auto password = passwordIn(request);
  const auto added = namesIn(request, "addMembers");
  const auto removed = namesIn(request, "removeMembers");
  if (!path || !name || !changes || !password || !added || !removed) return std::nullopt;
  if (isGroup ? !password->empty() : !added->empty() || !removed->empty()) return std::nullopt;
  return Order{*path, *name, *changes, *password, *added, *removed};
}

PlistValue shown(const AccountKind& kind, const std::string& nodePath, const std::string& name) {
  PlistValue record;
  DirectoryStatus status = findRecord(kind, nodePath, name, record);
  if (status == directoryStatus::success && kind.type == groups.type) {
    PlistValue resolved;
    status = DSGetGroupRecordInfo(nodePath, firstValue(record, directoryName::recordName), resolved);
    for (const PlistEntry& entry : resolved.entries()) record.set(entry.keyText(), entry.value);
  }
  if (status != directoryStatus::success) return failure(status);
  return PlistValue::dictionaryOf({{"nodePath", nodePath}, {"record", record}});
}

DirectoryStatus refuseTakenNumber(const AccountNode& node, const AccountKind& kind, const Order& order,
                                  const std::string& present) {
  const std::string* number = valueSetFor(order.changes, kind.numberAttribute);
  if (number == nullptr || *number == present) return directoryStatus::success;
  bool taken = false;
  const DirectoryStatus status = node.isNumberTaken(kind, *number, taken);
  return taken ? directoryStatus::recordExists : status;
}

DirectoryStatus applyMembers(AccountNode& node, const Order& order) {
  for (const std::string& user : order.addedMembers) {
    GroupMember member;
    DirectoryStatus status = findMember(node, user, member);
    if (status == directoryStatus::success) status = addMember(node, order.name, member);
    if (status != directoryStatus::success) return status;
  }
  for (const std::string& user : order.removedMembers) {
    GroupMember member;
    DirectoryStatus status = findMember(node, user, member);
    // One that is gone can still be taken out.
    if (status == directoryStatus::recordNotFound) member = {{user}, ""};
    if (status == directoryStatus::recordNotFound || status == directoryStatus::success)
      status = removeMember(node, order.name, member);
    if (status != directoryStatus::success) return status;
  }
  return directoryStatus::success;
}

DirectoryStatus apply(AccountNode& node, const AccountKind& kind, const Order& order) {
  for (const auto& [attribute, values] : order.changes) {
    const DirectoryStatus status = node.set(kind, order.name, attribute, values);
    if (status != directoryStatus::success) return status;
  }
  if (!order.password.empty()) {
    const DirectoryStatus status = node.setPassword(order.name, order.password);
    if (status != directoryStatus::success) return status;
  }
  return applyMembers(node, order);
}

/// What a user has to have and was not given.
DirectoryStatus completeUser(AccountNode& node, Order& order) {
  constexpr const char* noGroup = "65534";
  DirectoryStatus status = directoryStatus::success;
  if (valueSetFor(order.changes, directoryName::uniqueID) == nullptr) {
    std::string number;
    status = node.freeUserNumber(number);
    order.changes.push_back({std::string(directoryName::uniqueID), {number}});
  }
  if (valueSetFor(order.changes, directoryName::primaryGroupID) == nullptr)
    order.changes.push_back({std::string(directoryName::primaryGroupID), {noGroup}});
  if (valueSetFor(order.changes, directoryName::realName) == nullptr)
    order.changes.push_back({std::string(directoryName::realName), {order.name}});
  return status;
}

/// An LDAP server gives identifiers by itself.
DirectoryStatus giveIdentifier(AccountNode& node, const Order& order) {
  std::vector<std::string> present;
  const DirectoryStatus status = node.values(users, order.name, directoryName::generatedUID, present);
  if (status != directoryStatus::success || !present.empty()) return status;
  const PlistValue identifier = DSGenerateUniqueIdentifier();
  if (identifier.isNull()) return directoryStatus::outOfMemory;
  return node.set(users, order.name, directoryName::generatedUID, {std::string(identifier.stringValue())});
}

DirectoryStatus makeUser(AccountNode& node, Order& order) {
  DirectoryStatus status = completeUser(node, order);
  if (status == directoryStatus::success) status = node.create(users, order.name);
  if (status != directoryStatus::success) return status;
  status = apply(node, users, order);
  if (status == directoryStatus::success) status = giveIdentifier(node, order);
  if (status != directoryStatus::success) node.remove(users, order.name);  // whole or not at all
  return status;
}

DirectoryStatus makeGroup(AccountNode& node, Order& order) {
  std::vector<std::string> names;
  DirectoryStatus status = node.values(groups, order.name, directoryName::recordName, names);
  if (status == directoryStatus::success) return directoryStatus::recordExists;
  if (status != directoryStatus::recordNotFound) return status;
  PlistValue identifiers = PlistValue::mutableDictionary();
  for (const std::string_view attribute : {directoryName::primaryGroupID, directoryName::generatedUID})
    if (const std::string* value = valueSetFor(order.changes, attribute)) identifiers.set(attribute, *value);
  std::erase_if(order.changes, [&](const auto& change) { return identifiers.contains(change.first); });
  status = DSSetGroupRecordInfo(node.path(), order.name, identifiers);
  if (status == directoryStatus::success) status = apply(node, groups, order);
  if (status != directoryStatus::success) DSSetGroupRecordInfo(node.path(), order.name, nullptr);
  return status;
}

DirectoryStatus removeAccount(AccountNode& node, const AccountKind& kind, const std::string& name) {
  if (kind.type == groups.type) return DSSetGroupRecordInfo(node.path(), name, nullptr);
  // Whoever gets the name next must not find himself in this user's groups.
  PlistValue record;
  DirectoryStatus status = findRecord(kind, node.path(), name, record);
  GroupMember member;
  if (status == directoryStatus::success) status = findMember(node, name, member);
  if (status == directoryStatus::success) status = removeFromAllGroups(node, member);
  return status == directoryStatus::success ? node.remove(kind, name) : status;
}

}  // namespace

/// Directories may be slow: each command first lets go of the module's context, in which it keeps nothing. Changes are
/// made one after another all the same, so that two do not get one number.
class AccountsHandler : public PluginRequestHandler {
 public:
  AccountsHandler() : PluginRequestHandler(operations()) {}

  // {"nodePath" (optional everywhere), ...}: see AccountListings.h. Answers as the listings of Directory/ do.
  PlistValue listUsersWithRequest(const PlistValue& request) { return list(users, request); }
  PlistValue listGroupsWithRequest(const PlistValue& request) { return list(groups, request); }

  // {"name"}: {"nodePath", "record"}.
  PlistValue showUserWithRequest(const PlistValue& request) { return show(users, request); }
  PlistValue showGroupWithRequest(const PlistValue& request) { return show(groups, request); }

  // {"name", "attributes", "password" (users), "addMembers" and "removeMembers" (groups)}: the record, as it is shown.
  PlistValue createUserWithRequest(const PlistValue& request) { return create(users, request, makeUser); }
  PlistValue createGroupWithRequest(const PlistValue& request) { return create(groups, request, makeGroup); }
  PlistValue changeUserWithRequest(const PlistValue& request) { return change(users, request); }
  PlistValue changeGroupWithRequest(const PlistValue& request) { return change(groups, request); }

  // {"name"}: {"nodePath", "deleted"}.
  PlistValue deleteUserWithRequest(const PlistValue& request) { return erase(users, request); }
  PlistValue deleteGroupWithRequest(const PlistValue& request) { return erase(groups, request); }

 private:
  PlistValue list(const AccountKind& kind, const PlistValue& request) {
    unlockContext();
    const PlistValue listing = listAccounts(kind, request);
    if (listing.isNull()) return responseForError(errors::invalidArgument);
    const auto status = static_cast<DirectoryStatus>(listing.get("status").int64Value());
    return status == directoryStatus::success ? listing : failure(status);
  }

  PlistValue show(const AccountKind& kind, const PlistValue& request) {
    unlockContext();
    const auto path = nodePathOf(request);
    const auto name = recordNameIn(request.get("name"));
    if (!path || !name) return responseForError(errors::invalidArgument);
    return shown(kind, *path, *name);
  }

  PlistValue create(const AccountKind& kind, const PlistValue& request,
                    DirectoryStatus (*make)(AccountNode& node, Order& order)) {
    unlockContext();
    auto order = orderIn(kind, request);
    if (!order) return responseForError(errors::invalidArgument);
    const MutexLock lock(changes_);
    AccountNode node(order->nodePath);
    DirectoryStatus status = node.open();
    if (status == directoryStatus::success) status = refuseTakenNumber(node, kind, *order, "");
    if (status == directoryStatus::success) status = make(node, *order);
    return status == directoryStatus::success ? shown(kind, order->nodePath, order->name) : failure(status);
  }

  PlistValue change(const AccountKind& kind, const PlistValue& request) {
    unlockContext();
    const auto order = orderIn(kind, request);
    if (!order) return responseForError(errors::invalidArgument);
    const MutexLock lock(changes_);
    AccountNode node(order->nodePath);
    PlistValue present;
    DirectoryStatus status = node.open();
    if (status == directoryStatus::success) status = findRecord(kind, order->nodePath, order->name, present);
    if (status == directoryStatus::success)
      status = refuseTakenNumber(node, kind, *order, firstValue(present, kind.numberAttribute));
    if (status == directoryStatus::success) status = apply(node, kind, *order);
    return status == directoryStatus::success ? shown(kind, order->nodePath, order->name) : failure(status);
  }

  PlistValue erase(const AccountKind& kind, const PlistValue& request) {
    unlockContext();
    const auto path = nodePathOf(request);
    const auto name = recordNameIn(request.get("name"));
    if (!path || !name) return responseForError(errors::invalidArgument);
    const MutexLock lock(changes_);
    AccountNode node(*path);
    DirectoryStatus status = node.open();
    if (status == directoryStatus::success) status = removeAccount(node, kind, *name);
    if (status != directoryStatus::success) return failure(status);
    return PlistValue::dictionaryOf({{"nodePath", *path}, {"deleted", *name}});
  }

  Mutex changes_;

  static const OperationTable& operations() {
    static const OperationTable table{
        {"listUsersWithRequest:", &AccountsHandler::listUsersWithRequest},
        {"listGroupsWithRequest:", &AccountsHandler::listGroupsWithRequest},
        {"showUserWithRequest:", &AccountsHandler::showUserWithRequest},
        {"showGroupWithRequest:", &AccountsHandler::showGroupWithRequest},
        {"createUserWithRequest:", &AccountsHandler::createUserWithRequest},
        {"createGroupWithRequest:", &AccountsHandler::createGroupWithRequest},
        {"changeUserWithRequest:", &AccountsHandler::changeUserWithRequest},
        {"changeGroupWithRequest:", &AccountsHandler::changeGroupWithRequest},
        {"deleteUserWithRequest:", &AccountsHandler::deleteUserWithRequest},
        {"deleteGroupWithRequest:", &AccountsHandler::deleteGroupWithRequest},
    };
    return table;
  }
};

}  // namespace ostrel::accounts

OSTREL_MODULE(ostrel::accounts::AccountsHandler)
