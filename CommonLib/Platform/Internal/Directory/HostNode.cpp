#include "Platform/Internal/Directory/HostNode.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <utility>

#include "Containers/Format.h"
#include "Platform/Internal/Directory/PasswordHash.h"
#include "Platform/UserDatabase.h"

namespace ostrel::detail {
namespace {

// A record made from an entry of the name service. Values are numbered from 1 within their attribute.
class HostRecordValues {
 public:
  HostRecordValues(std::string_view type, std::string name) : type_(type), name_(std::move(name)) {
    add(directoryName::recordName, name_);
  }

  void add(std::string_view attribute, std::string value) {
    if (value.empty()) return;
    if (attributes_.empty() || attributes_.back().first != attribute) attributes_.emplace_back(attribute, Values{});
    attributes_.back().second.push_back(std::move(value));
  }

  std::string_view type() const { return type_; }
  const std::string& name() const { return name_; }
  const std::vector<std::string>* valuesOf(std::string_view attribute) const {
    const auto found = std::ranges::find_if(attributes_, [&](const auto& entry) { return entry.first == attribute; });
    return found == attributes_.end() ? nullptr : &found->second;
  }

  bool matches(const DirectorySearchRequest& request) const {
    if (std::ranges::find(request.types, type_) == request.types.end()) return false;
    if (request.asksForAll()) return true;
    const auto* values = valuesOf(request.attribute);
    if (values == nullptr || request.attribute == directoryName::password) return false;
    return std::ranges::any_of(*values, [&](const std::string& value) {
      return std::ranges::any_of(request.patterns, [&](const std::string& pattern) {
        return directoryValueMatches(request.match, pattern, value);
      });
    });
  }

  // The attributes asked for, in `view`; `storage` holds what it points to.
  void show(const DirectorySearchRequest& request, DirectoryRecordView& view,
            std::vector<std::vector<DirectoryValue>>& storage, std::vector<DirectoryAttribute>& shown) const {
    storage.clear();
    storage.reserve(attributes_.size());
    shown.clear();
    for (const auto& [name, values] : attributes_) {
      if (!request.asksForAttribute(name)) continue;
      auto& numbered = storage.emplace_back();
      for (const std::string& value : values)
        numbered.push_back({static_cast<std::uint32_t>(numbered.size() + 1), value});
      shown.push_back({name, numbered});
    }
    view = {type_, name_, shown};
  }

 private:
  using Values = std::vector<std::string>;

  std::string_view type_;  // a literal
  std::string name_;
  std::vector<std::pair<std::string_view, Values>> attributes_;
};

// An identifier that carries a number of the host in its last digits; users and groups begin differently.
std::string identifierOf(std::string_view beginning, std::uint32_t number) {
  return format("%s%08X", beginning, number);
}

std::string userIdentifier(uid_t uid) { return identifierOf("FFFFEEEE-DDDD-CCCC-BBBB-AAAA", uid); }
std::string groupIdentifier(gid_t gid) { return identifierOf("AAAABBBB-CCCC-DDDD-EEEE-FFFF", gid); }

HostRecordValues recordOf(const UserEntry& user) {
  HostRecordValues record(directoryName::users, user.name);
  record.add(directoryName::uniqueID, std::to_string(user.uid));
  record.add(directoryName::primaryGroupID, std::to_string(user.gid));
  record.add(directoryName::realName, user.fullName.substr(0, user.fullName.find(',')));  // room numbers follow
  record.add(directoryName::homeDirectory, user.home);
  record.add(directoryName::nativeHome, user.home);
  record.add(directoryName::userShell, user.shell);
  record.add(directoryName::generatedUID, userIdentifier(user.uid));
  record.add(directoryName::password, std::string(directoryName::hiddenPassword));
  return record;
}

// Members' identifiers cost a look-up each: only where they are needed.
HostRecordValues recordOf(const GroupEntry& group, bool withIdentifiers) {
  HostRecordValues record(directoryName::groups, group.name);
  record.add(directoryName::primaryGroupID, std::to_string(group.gid));
  record.add(directoryName::generatedUID, groupIdentifier(group.gid));
  for (const std::string& member : group.members) record.add(directoryName::member, member);
  for (const std::string& member : group.members) record.add(directoryName::groupMembership, member);
  if (!withIdentifiers) return record;
  for (const std::string& member : group.members)
    if (const auto user = UserDatabase::current().userNamed(member))
      record.add(directoryName::groupMembers, userIdentifier(user->uid));
  return record;
}

std::optional<std::uint32_t> numberIn(const std::string& text) {
  std::uint32_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || number == std::numeric_limits<uid_t>::max())
    return std::nullopt;
  return number;
}

bool needsIdentifiers(const DirectorySearchRequest& request) {
  return request.attribute == directoryName::groupMembers || request.asksForAttribute(directoryName::groupMembers);
}

// The users or groups that may match: by look-up where name or number is given exactly, since a look-up finds also
// what the name service does not enumerate.
template <class Entry, class ByName, class ById, class All>
std::vector<Entry> candidates(const DirectorySearchRequest& request, std::string_view idAttribute, ByName&& byName,
                              ById&& byId, All&& all) {
  const bool exact = request.match == directoryMatch::exact && !request.asksForAll();
  const bool isName = request.attribute == directoryName::recordName;
  if (!exact || (!isName && request.attribute != idAttribute)) return all();
  std::vector<Entry> entries;
  for (const std::string& pattern : request.patterns) {
    const auto number = isName ? std::nullopt : numberIn(pattern);
    auto entry = isName ? byName(pattern) : number ? byId(*number) : std::nullopt;
    const auto same = [&](const Entry& other) { return other.name == entry->name; };
    if (entry && std::ranges::none_of(entries, same)) entries.push_back(std::move(*entry));
  }
  return entries;
}

std::vector<HostRecordValues> recordsFor(const DirectorySearchRequest& request) {
  UserDatabase& database = UserDatabase::current();
  std::vector<HostRecordValues> records;
  const auto keep = [&](HostRecordValues record) {
    if (record.matches(request)) records.push_back(std::move(record));
  };
  const auto asksFor = [&](std::string_view type) {
    return std::ranges::find(request.types, type) != request.types.end();
  };
  if (asksFor(directoryName::users)) {
    const auto users = candidates<UserEntry>(
        request, directoryName::uniqueID, [&](const std::string& name) { return database.userNamed(name); },
        [&](std::uint32_t id) { return database.userWithId(id); }, [&] { return database.allUsers(); });
    for (const UserEntry& user : users) keep(recordOf(user));
  }
  if (asksFor(directoryName::groups)) {
    const auto groups = candidates<GroupEntry>(
        request, directoryName::primaryGroupID, [&](const std::string& name) { return database.groupNamed(name); },
        [&](std::uint32_t id) { return database.groupWithId(id); }, [&] { return database.allGroups(); });
    for (const GroupEntry& group : groups) keep(recordOf(group, needsIdentifiers(request)));
  }
  return records;
}

class HostSearch final : public DirectorySearch {
 public:
  explicit HostSearch(DirectorySearchRequest request) : request_(std::move(request)), records_(recordsFor(request_)) {}

