// Listing users and groups.
#pragma once

#include "AccountKind.h"
#include "Containers/PlistValue.h"

namespace ostrel::accounts {

/// What the dictionary listings answer to a request: with "patternKey", the records that match "patternText", without
/// system accounts unless "systemAccounts" is true; else those that start with "startsWith", contain "contains" or end
/// with "endsWith"; else all. At most "maximum"; "moreRecords" tells whether there are more. Null when an argument is
/// malformed.
PlistValue listAccounts(const AccountKind& kind, const PlistValue& request);

}  // namespace ostrel::accounts
