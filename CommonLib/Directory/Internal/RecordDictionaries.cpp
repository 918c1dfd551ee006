#include "Directory/Internal/RecordDictionaries.h"

#include <algorithm>

#include "Directory/Internal/Utf8Text.h"

namespace ostrel::detail {
namespace {

// How much memory a listing is likely to need at once.
constexpr std::uint32_t usualRecords = 64;
constexpr std::size_t usualAttributes = 8;

}  // namespace

std::uint32_t maximumOf(const PlistValue& maximum) {
  if (!maximum.isNumber()) return defaultMaximum;
  const double number = maximum.doubleValue();
  return number < 0 || number >= noMaximum ? noMaximum : static_cast<std::uint32_t>(maximum.uint64Value());
}

bool isAliasType(std::string_view type) { return type == userAliases || type == groupAliases; }

std::vector<std::string> namesIn(const PlistValue& array) {
  std::vector<std::string> names;
  for (const PlistValue& element : array.elements())
    if (auto name = utf8Text(element)) names.push_back(std::move(*name));
  return names;
}

bool isUsableArray(const PlistValue& array) {
  return !array.elements().empty() && utf8Text(array.elements()[0]).has_value();
}

PlistValue statusAlone(DirectoryStatus status) { return PlistValue::mutableDictionaryOf({{"status", status}}); }

RecordCollector::RecordCollector(std::uint32_t maximum)
    : maximum_(maximum), rows_(std::min(maximum, usualRecords), usualAttributes) {}

DirectoryStatus RecordCollector::collect(DirectoryHandle node, std::uint32_t asked, const SearchStep& step) {
  return walkSearch(node, asked, step, [&](const DirectoryDataBuffer& buffer, std::uint32_t count, bool& more) {
    return takePiece(buffer, count, more);
  });
}

DirectoryStatus RecordCollector::takePiece(const DirectoryDataBuffer& buffer, std::uint32_t count, bool& more) {
  for (std::uint32_t index = 1; index <= count; ++index) {
    if (rows_.count() >= maximum_) {
      moreRecords_ = true;
      more = false;
      break;
    }
    record_.clear();
    const DirectoryStatus status = readDirectoryRecord(buffer, index, *this);
    if (status != directoryStatus::success) return status;
    rows_.add(record_);
  }
  return directoryStatus::success;
}

PlistValue RecordCollector::keyFor(std::string_view attribute) {
  const std::size_t place = record_.size() / 2;
  if (place < keyAtPlace_.size() && keyAtPlace_[place].stringValue() == attribute) return keyAtPlace_[place];
  PlistValue& key = keys_[std::string(attribute)];
  if (key.isNull()) key = attribute;
  if (place >= keyAtPlace_.size()) keyAtPlace_.resize(place + 1, "");
  keyAtPlace_[place] = key;
  return key;
}

DirectoryStatus RecordCollector::beginAttribute(std::string_view name, std::uint32_t) {
  attribute_ = keyFor(name);
  valueCount_ = 0;
  return directoryStatus::success;
}

// One value is a string, several are an array.
DirectoryStatus RecordCollector::value(std::string_view bytes) {
  PlistValue text = rows_.text(bytes);
  if (text.isNull()) return directoryStatus::success;
  ++valueCount_;
  if (valueCount_ == 1) {
    record_.push_back(attribute_);
    record_.push_back(std::move(text));
  } else if (valueCount_ == 2) {
    record_.back() = PlistValue::mutableArrayOf({record_.back(), text});
  } else {
    record_.back().append(std::move(text));
  }
  return directoryStatus::success;
}

}  // namespace ostrel::detail
