// Identifiers of users and groups: generated ones (UUIDs) and the numbers of old.
#pragma once

#include "Containers/Export.h"
#include "Containers/PlistValue.h"
#include "Platform/DirectoryTypes.h"

namespace ostrel {

// Threads: any. Nothing is thrown except std::bad_alloc.

/// A new UUID in its canonical upper-case text, or null when none could be made.
OSTREL_EXPORT PlistValue DSGenerateUniqueIdentifier();

/// The number that a generated identifier carries behind "FFFFEEEE-DDDD-CCCC-BBBB-AAAA" or
/// "AAAABBBB-CCCC-DDDD-EEEE-FFFF", in hexadecimal digits, as a signed decimal of 32 bits: "FFFFFFFE" is "-2". Null
/// without one of the two, without digits behind it, or when they are more than 32 bits.
OSTREL_EXPORT PlistValue DSLegacyIDFromGeneratedUID(const PlistValue& identifier);

/// The first of the records (dictionaries as RecordListings.h makes them) whose generated identifier is this; without
/// one, and if the identifier carries a number, the first whose unique id, then whose primary group id is that number.
/// An attribute of several values matches nothing. Null without a match.
OSTREL_EXPORT PlistValue DSRecordWithMatchingGeneratedUID(const PlistValue& records, const PlistValue& identifier);

/// The lowest number from 500 to 32768 that no group of the open node has as its primary group id, as decimal text. A
/// number for which the node could not be asked counts as taken. Null when all are. Asks the node for each in turn, and
/// so may take as long as 32,269 searches; what is free now may be taken by somebody else before it is used.
OSTREL_EXPORT PlistValue DSGenerateLegacyGID(DirectoryHandle session, DirectoryHandle node);

}  // namespace ostrel
