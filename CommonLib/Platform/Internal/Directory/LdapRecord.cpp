// Open records of an LDAP node and their changes.
#include <algorithm>
#include <deque>
#include <utility>

#include "Platform/Internal/Directory/LdapDirectory.h"
#include "Platform/Internal/Directory/LdapFilter.h"
#include "Platform/Internal/Directory/LocalNode.h"

namespace ostrel::detail {
namespace {

constexpr std::size_t longestPassword = 511;

// What a record looks like at a moment.
struct Snapshot {
  LdapPlace place;
  LdapMessages messages;  // the entry points into them
  LdapEntry entry;
  std::vector<std::string_view> names;
  std::vector<std::string_view> shown;  // values of one attribute
  std::deque<std::string> storage;
  std::vector<DirectoryValue> numbered;

  const DirectoryValue* find(std::uint32_t identifier) const {
    const auto found = std::ranges::find(numbered, identifier, &DirectoryValue::identifier);
    return found == numbered.end() ? nullptr : &*found;
  }
};

class LdapRecord final : public DirectoryRecord {
 public:
  LdapRecord(std::shared_ptr<LdapDirectory> directory, std::shared_ptr<LdapPool> pool, const LdapRecordType& type,
             LdapPlace place)
      : directory_(std::move(directory)), pool_(std::move(pool)), type_(type), place_(std::move(place)) {}

  DirectoryStatus valueAt(std::string_view attribute, std::uint32_t index, std::uint32_t& identifier,
                          std::string& bytes) override {
    return onServer([&] {
      const Snapshot now = look(type_.attributeNamed(attribute));
      if (index > now.numbered.size()) throw LdapFailure{directoryStatus::noSuchValue};
      identifier = now.numbered[index - 1].identifier;
      bytes = now.numbered[index - 1].bytes;
    });
  }

  DirectoryStatus addValue(std::string_view attribute, std::string_view value) override {
    return change(attribute, {&value, 1}, [&](const LdapAttribute& known, const Snapshot& now) {
      if (known.meaning == LdapMeaning::password && !now.shown.empty() && value != directoryName::hiddenPassword)
        throw LdapFailure{directoryStatus::invalidValue};
      if (known.meaning == LdapMeaning::password) return renewPassword(now, value);
      const std::string written = onServers(known, value);
      const auto present = now.entry.valuesOf(known.ldapName);
      if (std::ranges::find(present, written) != present.end() && !isPlaceholder(known, now, written)) return;
      std::vector<LdapChange> changes;
      if (const auto placeholder = placeholderIn(known, now))
        changes.push_back({LDAP_MOD_DELETE, known.ldapName, {*placeholder}});
      changes.push_back({LDAP_MOD_ADD, known.ldapName, {written}});
      modify(changes);
    });
  }

  DirectoryStatus replaceValue(std::string_view attribute, std::uint32_t identifier, std::string_view value) override {
    return change(attribute, {&value, 1}, [&](const LdapAttribute& known, const Snapshot& now) {
      const DirectoryValue* old = now.find(identifier);
      if (old == nullptr) throw LdapFailure{directoryStatus::noSuchValue};
      if (known.meaning == LdapMeaning::password) return renewPassword(now, value);
      if (old->bytes == value) return;
      if (known.meaning == LdapMeaning::name && old->bytes == now.names.front()) return rename(now, value);
      modify(replacement(known, now, old->bytes, value));
    });
  }

  DirectoryStatus removeValue(std::string_view attribute, std::uint32_t identifier) override {
    return change(attribute, {}, [&](const LdapAttribute& known, const Snapshot& now) {
      const DirectoryValue* old = now.find(identifier);
      if (old == nullptr) throw LdapFailure{directoryStatus::noSuchValue};
      if (now.numbered.size() == 1) return removeAll(known, now);
      if (known.meaning == LdapMeaning::name && old->bytes == now.names.front()) return rename(now, now.names[1]);
      modify({{LDAP_MOD_DELETE, known.ldapName, {onServers(known, old->bytes)}}});
    });
  }

