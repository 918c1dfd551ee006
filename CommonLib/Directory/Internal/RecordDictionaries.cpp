#include "Directory/Internal/RecordDictionaries.h"

#include "Directory/Internal/Utf8Text.h"

namespace ostrel::detail {

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

DirectoryStatus RecordCollector::collect(DirectoryHandle node, std::uint32_t asked, const SearchStep& step) {
  return walkSearch(node, asked, step, [&](const DirectoryDataBuffer& buffer, std::uint32_t count, bool& more) {
    return takePiece(node, buffer, count, more);
  });
}

DirectoryStatus RecordCollector::takePiece(DirectoryHandle node, const DirectoryDataBuffer& buffer, std::uint32_t count,
                                           bool& more) {
  for (std::uint32_t index = 1; index <= count; ++index) {
    if (records_.count() >= maximum_) {
      moreRecords_ = true;
      more = false;
      break;
    }
    record_ = PlistValue::mutableDictionary();
    const DirectoryStatus status = readRecord(node, buffer, index, *this);
    if (status != directoryStatus::success) return status;
    records_.append(std::move(record_));
  }
  return directoryStatus::success;
}

DirectoryStatus RecordCollector::beginAttribute(std::string_view name, std::uint32_t) {
  attribute_ = name;
  firstValue_ = values_ = PlistValue();
  return directoryStatus::success;
}

// One value is a string, several are an array.
DirectoryStatus RecordCollector::value(const DirectoryAttributeValueEntry& entry) {
  PlistValue text = PlistValue::stringFromUTF8(entry.value.text());
  if (text.isNull()) return directoryStatus::success;
  if (firstValue_.isNull()) {
    firstValue_ = text;
    record_.set(attribute_, std::move(text));
  } else if (values_.isNull()) {
    values_ = PlistValue::mutableArrayOf({firstValue_, text});
    record_.set(attribute_, values_);
  } else {
    values_.append(std::move(text));
  }
  return directoryStatus::success;
}

}  // namespace ostrel::detail