  DirectoryStatus next(const DirectoryRecordView*& record) override {
    record = nullptr;
    if (at_ == records_.size()) return directoryStatus::success;
    records_[at_++].show(request_, view_, storage_, shown_);
    record = &view_;
    return directoryStatus::success;
  }

 private:
  const DirectorySearchRequest request_;
  const std::vector<HostRecordValues> records_;
  std::size_t at_ = 0;
  DirectoryRecordView view_;
  std::vector<std::vector<DirectoryValue>> storage_;
  std::vector<DirectoryAttribute> shown_;
};

// Looked up each time: it shows the host as it is now.
std::optional<HostRecordValues> recordNamed(std::string_view type, const std::string& name, bool withIdentifiers) {
  if (type == directoryName::users) {
    const auto user = UserDatabase::current().userNamed(name);
    return user ? std::optional(recordOf(*user)) : std::nullopt;
  }
  if (type != directoryName::groups) return std::nullopt;
  const auto group = UserDatabase::current().groupNamed(name);
  return group ? std::optional(recordOf(*group, withIdentifiers)) : std::nullopt;
}

class HostRecord final : public DirectoryRecord {
 public:
  HostRecord(std::string_view type, std::string name) : type_(type), name_(std::move(name)) {}

  DirectoryStatus valueAt(std::string_view attribute, std::uint32_t index, std::uint32_t& identifier,
                          std::string& bytes) override {
    const auto record = recordNamed(type_, name_, attribute == directoryName::groupMembers);
    if (!record) return directoryStatus::recordNotFound;
    const auto* values = record->valuesOf(attribute);
    if (values == nullptr || index > values->size()) return directoryStatus::noSuchValue;
    identifier = index;
    bytes = (*values)[index - 1];
    return directoryStatus::success;
  }

 private:
  const std::string type_;
  const std::string name_;
};

}  // namespace

DirectoryStatus HostNode::search(const DirectorySearchRequest& request, const DirectoryIdentityPointer&,
                                 std::unique_ptr<DirectorySearch>& search) {
  search = std::make_unique<HostSearch>(request);
  return directoryStatus::success;
}

DirectoryStatus HostNode::openRecord(std::string_view type, std::string_view name, const DirectoryIdentityPointer&,
                                     std::unique_ptr<DirectoryRecord>& record) {
  const auto found = recordNamed(type, std::string(name), false);
  if (!found) return directoryStatus::recordNotFound;
  record = std::make_unique<HostRecord>(type, found->name());
  return directoryStatus::success;
}

DirectoryStatus HostNode::authenticate(std::string_view user, std::string_view password, DirectoryIdentityPointer&) {
  UserDatabase& database = UserDatabase::current();
  const auto entry = database.userNamed(std::string(user));
  if (!entry) return directoryStatus::userUnknown;
  const auto hash = database.passwordHashOf(entry->name);
  return passwordMatches(password, hash.value_or("")) ? directoryStatus::success : directoryStatus::passwordRefused;
}

}  // namespace ostrel::detail
