// Searches of an LDAP node: page by page (RFC 2696), compared once more as the directory service compares.
#include <algorithm>
#include <array>
#include <deque>
#include <unordered_set>
#include <utility>

#include "Platform/Internal/Directory/LdapDirectory.h"
#include "Platform/Internal/Directory/LdapFilter.h"

namespace ostrel::detail {
namespace {

// Callers often want a few records only: the next page is asked for ahead only behind the second.
constexpr std::uint32_t firstPage = 300;
constexpr int mostLosses = 3;
constexpr int mostEmptyPages = 100;
constexpr std::size_t mostRecords = 10'000'000;

// One query of a search.
struct Part {
  const LdapRecordType* type;
  std::string filter;
};

std::vector<Part> partsOf(const LdapDirectory& directory, const DirectorySearchRequest& request) {
  std::vector<Part> parts;
  for (const std::string& name : request.types) {
    const LdapRecordType* type = directory.typeNamed(name);
    const auto isType = [&](const Part& part) { return part.type == type; };
    if (type == nullptr || std::ranges::any_of(parts, isType)) continue;
    if (request.asksForAll()) {
      parts.push_back({type, filterFor(*type)});
      continue;
    }
    const auto attribute = type->attributeNamed(request.attribute);
    if (!attribute) continue;
    for (std::string& filter : filtersFor(*type, *attribute, request.match, request.patterns))
      parts.push_back({type, std::move(filter)});
  }
  return parts;
}

// Which attributes are read and shown of the records of a type.
class Columns {
 public:
  Columns(const LdapRecordType& type, const DirectorySearchRequest& request)
      : type_(&type), showsAll_(request.asksForAttribute(directoryName::allAttributes)) {
    add(type.nameAttribute().ldapName);
    if (!request.asksForAll()) {
      searched_ = type.attributeNamed(request.attribute);
      if (searched_) add(searched_->ldapName);
    }
    if (showsAll_) {
      shown_ = type.attributes();
      ldapNames_ = {"*", ldapIdentifierAttribute};
      return;
    }
    for (const std::string& name : request.attributes) {
      const auto attribute = type.attributeNamed(name);
      const auto isSame = [&](const LdapAttribute& other) { return other.name == name; };
      if (!attribute || std::ranges::any_of(shown_, isSame)) continue;
      add(attribute->ldapName);
      shown_.push_back(*attribute);
    }
  }

  bool showsAll() const { return showsAll_; }
  const std::vector<std::string>& ldapNames() const { return ldapNames_; }
  const std::vector<LdapAttribute>& shown() const { return shown_; }
  const std::optional<LdapAttribute>& searched() const { return searched_; }
  /// The attribute whose values are to be turned into identifiers; null when there is none.
  const LdapAttribute* memberIdentifiers() const {
    const auto isMembers = [](const LdapAttribute& attribute) {
      return attribute.meaning == LdapMeaning::memberIdentifiers;
    };
    if (searched_ && isMembers(*searched_)) return &*searched_;
    const auto found = std::ranges::find_if(shown_, isMembers);
    return found == shown_.end() ? nullptr : &*found;
  }
  /// Of everything: the entry's attributes that no other name stands for.
  std::optional<LdapAttribute> other(std::string_view ldapName) const {
    const auto isSame = [&](const LdapAttribute& known) { return sameLdapName(known.ldapName, ldapName); };
    if (std::ranges::any_of(shown_, isSame)) return std::nullopt;
    return type_->attributeNamed("dsAttrTypeNative:" + std::string(ldapName));
  }

 private:
  void add(const std::string& ldapName) {
    const auto isSame = [&](const std::string& other) { return sameLdapName(other, ldapName); };
    if (std::ranges::none_of(ldapNames_, isSame)) ldapNames_.push_back(ldapName);
  }

  const LdapRecordType* type_;
  const bool showsAll_;
  std::vector<std::string> ldapNames_;
  std::vector<LdapAttribute> shown_;
  std::optional<LdapAttribute> searched_;
};

// A record as it is shown.
class RecordView {
 public:
  const DirectoryRecordView& view() const { return view_; }

  void show(const LdapEntry& entry, const Columns& columns, const LdapRecordType& type,
            std::span<const std::string_view> names, const LdapMemberIdentifiers& members) {
    values_.clear();
    spans_.clear();
    attributes_.clear();
    storage_.clear();
    for (const LdapAttribute& attribute : columns.shown()) add(entry, type, attribute, names, members);
    if (columns.showsAll())
      for (const LdapEntry::Attribute& found : entry.attributes())
        if (const auto attribute = columns.other(found.ldapName)) add(entry, type, *attribute, names, members);
    for (const Span& span : spans_)
      attributes_.push_back({span.name, std::span(values_).subspan(span.first, span.count)});
    view_ = {type.name(), names.front(), attributes_};
  }

