// Filters (RFC 4515) that find at least what a search of the directory service matches.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Internal/Directory/LdapMapping.h"

namespace ostrel::detail {

/// A value as it stands in a filter: every byte that could end it, and all that are not printable, as a number.
std::string escapedForFilter(std::string_view value);
std::string equalityFilter(std::string_view ldapName, std::string_view value);
/// The entries of a type.
std::string filterFor(const LdapRecordType& type);
/// Those of them that also match `condition`.
std::string filterFor(const LdapRecordType& type, const std::string& condition);

/// Filters of bounded size which together find every entry of the type that may match one of the patterns: servers
/// compare differently from the directory service, and their answers are to be compared once more. None when nothing
/// can match.
std::vector<std::string> filtersFor(const LdapRecordType& type, const LdapAttribute& attribute, std::uint32_t match,
                                    std::span<const std::string> patterns);

/// Conditions joined by "or" into filters of the type, each of bounded size.
std::vector<std::string> joinedFilters(const LdapRecordType& type, std::span<const std::string> conditions);

/// A UUID in its canonical form (RFC 4122), in upper or lower case.
bool isUuid(std::string_view text);

}  // namespace ostrel::detail