  DirectoryStatus setValues(std::string_view attribute, std::span<const std::string_view> values) override {
    if (values.empty()) return removeAttribute(attribute);
    return change(attribute, values, [&](const LdapAttribute& known, const Snapshot& now) {
      if (known.meaning == LdapMeaning::password) {
        if (values.size() > 1) throw LdapFailure{directoryStatus::invalidValue};
        return renewPassword(now, values.front());
      }
      if (known.meaning == LdapMeaning::name && values.front() != now.names.front()) rename(now, values.front());
      LdapChange change{LDAP_MOD_REPLACE, known.ldapName, {}};
      for (const std::string_view value : values) {
        std::string written = onServers(known, value);
        if (std::ranges::find(change.values, written) == change.values.end())
          change.values.push_back(std::move(written));
      }
      modify({change});
    });
  }

  DirectoryStatus removeAttribute(std::string_view attribute) override {
    // What cannot be here is not here.
    if (!type_.attributeNamed(attribute)) return onServer([&] { look(std::nullopt); });
    return change(attribute, {}, [&](const LdapAttribute& known, const Snapshot& now) { removeAll(known, now); });
  }

  DirectoryStatus remove() override {
    if (directory_->settings().readOnly) return directoryStatus::readOnly;
    return onServer([&] {
      const Snapshot now = look(std::nullopt);
      changeOn(*pool_, [&](LdapConnection& connection) { connection.remove(now.place.dn); });
    });
  }

 private:
  LdapPlace place() const OSTREL_EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    return place_;
  }
  void moveTo(const std::string& dn) OSTREL_EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    place_.dn = dn;
  }

  // The record as it is now, with the values of an attribute.
  Snapshot look(const std::optional<LdapAttribute>& attribute) {
    return readFrom(*pool_, [&](LdapConnection& connection) {
      Snapshot now;
      now.place = place();
      std::vector<std::string> asked{type_.nameAttribute().ldapName};
      if (attribute) asked.push_back(attribute->ldapName);
      if (!read(connection, asked, now)) throw LdapFailure{directoryStatus::recordNotFound};
      now.names = namesOf(now.entry, type_);
      if (now.names.empty()) throw LdapFailure{directoryStatus::recordNotFound};
      if (!attribute) return now;
      LdapMembers members(*directory_);
      if (attribute->meaning == LdapMeaning::memberIdentifiers)
        members.learnNames(connection, now.entry.valuesOf(attribute->ldapName));
      std::vector<std::string_view> values;
      showValues(
          now.entry, type_, *attribute, now.names, [&](std::string_view name) { return members.identifierOf(name); },
          values, now.storage);
      // Members' identifiers end with the map that they are in.
      for (const std::string_view value : values) now.shown.push_back(now.storage.emplace_back(value));
      numberValues(now.shown, now.numbered);
      return now;
    });
  }

  // Another record may have come to stand where this one stood, and this one may stand elsewhere by now.
  bool read(LdapConnection& connection, const std::vector<std::string>& asked, Snapshot& now) {
    const std::string filter = now.place.identifier.empty()
                                   ? filterFor(type_)
                                   : filterFor(type_, equalityFilter(ldapIdentifierAttribute, now.place.identifier));
    if (readOne(connection, {now.place.dn, LDAP_SCOPE_BASE, filter, asked}, now)) return true;
    if (now.place.identifier.empty()) return false;
    const std::string base = directory_->searchBase(type_, connection);
    if (!readOne(connection, {base, LDAP_SCOPE_SUBTREE, filter, asked}, now)) return false;
    now.place.dn = now.entry.dn();
    moveTo(now.place.dn);
    return true;
  }
  static bool readOne(LdapConnection& connection, const LdapQuery& query, Snapshot& now) {
    now.messages = connection.search(query).messages;
    LDAPMessage* message = now.messages ? ldap_first_entry(connection.handle(), now.messages.get()) : nullptr;
    return message != nullptr && now.entry.read(connection.handle(), message);
  }

