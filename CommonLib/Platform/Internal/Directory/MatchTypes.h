// The match types that there are.
#pragma once

#include <cstdint>

#include "Platform/DirectoryTypes.h"

namespace ostrel::detail {

constexpr bool isMatchType(std::uint32_t match) {
  using namespace directoryMatch;
  return match == any || match == exact || (match >= contains && match <= greaterThan) ||
         (match >= exactIgnoringCase && match <= containsIgnoringCase);
}

}  // namespace ostrel::detail
