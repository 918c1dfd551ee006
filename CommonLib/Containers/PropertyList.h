// Readers and writers of property lists: XML, binary and "strings" files.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Containers/Export.h"
#include "Containers/PlistValue.h"

namespace ostrel {

/// Why bytes are not a property list, for humans.
struct PlistError {
  std::string message;
  std::size_t offset = 0;  ///< byte position in the input
  std::size_t line = 0;    ///< from 1; 0 for binary input
  std::size_t column = 0;  ///< in bytes from 1; 0 for binary input
};

/// Whether the containers of a value that is read accept writes.
enum class PlistForm { immutableContainers, mutableContainers };

/// Containers nested deeper than this are refused by every reader and every writer.
inline constexpr std::size_t maximumPlistDepth = 512;

/// Reads a whole property list. Bytes that begin "bplist00" are read as binary, all others as XML.
/// Null when they are not one property list from the first byte to the last: there is never a partial value. When
/// `error` is given it says what is wrong and where; it is left alone on success.
/// All readers: bounded depth, time and memory linear in the input, safe from any thread. They are strict: a key that
/// appears twice, an unknown element, text outside elements, a number out of range, an impossible date, unpadded
/// base64, invalid UTF-8 and a document without <plist> are refused. docs/property-lists.md lists every such decision.
/// Values of one document share memory: one leaf kept for long keeps at most 64 KB of it from being freed. Whoever
/// keeps a little of each of many documents keeps a `deepMutableCopy`, or for a leaf a new value of its text or bytes.
OSTREL_EXPORT PlistValue readPropertyList(std::string_view bytes, PlistForm form = PlistForm::immutableContainers,
                                          PlistError* error = nullptr);
OSTREL_EXPORT PlistValue readXmlPropertyList(std::string_view bytes, PlistForm form = PlistForm::immutableContainers,
                                             PlistError* error = nullptr);
OSTREL_EXPORT PlistValue readBinaryPropertyList(std::string_view bytes, PlistForm form = PlistForm::immutableContainers,
                                                PlistError* error = nullptr);

/// Reads a "strings" file: `"key" = "value";` pairs with C comments, in UTF-16 (with a byte-order mark) or UTF-8.
/// The result is a dictionary of strings, or null.
OSTREL_EXPORT PlistValue readStringsFile(std::string_view bytes, PlistForm form = PlistForm::immutableContainers,
                                         PlistError* error = nullptr);

/// Writes a value as an XML property list, version 1.0, UTF-8, indented by a tab a level for sixteen levels. Nothing
/// when it cannot be represented: null, nesting beyond `maximumPlistDepth`, text that is not valid UTF-8 or holds a
/// character that XML 1.0 cannot carry, a date outside the years 1 to 9999.
OSTREL_EXPORT std::optional<std::string> writeXmlPropertyList(const PlistValue& value);

/// A binary property list whose data payloads are not copied but shown where they are, for writers of large archives.
struct PlistPieces {
  struct Piece {
    std::string_view bytes;
    bool isPayload;  ///< the bytes of a data value, without what tells their number
  };
  std::vector<Piece> pieces;            ///< the archive, in order; views into `packed` and into the value
  std::unique_ptr<std::string> packed;  ///< everything but the payloads
  std::size_t size = 0;                 ///< of the archive
};

/// What `writeBinaryPropertyList` makes, in pieces. Valid while the value stays as it is.
OSTREL_EXPORT std::optional<PlistPieces> writeBinaryPropertyListPieces(const PlistValue& value);

/// Writes a value as a binary property list. Nothing when it cannot be represented: null, nesting beyond
/// `maximumPlistDepth`, text that is not valid UTF-8, a date that is not a finite number. Every kind of value comes
/// back as what it was; dates near 1970 to a ten-millionth of a second, since the format counts from 2001.
OSTREL_EXPORT std::optional<std::string> writeBinaryPropertyList(const PlistValue& value);

}  // namespace ostrel
