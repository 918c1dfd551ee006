// What the full-text index holds of a value, so that parts and ends of values are found without a scan.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace ostrel::detail {

// A value is indexed as one word for each of its bytes: the attribute in four hexadecimal digits, then this byte and
// the two behind it. A byte of 0 stands behind the end of the value (values hold none). So "ada" of attribute 3 becomes
//   0003616461 0003646100 00036100
// and a part of a value is a phrase of such words, or the beginning of one. Since the words hold nothing but
// hexadecimal digits, no pattern can be mistaken for query syntax.

/// The words of a folded value.
std::string indexedText(std::int64_t attribute, std::string_view folded);
/// The query for values that contain, end with the folded pattern. Requires: the pattern is not empty.
std::string containsQuery(std::int64_t attribute, std::string_view folded);
std::string endsWithQuery(std::int64_t attribute, std::string_view folded);

}  // namespace ostrel::detail
