#include "ostrelctl/AccountsText.h"

#include <algorithm>
#include <string_view>
#include <vector>

#include "Containers/Format.h"
#include "Directory/GroupRecords.h"
#include "Platform/DirectoryTypes.h"
#include "ostrelctl/TextForm.h"

namespace ostrel {
namespace {

constexpr std::string_view standardPrefix = "dsAttrTypeStandard:";
constexpr std::string_view virtualPrefix = "dsAttrTypeVirtual:";

// Every character that is not the continuation of one begins a column.
std::size_t widthOf(std::string_view text) {
  return static_cast<std::size_t>(
      std::ranges::count_if(text, [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) != 0x80U; }));
}

std::string cellOf(std::string_view text) {
  std::string cell = readableText(PlistValue(text));
  while (cell.ends_with('\n')) cell.pop_back();
  std::ranges::replace_if(
      cell, [](char c) { return c == '\n' || c == '\t'; }, ' ');
  return cell;
}

std::string joined(const PlistValue& value) {
  if (!value.isArray()) return std::string(value.stringValue());
  std::string text;
  for (const PlistValue& element : value.elements())
    text += (text.empty() ? "" : ", ") + std::string(element.stringValue());
  return text;
}

std::size_t countOf(const PlistValue& value) { return value.isArray() ? value.count() : value.isString() ? 1 : 0; }

}  // namespace

std::string alignedTable(const std::vector<std::vector<std::string>>& rows) {
  std::vector<std::vector<std::string>> cells;
  std::vector<std::size_t> widths;
  for (const auto& row : rows) {
    auto& line = cells.emplace_back();
    for (const std::string& text : row) line.push_back(cellOf(text));
    widths.resize(std::max(widths.size(), line.size()));
    for (std::size_t at = 0; at < line.size(); ++at) widths[at] = std::max(widths[at], widthOf(line[at]));
  }
  std::string text;
  for (const auto& line : cells) {
    std::string row;
    for (std::size_t at = 0; at < line.size(); ++at)
      row += line[at] + std::string(widths[at] + 2 - widthOf(line[at]), ' ');
    row.resize(row.find_last_not_of(' ') + 1);
    text += row + "\n";
  }
  return text;
}

std::string userTable(const PlistValue& listing) {
  std::vector<std::vector<std::string>> rows = {{"NAME", "ID", "GROUP", "ADMIN", "REAL NAME"}};
  const PlistValue records = listing.get("recordsArray");
  for (const PlistValue& record : records.elements())
    rows.push_back({joined(record.get(directoryName::recordName)), joined(record.get(directoryName::uniqueID)),
                    joined(record.get(directoryName::primaryGroupID)),
                    record.get("dsAttrTypeVirtual:isAdmin").boolValue() ? "yes" : "-",
                    joined(record.get(directoryName::realName))});
  return alignedTable(rows);
}

std::string groupTable(const PlistValue& listing) {
  std::vector<std::vector<std::string>> rows = {{"NAME", "ID", "MEMBERS", "REAL NAME"}};
  const PlistValue records = listing.get("recordsArray");
  for (const PlistValue& record : records.elements())
    rows.push_back({joined(record.get(directoryName::recordName)), joined(record.get(directoryName::primaryGroupID)),
                    std::to_string(countOf(record.get(directoryName::member))),
                    joined(record.get(directoryName::realName))});
  return alignedTable(rows);
}

PlistValue accountPage(const PlistValue& record) {
  PlistValue page = PlistValue::mutableDictionary();
  for (const PlistEntry& entry : record.entries()) {
    std::string_view key = entry.keyText();
    for (const std::string_view prefix : {standardPrefix, virtualPrefix})
      if (key.starts_with(prefix)) key.remove_prefix(prefix.size());
    page.set(page.contains(key) ? entry.keyText() : key, entry.value);
  }
  return page;
}

std::string accountFault(const PlistValue& reply, bool hasMembers) {
  const PlistValue status = reply.get("status");
  if (!status.isNumber()) return "";
  switch (status.int64Value()) {
    case directoryStatus::recordExists:
      return "there is one with this name or number already";
    case directoryStatus::recordNotFound:
      return hasMembers ? "there is no such group, or no such user to be a member"
                        : "there is no user or group of this name";
    case directoryStatus::nodeNotFound:
      return "there is no such node";
    case directoryStatus::readOnly:
      return "the node takes no changes";
    case directoryStatus::permissionDenied:
      return "the node does not let the daemon do this";
    case directoryStatus::invalidName:
      return "the node cannot hold this name";
    case directoryStatus::invalidValue:
      return "the node cannot hold such a value";
    case directoryStatus::noIdentifier:
      return "there is no free number left";
    case directoryStatus::dataDamaged:
      return "the node's data are damaged; they are left as they are";
    case directoryStatus::busy:
      return "somebody else was changing the same: try again";
    case directoryStatus::storageFailed:
      return "the node's data cannot be read or written";
    case directoryStatus::unreachable:
      return "the node's server does not answer";
    case directoryStatus::configurationFault:
      return "the configuration of the nodes cannot be used";
    case directoryStatus::limitExceeded:
      return "the node's server does not answer that much";
    default:
      return format("the directory answered %lld", status.int64Value());
  }
}

}  // namespace ostrel