 private:
  struct Span {
    std::string_view name;
    std::size_t first;
    std::size_t count;
  };

  void add(const LdapEntry& entry, const LdapRecordType& type, const LdapAttribute& attribute,
           std::span<const std::string_view> names, const LdapMemberIdentifiers& members) {
    shown_.clear();
    showValues(entry, type, attribute, names, members, shown_, storage_);
    if (shown_.empty()) return;
    spans_.push_back({storage_.emplace_back(attribute.name), values_.size(), shown_.size()});
    numberValues(shown_, values_);
  }

  std::vector<std::string_view> shown_;
  std::deque<std::string> storage_;
  std::vector<DirectoryValue> values_;
  std::vector<Span> spans_;
  std::vector<DirectoryAttribute> attributes_;
  DirectoryRecordView view_;
};

LDAP* makeReader() {
  LDAP* reader = nullptr;
  if (ldap_create(&reader) != LDAP_SUCCESS) throw std::bad_alloc();
  return reader;
}

class LdapSearch final : public DirectorySearch {
 public:
  LdapSearch(std::shared_ptr<LdapDirectory> directory, std::shared_ptr<LdapPool> pool, DirectorySearchRequest request)
      : directory_(std::move(directory)),
        pool_(std::move(pool)),
        request_(std::move(request)),
        parts_(partsOf(*directory_, request_)),
        members_(*directory_),
        reader_(makeReader(), [](LDAP* ended) { ldap_unbind_ext(ended, nullptr, nullptr); }),
        compares_(!request_.asksForAll() && parts_.size() > 1) {}
  ~LdapSearch() override { leave(); }
  LdapSearch(const LdapSearch&) = delete;
  LdapSearch& operator=(const LdapSearch&) = delete;

  DirectoryStatus next(const DirectoryRecordView*& record) override {
    record = nullptr;
    return onServer([&] {
      for (;;) {
        try {
          record = nextRecord();
          return;
        } catch (const LdapFailure& failure) {
          leave();
          const bool isFirstSinceARecord = std::exchange(answeredAtLoss_, answered_.size()) != answered_.size();
          if (!failure.lost || !isFirstSinceARecord || losses_++ == mostLosses) throw;
          restart();
        }
      }
    });
  }

  // The pages behind belong to the connection: it is kept for this search while nobody else needs it.
  void pause() override {
    if (connection_) parked_ = pool_->park(std::move(connection_));
  }

 private:
  const DirectoryRecordView* nextRecord() {
    while (at_ < parts_.size()) {
      while (entry_ != nullptr) {
        LDAPMessage* message = std::exchange(entry_, ldap_next_entry(reader_.get(), entry_));
        if (show(message)) return &record_.view();
      }
      if (fetchPage()) continue;
      ++at_;
      restartPart();
    }
    return nullptr;
  }

  // False behind the last page.
  bool fetchPage() {
    if (begun_ && !pending_ && cookie_.empty()) return false;
    takeConnection();
    const Part& part = parts_[at_];
    if (!begun_) {
      columns_.emplace(*part.type, request_);
      query_ = {directory_->searchBase(*part.type, *connection_), LDAP_SCOPE_SUBTREE, part.filter,
                columns_->ldapNames()};
      pending_ = connection_->startPage(query_, std::min(firstPage, pageSize()), {});
    } else if (!pending_) {
      pending_ = connection_->startPage(query_, pageSize(), cookie_);
    }
    const bool isFirst = !std::exchange(begun_, true);
    page_ = connection_->finishPage(*std::exchange(pending_, std::nullopt));
    cookie_ = std::move(page_.cookie);
    entry_ = page_.messages ? ldap_first_entry(reader_.get(), page_.messages.get()) : nullptr;
    emptyPages_ = entry_ == nullptr ? emptyPages_ + 1 : 0;
    if (emptyPages_ > mostEmptyPages || answered_.size() > mostRecords)
      throw LdapFailure{directoryStatus::limitExceeded};
    if (const LdapAttribute* members = columns_->memberIdentifiers()) learnMembers(members->ldapName);
    if (cookie_.empty())
      pool_->giveBack(std::move(connection_));
    else if (!isFirst)
      pending_ = connection_->startPage(query_, pageSize(), cookie_);
    return true;
  }

