// What users and groups differ in.
#pragma once

#include <string_view>

#include "Platform/DirectoryTypes.h"

namespace ostrel::accounts {

struct AccountKind {
  std::string_view type;             ///< of their records
  std::string_view numberAttribute;  ///< of their numeric identifier
};

inline constexpr AccountKind users{directoryName::users, directoryName::uniqueID};
inline constexpr AccountKind groups{directoryName::groups, directoryName::primaryGroupID};

}  // namespace ostrel::accounts