  // Runs a change of an attribute on the record as it is.
  template <class Edit>
  DirectoryStatus change(std::string_view attribute, std::span<const std::string_view> values, Edit&& edit) {
    if (directory_->settings().readOnly) return directoryStatus::readOnly;
    if (!isLocalName(attribute)) return directoryStatus::invalidName;
    const auto known = type_.attributeNamed(attribute);
    if (!known) return directoryStatus::notSupported;
    const bool isName = known->meaning == LdapMeaning::name;
    if (isName && !std::ranges::all_of(values, isLdapRecordName)) return directoryStatus::invalidName;
    const auto canStand = [](std::string_view value) { return !value.empty() && isValueText(value); };
    if (!std::ranges::all_of(values, canStand)) return directoryStatus::invalidValue;
    return onServer([&] {
      const Snapshot now = look(*known);
      if (known->meaning == LdapMeaning::identifier) return;  // the server keeps its own
      if (isName)
        for (const std::string_view value : values) requireFree(now, value);
      edit(*known, now);
    });
  }

  // One value in the place of another. Servers keep values in the order in which they came: those behind it come again,
  // unless they are so many that their order is worth less.
  std::vector<LdapChange> replacement(const LdapAttribute& known, const Snapshot& now, std::string_view old,
                                      std::string_view value) {
    constexpr std::ptrdiff_t mostReordered = 1000;
    LdapChange removed{LDAP_MOD_DELETE, known.ldapName, {onServers(known, old)}};
    LdapChange added{LDAP_MOD_ADD, known.ldapName, {onServers(known, value)}};
    const auto present = now.entry.valuesOf(known.ldapName);
    const auto found = std::ranges::find(present, removed.values.front());
    if (known.meaning != LdapMeaning::name && found != present.end() && present.end() - found <= mostReordered)
      for (auto behind = found + 1; behind != present.end(); ++behind) {
        removed.values.emplace_back(*behind);
        if (*behind != added.values.front()) added.values.emplace_back(*behind);
      }
    return {removed, added};
  }

  void requireFree(const Snapshot& now, std::string_view name) {
    const auto other = readFrom(
        *pool_, [&](LdapConnection& connection) { return findLdapRecord(*directory_, type_, name, connection); });
    if (other && other->dn != now.place.dn) throw LdapFailure{directoryStatus::recordExists};
  }

  // A rename may have come before.
  void modify(const std::vector<LdapChange>& changes) {
    const std::string dn = place().dn;
    changeOn(*pool_, [&](LdapConnection& connection) { connection.modify(dn, changes); });
  }

  void rename(const Snapshot& now, std::string_view name) {
    const std::string relative = ldapRelativeName(type_.nameAttribute().ldapName, name);
    changeOn(*pool_, [&](LdapConnection& connection) { connection.rename(now.place.dn, relative); });
    moveTo(relative + "," + parentOf(now.place.dn));
  }
  // Behind the first comma that is not escaped.
  static std::string parentOf(const std::string& dn) {
    for (std::size_t at = 0; at < dn.size(); ++at) {
      if (dn[at] == '\\')
        ++at;
      else if (dn[at] == ',')
        return dn.substr(at + 1);
    }
    return {};
  }

  void removeAll(const LdapAttribute& known, const Snapshot& now) {
    if (known.meaning == LdapMeaning::name) throw LdapFailure{directoryStatus::invalidValue};
    LdapChange change{LDAP_MOD_REPLACE, known.ldapName, {}};
    if (const LdapPlaceholder* placeholder = type_.placeholderFor(known))
      change.values.emplace_back(placeholder->of(now.names.front()));
    modify({change});
  }

