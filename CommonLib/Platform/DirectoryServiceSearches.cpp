// The searches of the directory service, and reading what they put into a buffer.
#include <utility>

#include "Platform/DirectoryService.h"
#include "Platform/Internal/Directory/Entries.h"
#include "Platform/Internal/Directory/MatchTypes.h"
#include "Platform/Internal/Directory/OpenHandles.h"

namespace ostrel {
namespace {

using detail::answered;
using detail::OpenHandles;
using detail::OpenList;
using detail::OpenSearch;
using detail::PackedBufferReader;
using detail::PackedKind;

std::vector<std::string> textsOf(const DirectoryDataList& list) {
  std::vector<std::string> texts;
  texts.reserve(list.count);
  for (std::uint32_t index = 0; index < list.count; ++index) texts.emplace_back(list.items[index]->text());
  return texts;
}

DirectoryStatus beginSearch(DirectoryHandle node, const DirectorySearchRequest& request,
                            std::shared_ptr<OpenSearch>& search) {
  if (!detail::isMatchType(request.match) && !request.asksForAll()) return directoryStatus::matchUnknown;
  search = std::make_shared<OpenSearch>();
  search->node = node;
  search->keep = detail::openNode(node);
  if (!search->keep) return directoryStatus::invalidHandle;
  return search->keep->node().search(request, search->keep->identity(), search->search);
}

// Packs records until the buffer is full, the limit is reached or there are no more; then `pending` is null.
DirectoryStatus fill(OpenSearch& search, DirectoryDataBuffer& buffer, std::uint32_t limit, std::uint32_t& count) {
  detail::PackedBufferWriter writer(buffer, PackedKind::records);
  for (;;) {
    if (search.pending == nullptr) {
      const DirectoryStatus status = search.search->next(search.pending);
      if (status != directoryStatus::success) return status;
      if (search.pending == nullptr) break;
    }
    if (limit != 0 && writer.count() == limit) break;
    if (!writer.addRecord(*search.pending)) {
      if (writer.count() == 0) return directoryStatus::bufferTooSmall;
      break;
    }
    search.pending = nullptr;
  }
  writer.finish();
  count = writer.count();
  return directoryStatus::success;
}

// One call of a search: begins it or takes it up, fills the buffer and keeps what is left under a continuation.
template <class MakeRequest>
DirectoryStatus searchStep(DirectoryHandle node, DirectoryDataBuffer& buffer, std::uint32_t* count,
                           DirectoryHandle* continuation, MakeRequest&& makeRequest) {
  auto& searches = OpenHandles::current().searches;
  const std::uint32_t limit = std::exchange(*count, 0);
  const DirectoryHandle previous = std::exchange(*continuation, 0);
  buffer.length = 0;
  std::shared_ptr<OpenSearch> search;
  if (previous != 0) {
    // Taken out while it runs: the handle is never two threads' at once.
    search = searches.take(previous).value_or(nullptr);
    if (!search || search->node != node) return directoryStatus::invalidHandle;
    if (!detail::openNode(node)) return directoryStatus::invalidHandle;
  } else {
    const DirectoryStatus status = beginSearch(node, makeRequest(), search);
    if (status != directoryStatus::success) return status;
  }
  const DirectoryStatus status = fill(*search, buffer, limit, *count);
  if (search->pending == nullptr) return status;
  search->search->pause();
  const DirectoryStatus kept = detail::handOut(searches, std::move(search), continuation);
  return kept == directoryStatus::success ? status : kept;
}

}  // namespace

DirectoryStatus dsGetRecordList(DirectoryHandle node, DirectoryDataBuffer* buffer, const DirectoryDataList* names,
                                std::uint32_t match, const DirectoryDataList* types,
                                const DirectoryDataList* attributes, std::uint32_t* count,
                                DirectoryHandle* continuation) noexcept {
  if (buffer == nullptr || names == nullptr || types == nullptr || attributes == nullptr || count == nullptr ||
      continuation == nullptr)
    return directoryStatus::invalidArgument;
  return answered([&]() -> DirectoryStatus {
    return searchStep(node, *buffer, count, continuation, [&] {
      return DirectorySearchRequest{textsOf(*types), std::string(directoryName::recordName), match, textsOf(*names),
                                    textsOf(*attributes)};
    });
  });
}

DirectoryStatus dsDoMultipleAttributeValueSearchWithData(DirectoryHandle node, DirectoryDataBuffer* buffer,
                                                         const DirectoryDataList* types,
                                                         const DirectoryDataNode* attribute, std::uint32_t match,
                                                         const DirectoryDataList* values,
                                                         const DirectoryDataList* attributes, std::uint32_t* count,
                                                         DirectoryHandle* continuation) noexcept {
  if (buffer == nullptr || types == nullptr || attribute == nullptr || values == nullptr || attributes == nullptr ||
      count == nullptr || continuation == nullptr)
    return directoryStatus::invalidArgument;
  return answered([&]() -> DirectoryStatus {
    return searchStep(node, *buffer, count, continuation, [&] {
      return DirectorySearchRequest{textsOf(*types), std::string(attribute->text()), match, textsOf(*values),
                                    textsOf(*attributes)};
    });
  });
}

DirectoryStatus dsReleaseContinueData(DirectoryHandle node, DirectoryHandle continuation) noexcept {
  return answered([&]() -> DirectoryStatus {
    auto& searches = OpenHandles::current().searches;
    const auto search = searches.find(continuation);
    if (!search || (*search)->node != node) return directoryStatus::invalidHandle;
    searches.take(continuation);
    return directoryStatus::success;
  });
}

DirectoryStatus dsGetRecordEntry(DirectoryHandle node, const DirectoryDataBuffer* buffer, std::uint32_t index,
                                 DirectoryHandle* attributes, DirectoryRecordEntry** entry) noexcept {
  if (attributes != nullptr) *attributes = 0;
  if (entry != nullptr) *entry = nullptr;
  if (buffer == nullptr || index == 0 || attributes == nullptr || entry == nullptr)
    return directoryStatus::invalidArgument;
  return answered([&]() -> DirectoryStatus {
    if (!detail::openNode(node)) return directoryStatus::invalidHandle;
    const PackedBufferReader reader(*buffer, PackedKind::records);
    if (!reader.valid()) return directoryStatus::invalidArgument;
    const auto record = reader.record(index);
    if (!record) return directoryStatus::noSuchEntry;
    const DirectoryStatus status =
        detail::handOut(OpenHandles::current().attributeLists, OpenList{node, record->attributes}, attributes);
    if (status != directoryStatus::success) return status;
    *entry = detail::makeRecordEntry(record->attributes.count, record->type, record->name);
    if (*entry != nullptr) return directoryStatus::success;
    OpenHandles::current().attributeLists.take(std::exchange(*attributes, 0));
    return directoryStatus::outOfMemory;
  });
}

DirectoryStatus dsGetAttributeEntry(DirectoryHandle node, const DirectoryDataBuffer* buffer, DirectoryHandle attributes,
                                    std::uint32_t index, DirectoryHandle* values,
                                    DirectoryAttributeEntry** entry) noexcept {
  if (values != nullptr) *values = 0;
  if (entry != nullptr) *entry = nullptr;
  if (buffer == nullptr || index == 0 || values == nullptr || entry == nullptr) return directoryStatus::invalidArgument;
  return answered([&]() -> DirectoryStatus {
    OpenHandles& handles = OpenHandles::current();
    const PackedBufferReader reader(*buffer, PackedKind::records);
    if (!reader.valid()) return directoryStatus::invalidArgument;
    std::optional<detail::PackedAttribute> attribute;
    bool ofThisBuffer = false;
    handles.attributeLists.with(attributes, [&](OpenList& list) {
      ofThisBuffer = list.node == node && list.place.stamp == reader.stamp();
      if (ofThisBuffer) attribute = reader.attribute(list.place, index);
    });
    if (!ofThisBuffer) return directoryStatus::invalidHandle;
    if (!attribute) return directoryStatus::noSuchEntry;
    const DirectoryStatus status = detail::handOut(handles.valueLists, OpenList{node, attribute->values}, values);
    if (status != directoryStatus::success) return status;
    *entry = detail::makeAttributeEntry(attribute->values.count, attribute->name);
    if (*entry != nullptr) return directoryStatus::success;
    handles.valueLists.take(std::exchange(*values, 0));
    return directoryStatus::outOfMemory;
  });
}

DirectoryStatus dsGetAttributeValue(DirectoryHandle node, const DirectoryDataBuffer* buffer, std::uint32_t index,
                                    DirectoryHandle values, DirectoryAttributeValueEntry** entry) noexcept {
  if (entry != nullptr) *entry = nullptr;
  if (buffer == nullptr || index == 0 || entry == nullptr) return directoryStatus::invalidArgument;
  return answered([&]() -> DirectoryStatus {
    const PackedBufferReader reader(*buffer, PackedKind::records);
    if (!reader.valid()) return directoryStatus::invalidArgument;
    std::optional<DirectoryValue> value;
    bool ofThisBuffer = false;
    OpenHandles::current().valueLists.with(values, [&](OpenList& list) {
      ofThisBuffer = list.node == node && list.place.stamp == reader.stamp();
      if (ofThisBuffer) value = reader.value(list.place, index);
    });
    if (!ofThisBuffer) return directoryStatus::invalidHandle;
    if (!value) return directoryStatus::noSuchValue;
    *entry = detail::makeValueEntry(value->identifier, value->bytes);
    return *entry == nullptr ? directoryStatus::outOfMemory : directoryStatus::success;
  });
}

DirectoryStatus dsCloseAttributeList(DirectoryHandle attributes) noexcept {
  return answered([&]() -> DirectoryStatus {
    return OpenHandles::current().attributeLists.take(attributes) ? directoryStatus::success
                                                                  : directoryStatus::invalidHandle;
  });
}

DirectoryStatus dsCloseAttributeValueList(DirectoryHandle values) noexcept {
  return answered([&]() -> DirectoryStatus {
    return OpenHandles::current().valueLists.take(values) ? directoryStatus::success : directoryStatus::invalidHandle;
  });
}

}  // namespace ostrel
