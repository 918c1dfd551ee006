// How the local node finds the records for a search: which index answers it, and where in it the search stands.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/DirectoryNode.h"
#include "Platform/Internal/Directory/LocalStore.h"

namespace ostrel::detail {

/// One walk along one index, and how far it has come.
struct SearchPlan {
  enum class Walk {
    allOfType,    ///< every record of `type`
    text,         ///< values with exactly the folded text
    textRange,    ///< values that begin with it
    grams,        ///< values that the text index finds with `query`
    longValues,   ///< values too long for the text index, one by one
    lessThan,     ///< values below `number`
    greaterThan,  ///< values above it
  };
  Walk walk;
  std::string type;     ///< for `allOfType`
  std::string pattern;  ///< folded
  std::string exact;    ///< the pattern as given, where bytes must match; see `needsExact`
  bool needsExact = false;
  std::int64_t number = 0;

  // How far: behind this text or number, and this identifier of a value or record.
  bool begun = false;
  std::string lastText;
  std::int64_t lastNumber = 0;
  std::int64_t lastId = 0;
};

/// The walks that find everything that matches the request.
std::vector<SearchPlan> planSearch(const DirectorySearchRequest& request);

/// A walk being made on a connection. Throws StoreFailure.
class SearchRun {
 public:
  /// The plan and the request are borrowed; the plan is kept up to date.
  SearchRun(LocalConnection& connection, SearchPlan& plan, const DirectorySearchRequest& request);

  struct Found {
    std::int64_t record = 0;
    std::int64_t type = 0;
    bool isPacked = false;
    std::string_view packed;  ///< lives until the next step
  };
  /// The next record of one of the request's types whose value matches; a record once for each such value.
  std::optional<Found> next();

 private:
  bool begin(const DirectorySearchRequest& request);
  void remember();
  bool matches() const;

  LocalConnection& connection_;
  SearchPlan& plan_;
  const std::uint32_t match_;
  std::vector<std::int64_t> types_;
  // What the statement borrows.
  std::string from_;
  std::string bound_;
  std::optional<SqliteStatement> statement_;
};

/// The statement of a walk, for tests of its query plan.
OSTREL_EXPORT const char* statementOf(SearchPlan::Walk walk);

}  // namespace ostrel::detail