  // The hidden form stands for the password that is there.
  void renewPassword(const Snapshot& now, std::string_view password) {
    if (password == directoryName::hiddenPassword && !now.shown.empty()) return;
    if (password == directoryName::hiddenPassword || password.size() > longestPassword)
      throw LdapFailure{directoryStatus::invalidValue};
    changeOn(*pool_, [&](LdapConnection& connection) { connection.setPassword(now.place.dn, std::string(password)); });
  }

  bool isPlaceholder(const LdapAttribute& known, const Snapshot& now, std::string_view value) const {
    const LdapPlaceholder* placeholder = type_.placeholderFor(known);
    return placeholder != nullptr && value == placeholder->of(now.names.front());
  }
  // The placeholder, where it stands.
  std::optional<std::string> placeholderIn(const LdapAttribute& known, const Snapshot& now) const {
    for (const std::string_view value : now.entry.valuesOf(known.ldapName))
      if (isPlaceholder(known, now, value)) return std::string(value);
    return std::nullopt;
  }

  // A value as it stands on the server.
  std::string onServers(const LdapAttribute& known, std::string_view value) {
    if (known.meaning != LdapMeaning::memberIdentifiers) return std::string(value);
    const std::string identifier = inUpperCase(value);
    if (!isUuid(identifier)) throw LdapFailure{directoryStatus::invalidValue};
    return readFrom(*pool_, [&](LdapConnection& connection) {
      LdapMembers members(*directory_);
      const std::string_view asked = identifier;
      members.learnIdentifiers(connection, {&asked, 1});
      const std::string* name = members.nameOf(identifier);
      if (name == nullptr) throw LdapFailure{directoryStatus::invalidValue};
      return *name;
    });
  }

  const std::shared_ptr<LdapDirectory> directory_;
  const std::shared_ptr<LdapPool> pool_;
  const LdapRecordType& type_;  ///< of the directory
  mutable Mutex mutex_;
  LdapPlace place_ OSTREL_GUARDED_BY(mutex_);
};

}  // namespace

std::optional<LdapPlace> findLdapRecord(LdapDirectory& directory, const LdapRecordType& type, std::string_view name,
                                        LdapConnection& connection) {
  if (!isLdapRecordName(name)) return std::nullopt;
  const std::string base = directory.searchBase(type, connection);
  const std::string& nameAttribute = type.nameAttribute().ldapName;
  const std::string pattern(name);
  const std::string folded = foldedCase(name);
  LdapEntry entry;
  for (std::string& filter : filtersFor(type, type.nameAttribute(), directoryMatch::exactIgnoringCase, {&pattern, 1})) {
    const auto page =
        connection.search({base, LDAP_SCOPE_SUBTREE, std::move(filter), {nameAttribute, ldapIdentifierAttribute}});
    LDAP* handle = connection.handle();
    for (LDAPMessage* message = page.messages ? ldap_first_entry(handle, page.messages.get()) : nullptr;
         message != nullptr; message = ldap_next_entry(handle, message)) {
      if (!entry.read(handle, message)) throw LdapFailure{directoryStatus::dataDamaged};
      const auto names = entry.valuesOf(nameAttribute);
      if (std::ranges::none_of(names, [&](std::string_view other) { return foldedCase(other) == folded; })) continue;
      const auto identifier = entry.valuesOf(ldapIdentifierAttribute);
      return LdapPlace{std::string(entry.dn()),
                       std::string(identifier.empty() ? std::string_view() : identifier.front())};
    }
  }
  return std::nullopt;
}

std::unique_ptr<DirectoryRecord> makeLdapRecord(std::shared_ptr<LdapDirectory> directory,
                                                std::shared_ptr<LdapPool> pool, const LdapRecordType& type,
                                                LdapPlace place) {
  return std::make_unique<LdapRecord>(std::move(directory), std::move(pool), type, std::move(place));
}

}  // namespace ostrel::detail
