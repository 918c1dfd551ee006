// What a directory node is to the directory service: the interface behind which each kind of node stands.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Containers/Export.h"
#include "Containers/PlistValue.h"
#include "Platform/DirectoryTypes.h"

namespace ostrel {

/// One value of an attribute. The identifier stays with the value for as long as it stands in its record, and is
/// unique among the values of its attribute there.
struct DirectoryValue {
  std::uint32_t identifier = 0;
  std::string_view bytes;
};

/// An attribute with its values in order. There is none without values.
struct DirectoryAttribute {
  std::string_view name;
  std::span<const DirectoryValue> values;
};

/// A record as a search answers it: the attributes asked for that have values.
struct DirectoryRecordView {
  std::string_view type;
  std::string_view name;  ///< its first record name
  std::span<const DirectoryAttribute> attributes;
};

/// What to search for. A record matches when it is of one of the types, and a value of the attribute matches one of
/// the patterns. It is answered once, however many of its values match.
struct DirectorySearchRequest {
  std::vector<std::string> types;
  std::string attribute{directoryName::recordName};
  std::uint32_t match = directoryMatch::any;  ///< checked: one of `directoryMatch`
  std::vector<std::string> patterns;          ///< without meaning when everything is asked for
  std::vector<std::string> attributes;        ///< to answer; holds "dsAttributesAll" for every one

  /// Whether every record of the types matches: the match type is `any`, or a pattern is "dsRecordsAll".
  OSTREL_EXPORT bool asksForAll() const;
  OSTREL_EXPORT bool asksForAttribute(std::string_view name) const;
};

/// A search under way. Destroying it gives up what it holds.
/// Threads: one thread at a time, not always the same one.
class OSTREL_EXPORT DirectorySearch {
 public:
  virtual ~DirectorySearch() = default;
  /// The next record, or nullptr behind the last. The view and all that it points to live until the next call on this
  /// search. After a failure the search is over.
  virtual DirectoryStatus next(const DirectoryRecordView*& record) = 0;
  /// Called before the search rests for an unknown time: gives up transactions, locks and the like. The last view
  /// stays readable. A search that rested goes on behind the records that it answered.
  virtual void pause() {}
};

/// A record that was opened by its name.
/// Threads: any thread. Every operation sees the record as it is now; one that was deleted meanwhile is answered with
/// `recordNotFound`. A change is made as a whole or not at all, and is durable when it is answered. Changes by default
/// answer `readOnly`.
class OSTREL_EXPORT DirectoryRecord {
 public:
  virtual ~DirectoryRecord() = default;

  /// The value at `index` (from 1) of an attribute; `bytes` is set to a copy. `noSuchValue` past the last value, also
  /// for an attribute that the record does not have.
  virtual DirectoryStatus valueAt(std::string_view attribute, std::uint32_t index, std::uint32_t& identifier,
                                  std::string& bytes) = 0;
  /// Appends a value, making the attribute when it is missing.
  virtual DirectoryStatus addValue(std::string_view attribute, std::string_view value);
  /// Puts `value` in the place of the one with the identifier. `noSuchValue` when there is none.
  virtual DirectoryStatus replaceValue(std::string_view attribute, std::uint32_t identifier, std::string_view value);
  virtual DirectoryStatus removeValue(std::string_view attribute, std::uint32_t identifier);
  /// Makes these the attribute's values, in order; none of them: as `removeAttribute`.
  virtual DirectoryStatus setValues(std::string_view attribute, std::span<const std::string_view> values);
  /// Removes an attribute with all its values. Success also when the record does not have it.
  virtual DirectoryStatus removeAttribute(std::string_view attribute);
  /// Deletes the record.
  virtual DirectoryStatus remove();
};

/// Who a node reference speaks for, after an authentication that was not only a check: whatever the node needs to make
/// changes in that name (a bound connection, say). Opaque to the directory service.
class OSTREL_EXPORT DirectoryIdentity {
 public:
  virtual ~DirectoryIdentity() = default;
};

using DirectoryIdentityPointer = std::shared_ptr<DirectoryIdentity>;

/// A node: one place that holds records. One object serves all sessions.
///
/// Threads: every operation may be called from any thread, several at once, and may block on disk or network within
/// the bounds of the node's own time-outs. Nothing throws except std::bad_alloc.
///
/// Names and values come as callers gave them: hostile, of any length, with NUL or invalid UTF-8. A node answers
/// `invalidName` or `invalidValue` to what it cannot hold, and never lets them reach a query language unescaped. What a
/// node answers may be as hostile: the service takes it as bytes.
///
/// An identity that is passed in is one that this node made, or null: then the node acts with the rights of its
/// configuration or of the process.
class OSTREL_EXPORT DirectoryNode {
 public:
  virtual ~DirectoryNode() = default;

  /// The node's path, such as "/LDAP/example.org": "/" and components without empty ones. Never changes.
  virtual const std::string& path() const = 0;
  virtual bool isReadOnly() const { return false; }
  /// Whether this machine itself serves the node's data.
  virtual bool isLocallyHosted() const { return false; }

  /// Starts a search. Requires: checked match type.
  virtual DirectoryStatus search(const DirectorySearchRequest& request, const DirectoryIdentityPointer& identity,
                                 std::unique_ptr<DirectorySearch>& search) = 0;

  /// Opens the record of a type by any of its names, ignoring case. `recordNotFound` when there is none.
  virtual DirectoryStatus openRecord(std::string_view type, std::string_view name,
                                     const DirectoryIdentityPointer& identity,
                                     std::unique_ptr<DirectoryRecord>& record) = 0;
  /// Makes a record whose only attribute is its name, and opens it. `recordExists` when it can be opened already.
  /// By default: `readOnly`.
  virtual DirectoryStatus createRecord(std::string_view type, std::string_view name,
                                       const DirectoryIdentityPointer& identity,
                                       std::unique_ptr<DirectoryRecord>& record);

  /// Checks a password. `userUnknown` when the node does not have the user (the search node then asks the next one),
  /// `passwordRefused` when it has; an empty password is always refused. On success `identity` may be set; it is
  /// dropped when only the check was asked for.
  virtual DirectoryStatus authenticate(std::string_view user, std::string_view password,
                                       DirectoryIdentityPointer& identity) = 0;

  /// One attribute of the node itself.
  struct Fact {
    std::string name;
    std::vector<std::string> values;
  };
  /// What the node tells of itself. By default its path and whether it takes changes ("ReadOnly" or "ReadWrite").
  virtual std::vector<Fact> facts() const;
};

/// Makes a node from its entry in the nodes' configuration: `path` and the entry's dictionary. Null when the entry
/// cannot be used; `fault` then says why, without secrets. Must not wait for a server: an unreachable one is found out
/// by the operations.
using DirectoryNodeFactory = std::unique_ptr<DirectoryNode> (*)(const std::string& path, const PlistValue& entry,
                                                                std::string& fault);

/// Offers a kind of node, by the name that stands under "Kind" in its entries. The kinds that the library brings are
/// there without it; a second registration of a kind replaces the first. Threads: any, at any time.
OSTREL_EXPORT void registerDirectoryNodeKind(std::string_view kind, DirectoryNodeFactory factory);

/// Whether `value` matches `pattern`: for nodes that compare by themselves. `any` and unknown types match nothing here.
OSTREL_EXPORT bool directoryValueMatches(std::uint32_t match, std::string_view pattern, std::string_view value);
/// What two texts have in common when they differ in case only. Bytes that are no UTF-8 stay as they are.
OSTREL_EXPORT std::string foldedCase(std::string_view text);

}  // namespace ostrel
