// Which accounts belong to the system and are not for administrators to see.
#pragma once

#include <string_view>

#include "Containers/PlistValue.h"

namespace ostrel::detail {

/// What listings hide: both unless they are asked for.
struct HiddenAccounts {
  bool users = true;
  bool groups = true;

  bool any() const { return users || groups; }
  /// Whether a record (attribute name -> array of strings) is hidden.
  /// As a user: by a user id below 500, or a name that begins with "netboot". Records of every type are looked at.
  /// As a group, unless it is a user or a user alias: by a group id up to 499 other than those that sites use, or a
  /// name that begins with "netboot" or "com.brantle.". Such a group id overrules what makes a user hidden, both ways;
  /// 99 does not. A record without the identifier is not hidden by it.
  bool hide(std::string_view type, const PlistValue& attributes) const;
};

}  // namespace ostrel::detail