  std::uint32_t pageSize() const { return directory_->settings().pageSize; }

  void takeConnection() {
    if (connection_) return;
    if (parked_ != 0) {
      connection_ = pool_->reclaim(std::exchange(parked_, 0));
      if (connection_) return;
      restart();
    }
    connection_ = pool_->take();
  }

  // Gives up the connection, if need be with what is still under way on it.
  void leave() {
    if (parked_ != 0) connection_ = pool_->reclaim(std::exchange(parked_, 0));
    if (connection_ && std::exchange(pending_, std::nullopt)) connection_->giveUp();
    pool_->giveBack(std::move(connection_));
    pending_.reset();
  }

  // From the beginning of the part, passing over what was answered.
  void restart() {
    if (!compares_) seen_.insert(answered_.begin(), answered_.end());
    compares_ = true;
    restartPart();
  }
  void restartPart() {
    begun_ = false;
    pending_.reset();
    cookie_.clear();
    entry_ = nullptr;
  }

  bool show(LDAPMessage* message) {
    if (!entryReader_.read(reader_.get(), message)) throw LdapFailure{directoryStatus::dataDamaged};
    const LdapRecordType& type = *parts_[at_].type;
    const auto names = namesOf(entryReader_, type);
    if (names.empty()) return false;
    const LdapMemberIdentifiers members = [this](std::string_view name) { return members_.identifierOf(name); };
    if (!matches(names, members) || !isNew()) return false;
    record_.show(entryReader_, *columns_, type, names, members);
    return true;
  }

  bool matches(std::span<const std::string_view> names, const LdapMemberIdentifiers& members) {
    const auto& searched = columns_->searched();
    if (!searched) return true;
    compared_.clear();
    comparedStorage_.clear();
    showValues(entryReader_, *parts_[at_].type, *searched, names, members, compared_, comparedStorage_);
    return std::ranges::any_of(compared_, [&](std::string_view value) {
      return std::ranges::any_of(request_.patterns, [&](const std::string& pattern) {
        return directoryValueMatches(request_.match, pattern, value);
      });
    });
  }

  bool isNew() {
    const std::size_t hash =
        std::hash<std::string_view>()(entryReader_.dn()) + (parts_[at_].type == &directory_->users() ? 1U : 0U);
    if (compares_ && !seen_.insert(hash).second) return false;
    answered_.push_back(hash);
    return true;
  }

  void learnMembers(const std::string& ldapName) {
    std::vector<std::string_view> names;
    for (LDAPMessage* message = entry_; message != nullptr; message = ldap_next_entry(reader_.get(), message)) {
      if (!entryReader_.read(reader_.get(), message)) throw LdapFailure{directoryStatus::dataDamaged};
      const auto found = entryReader_.valuesOf(ldapName);
      names.insert(names.end(), found.begin(), found.end());
    }
    members_.learnNames(*connection_, names);
  }

  const std::shared_ptr<LdapDirectory> directory_;
  const std::shared_ptr<LdapPool> pool_;
  const DirectorySearchRequest request_;
  const std::vector<Part> parts_;
  LdapMembers members_;

  // Where it stands.
  std::size_t at_ = 0;
  std::unique_ptr<LdapConnection> connection_;
  std::uint64_t parked_ = 0;
  /// Reads messages: their connection may be another's by then.
  const std::unique_ptr<LDAP, void (*)(LDAP*)> reader_;
  bool begun_ = false;
  std::optional<int> pending_;  ///< sent, not answered yet
  std::string cookie_;
  std::optional<Columns> columns_;
  LdapQuery query_;
  LdapConnection::Page page_;
  LDAPMessage* entry_ = nullptr;
  int emptyPages_ = 0;

  // What was answered, by the hash of where it stands; looked up only where a record may come twice.
  std::vector<std::size_t> answered_;
  std::unordered_set<std::size_t> seen_;
  bool compares_;
  int losses_ = 0;
  std::size_t answeredAtLoss_ = SIZE_MAX;

  LdapEntry entryReader_;
  RecordView record_;
  std::vector<std::string_view> compared_;
  std::deque<std::string> comparedStorage_;
};

}  // namespace

std::unique_ptr<DirectorySearch> makeLdapSearch(std::shared_ptr<LdapDirectory> directory,
                                                std::shared_ptr<LdapPool> pool, DirectorySearchRequest request) {
  return std::make_unique<LdapSearch>(std::move(directory), std::move(pool), std::move(request));
}

}  // namespace ostrel::detail
