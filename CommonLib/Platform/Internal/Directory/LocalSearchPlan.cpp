#include "Platform/Internal/Directory/LocalSearchPlan.h"

#include <algorithm>
#include <charconv>
#include <limits>

#include "Platform/Internal/Directory/TextIndex.h"

namespace ostrel::detail {
namespace {

using Walk = SearchPlan::Walk;

constexpr std::int64_t lowest = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t highest = std::numeric_limits<std::int64_t>::max();

// The columns of every walk: value or record identifier, record, type, packed copy, and the value's text and bytes.
#define FROM_VALUES                                                                                        \
  "SELECT v.id, v.record, r.type, r.packed, v.folded, v.bytes, v.number FROM value v CROSS JOIN record r " \
  "ON r.id=v.record WHERE v.attribute=?1 "

std::optional<std::int64_t> wholeNumber(std::string_view text) {
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

// The least text that is greater than every one which begins with the prefix. Valid UTF-8 holds no byte of 0xFF.
std::string behindPrefix(std::string text) {
  if (text.empty()) return "\xFF";
  text.back() = static_cast<char>(static_cast<unsigned char>(text.back()) + 1);
  return text;
}

SearchPlan walkFor(Walk walk, const std::string& pattern) {
  SearchPlan plan;
  plan.walk = walk;
  plan.pattern = foldedCase(pattern);
  return plan;
}

void planPattern(std::uint32_t match, const std::string& pattern, std::vector<SearchPlan>& plans) {
  using namespace directoryMatch;
  if (match == lessThan || match == greaterThan) {
    const auto number = wholeNumber(pattern);
    if (!number) return;
    SearchPlan& plan = plans.emplace_back(walkFor(match == lessThan ? Walk::lessThan : Walk::greaterThan, ""));
    plan.number = *number;
    return;
  }
  const std::size_t first = plans.size();
  const bool within = match == contains || match == containsIgnoringCase || match == endsWithIgnoringCase;
  if (match == exact || match == exactIgnoringCase) {
    plans.push_back(walkFor(Walk::text, pattern));
  } else if (!within || pattern.empty()) {
    plans.push_back(walkFor(Walk::textRange, pattern));
  } else {
    if (foldedCase(pattern).size() <= longestIndexedValue) plans.push_back(walkFor(Walk::grams, pattern));
    plans.push_back(walkFor(Walk::longValues, pattern));
  }
  for (std::size_t at = first; at < plans.size(); ++at) {
    plans[at].needsExact = match == exact || match == contains;
    plans[at].exact = pattern;
  }
}

}  // namespace

const char* statementOf(Walk walk) {
  switch (walk) {
    case Walk::allOfType:
      return "SELECT id, id, type, packed FROM record WHERE type=?1 AND id>?2 ORDER BY id";
    case Walk::text:
      return FROM_VALUES "AND v.folded=?2 AND v.id>?3 ORDER BY v.id";
    case Walk::textRange:
      return FROM_VALUES "AND (v.folded, v.id)>(?2, ?3) AND v.folded<?4 ORDER BY v.folded, v.id";
    case Walk::grams:
      return "SELECT v.id, v.record, r.type, r.packed, v.folded, v.bytes FROM grams g CROSS JOIN value v ON "
             "v.id=g.rowid "
             "CROSS JOIN record r ON r.id=v.record WHERE g.text MATCH CAST(?1 AS TEXT) AND g.rowid>?2 ORDER BY g.rowid";
    case Walk::longValues:
      return FROM_VALUES "AND length(v.folded)>256 AND v.id>?2 ORDER BY v.id";
    case Walk::lessThan:
      return FROM_VALUES
          "AND v.number IS NOT NULL AND v.number<?2 AND (v.number, v.id)>(?3, ?4) ORDER BY v.number, v.id";
    case Walk::greaterThan:
      return FROM_VALUES "AND v.number IS NOT NULL AND (v.number, v.id)>(?2, ?3) ORDER BY v.number, v.id";
  }
  return nullptr;
}

std::vector<SearchPlan> planSearch(const DirectorySearchRequest& request) {
  std::vector<SearchPlan> plans;
  if (request.asksForAll()) {
    for (auto type = request.types.begin(); type != request.types.end(); ++type) {
      if (std::find(request.types.begin(), type, *type) != type) continue;
      plans.push_back(walkFor(Walk::allOfType, ""));
      plans.back().type = *type;
    }
    return plans;
  }
  for (const std::string& pattern : request.patterns) planPattern(request.match, pattern, plans);
  return plans;
}

SearchRun::SearchRun(LocalConnection& connection, SearchPlan& plan, const DirectorySearchRequest& request)
    : connection_(connection), plan_(plan), match_(request.match) {
  for (const std::string& name : request.types)
    if (const auto type = connection.typeNamed(name)) types_.push_back(*type);
  if (!begin(request)) statement_.reset();
}

// Binds the statement to go on behind what was seen. False when nothing can be found.
bool SearchRun::begin(const DirectorySearchRequest& request) {
  statement_.emplace(connection_, statementOf(plan_.walk));
  const std::int64_t id = plan_.begun ? plan_.lastId : -1;
  if (plan_.walk == Walk::allOfType) {
    const auto type = connection_.typeNamed(plan_.type);
    if (type) statement_->with(*type, id);
    return type.has_value();
  }
  const auto attribute = connection_.attributeNamed(request.attribute);
  if (!attribute || types_.empty()) return false;
  switch (plan_.walk) {
    case Walk::text:
      statement_->with(*attribute, std::string_view(plan_.pattern), id);
      break;
    case Walk::textRange:
      // A copy: the plan's text changes with every row, while the statement goes on comparing with what it began at.
      from_ = plan_.begun ? plan_.lastText : plan_.pattern;
      bound_ = behindPrefix(plan_.pattern);
      statement_->with(*attribute, std::string_view(from_), id, std::string_view(bound_));
      break;
    case Walk::grams:
      bound_ = match_ == directoryMatch::endsWithIgnoringCase ? endsWithQuery(*attribute, plan_.pattern)
                                                              : containsQuery(*attribute, plan_.pattern);
      statement_->with(std::string_view(bound_), id);
      break;
    case Walk::longValues:
      statement_->with(*attribute, id);
      break;
    case Walk::lessThan:
      statement_->with(*attribute, plan_.number, plan_.begun ? plan_.lastNumber : lowest, id);
      break;
    case Walk::greaterThan:
      statement_->with(*attribute, plan_.begun ? plan_.lastNumber : plan_.number, plan_.begun ? id : highest);
      break;
    case Walk::allOfType:
      break;
  }
  return true;
}

void SearchRun::remember() {
  plan_.begun = true;
  plan_.lastId = statement_->integer(0);
  if (plan_.walk == Walk::textRange) plan_.lastText = statement_->blob(4);
  if (plan_.walk == Walk::lessThan || plan_.walk == Walk::greaterThan) plan_.lastNumber = statement_->integer(6);
}

// What the index cannot tell: case where it counts, and whatever is in a long value.
bool SearchRun::matches() const {
  if (plan_.walk == Walk::allOfType) return true;
  if (std::ranges::find(types_, statement_->integer(2)) == types_.end()) return false;
  if (plan_.needsExact) return directoryValueMatches(match_, plan_.exact, statement_->blob(5));
  if (plan_.walk != Walk::longValues) return true;
  const std::string_view folded = statement_->blob(4);
  return match_ == directoryMatch::endsWithIgnoringCase ? folded.ends_with(plan_.pattern)
                                                        : folded.find(plan_.pattern) != std::string_view::npos;
}

std::optional<SearchRun::Found> SearchRun::next() {
  while (statement_ && statement_->step()) {
    remember();
    if (!matches()) continue;
    return Found{statement_->integer(1), statement_->integer(2), !statement_->isNull(3), statement_->blob(3)};
  }
  return std::nullopt;
}

}  // namespace ostrel::detail
