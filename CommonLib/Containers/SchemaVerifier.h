// Checking property lists from outside against a template.
#pragma once

#include <string>

#include "Containers/Export.h"
#include "Containers/PlistValue.h"

namespace ostrel {

/// Checks values against a template of the same shape. In a template
/// - a dictionary lists the keys that are checked, each with the template of its value: none is required, and others
///   may be there;
/// - an array holds exactly one element, the template of every element;
/// - any other value is an example of its kind: any string for a string, any number or boolean for a number.
///
/// Requires: every array of a template that is reached has one element. A broken template is a programming error: the
/// assertion "[tRecord count] == 1" in `verifyArrayRecord:guidedBy:` ends the process. So templates come from the
/// program, never from a client. Records may be anything; depth costs no stack.
///
/// Threads: no state; safe from any thread.
class OSTREL_EXPORT SchemaVerifier {
 public:
  SchemaVerifier() = delete;

  /// `classesMatch:withObject:`: whether both are of one kind. Booleans are numbers; null is of no kind.
  static bool classesMatch(const PlistValue& value, const PlistValue& schema) noexcept;
  /// `verifyObject:withObject:`: whether the value conforms. The first part that does not is logged.
  static bool verifyObject(const PlistValue& value, const PlistValue& schema);
  /// `verifyDictRecord:guidedBy:`: the same for a dictionary and its template.
  static bool verifyDictRecord(const PlistValue& record, const PlistValue& schema);
  /// `verifyArrayRecord:guidedBy:`: the same for an array and its template.
  static bool verifyArrayRecord(const PlistValue& record, const PlistValue& schema);

  /// `removeBadRecords:guidedBy:outFailSet:`, `removeBadRecords:guidedBy:`: a new mutable array of the dictionaries
  /// that conform to a dictionary template. `outFailSet`, when given, receives an array of those that do not, or null
  /// when there is none. Elements that are no dictionary are dropped. Records are shared.
  static PlistValue removeBadRecords(const PlistValue& records, const PlistValue& schema,
                                     PlistValue* outFailSet = nullptr);

  /// `deserializePlistAtPath:`: the property list (XML or binary) in a file, with immutable containers. Null when it
  /// cannot be read. Blocks on the disk.
  static PlistValue deserializePlistAtPath(const std::string& path);
  /// `testFromPath:`: filters PREFIXin.N.plist by PREFIXtemplate.N.plist for N from 1, as long as these and
  /// PREFIXout.N.plist exist, and prints on standard output whether the result is PREFIXout.N.plist.
  static void testFromPath(const std::string& prefix);
};

}  // namespace ostrel
