// Searches of the local node: candidates from the index that fits the match, one pattern after the other.
#include <algorithm>
#include <deque>
#include <unordered_set>
#include <utility>

#include "Platform/Internal/Directory/LocalNode.h"
#include "Platform/Internal/Directory/LocalSearchPlan.h"

namespace ostrel::detail {
namespace {

// A record's packed values as a view.
class RecordReader {
 public:
  RecordReader(LocalConnection& connection, const DirectorySearchRequest& request)
      : connection_(&connection), inode_(connection.inode()), request_(&request) {}

  // Takes the record in. False when the packed bytes make no sense.
  bool read(const std::string& type, std::string_view packed) {
    type_ = type;
    packed_.assign(packed);
    values_.clear();
    spans_.clear();
    attributes_.clear();
    view_ = {type_, {}, {}};
    std::string_view rest = packed_;
    while (!rest.empty())
      if (!readAttribute(rest)) return false;
    for (const Span& span : spans_)
      attributes_.push_back({span.name, std::span(values_).subspan(span.first, span.count)});
    view_.attributes = attributes_;
    return true;
  }
  const DirectoryRecordView& view() const { return view_; }

  // The attributes that have to be read from a record without a packed copy; null: all.
  const std::vector<std::int64_t>* attributesToRead() {
    if (request_->asksForAttribute(directoryName::allAttributes)) return nullptr;
    asked_.clear();
    for (const std::string& name : request_->attributes)
      if (const auto attribute = connection_->attributeNamed(name)) asked_.push_back(*attribute);
    if (const auto name = connection_->attributeNamed(directoryName::recordName)) asked_.push_back(*name);
    std::ranges::sort(asked_);
    asked_.erase(std::unique(asked_.begin(), asked_.end()), asked_.end());
    return &asked_;
  }

  // Another connection may serve the search after a rest, if need be of another file that was put in the place.
  void use(LocalConnection& connection) {
    connection_ = &connection;
    if (std::exchange(inode_, connection.inode()) != connection.inode()) known_.clear();
  }

 private:
  struct Known {
    std::string name;  // empty: not looked at yet
    bool asked = false;
    bool isRecordName = false;
  };
  struct Span {
    std::string_view name;
    std::size_t first;
    std::size_t count;
  };

  const Known& known(std::uint64_t attribute) {
    constexpr std::uint64_t mostAttributes = 0xFFFF;
    if (attribute > mostAttributes) throw StoreFailure{directoryStatus::dataDamaged};
    if (attribute >= known_.size()) known_.resize(attribute + 1);
    Known& entry = known_[attribute];
    if (entry.name.empty()) {
      entry.name = connection_->attributeName(static_cast<std::int64_t>(attribute));
      entry.asked = request_->asksForAttribute(entry.name);
      entry.isRecordName = entry.name == directoryName::recordName;
    }
    return entry;
  }

  bool readAttribute(std::string_view& rest) {
    std::uint64_t attribute = 0;
    std::uint64_t count = 0;
    if (!takeNumber(rest, attribute) || !takeNumber(rest, count)) return false;
    const Known& what = known(attribute);
    const std::size_t first = values_.size();
    for (std::uint64_t at = 0; at < count; ++at) {
      std::uint64_t identifier = 0;
      std::uint64_t size = 0;
      if (!takeNumber(rest, identifier) || !takeNumber(rest, size) || size > rest.size()) return false;
      const std::string_view bytes = rest.substr(0, size);
      if (what.asked) values_.push_back({static_cast<std::uint32_t>(identifier), bytes});
      if (what.isRecordName && at == 0) view_.name = bytes;
      rest.remove_prefix(size);
    }
    if (what.asked && count > 0) spans_.push_back({what.name, first, count});
    return true;
  }

  LocalConnection* connection_;
  std::uint64_t inode_;
  const DirectorySearchRequest* request_;
  std::string type_;
  std::string packed_;
  std::deque<Known> known_;  // by attribute; views point to the names
  std::vector<std::int64_t> asked_;
  std::vector<DirectoryValue> values_;
  std::vector<Span> spans_;
  std::vector<DirectoryAttribute> attributes_;
  DirectoryRecordView view_;
};

class LocalSearch final : public DirectorySearch {
 public:
  LocalSearch(std::shared_ptr<LocalStore> store, DirectorySearchRequest request)
      : store_(std::move(store)), request_(std::move(request)), plans_(planSearch(request_)) {}
  ~LocalSearch() override { pause(); }
  LocalSearch(const LocalSearch&) = delete;
  LocalSearch& operator=(const LocalSearch&) = delete;

  DirectoryStatus next(const DirectoryRecordView*& record) override {
    record = nullptr;
    return onStore([&] {
      resume();
      while (at_ < plans_.size()) {
        if (!run_) run_.emplace(**lease_, plans_[at_], request_);
        if (nextOfRun(record)) return;
        run_.reset();
        ++at_;
      }
    });
  }

  // The statement ends; where it stood is in its plan.
  void pause() override {
    run_.reset();
    lease_.reset();
  }

 private:
  void resume() {
    if (!lease_) lease_.emplace(*store_);
    LocalConnection& connection = **lease_;
    if (!reader_)
      reader_.emplace(connection, request_);
    else
      reader_->use(connection);
  }

  bool nextOfRun(const DirectoryRecordView*& record) {
    while (const auto found = run_->next()) {
      // A listing of everything meets no record twice.
      if (!request_.asksForAll() && !seen_.insert(found->record).second) continue;
      LocalConnection& connection = **lease_;
      const bool read = found->isPacked
                            ? reader_->read(connection.typeName(found->type), found->packed)
                            : reader_->read(connection.typeName(found->type),
                                            packRecord(connection, found->record, reader_->attributesToRead()));
      if (!read) throw StoreFailure{directoryStatus::dataDamaged};
      record = &reader_->view();
      return true;
    }
    return false;
  }

  const std::shared_ptr<LocalStore> store_;
  const DirectorySearchRequest request_;
  std::vector<SearchPlan> plans_;
  std::size_t at_ = 0;
  std::unordered_set<std::int64_t> seen_;
  std::optional<RecordReader> reader_;
  std::optional<LocalStore::Lease> lease_;
  std::optional<SearchRun> run_;
};

}  // namespace

std::unique_ptr<DirectorySearch> makeLocalSearch(std::shared_ptr<LocalStore> store, DirectorySearchRequest request) {
  return std::make_unique<LocalSearch>(std::move(store), std::move(request));
}

}  // namespace ostrel::detail
