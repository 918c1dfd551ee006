// Data nodes, buffers, lists and entries: plain blocks of malloc(3), because callers free some of them themselves.
#include <algorithm>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <string>
#include <string_view>

#include "Platform/DirectoryService.h"
#include "Platform/Internal/Directory/Entries.h"

namespace ostrel {
namespace {

constexpr std::size_t mostBytes = std::numeric_limits<std::uint32_t>::max();

DirectoryStatus release(void* block) {
  if (block == nullptr) return directoryStatus::invalidArgument;
  std::free(block);
  return directoryStatus::success;
}

bool reserve(DirectoryDataList& list, std::uint32_t count) {
  if (count <= list.room) return true;
  const std::uint32_t room = std::max(count, list.room * 2);
  void* items = std::realloc(list.items, room * sizeof(DirectoryDataNode*));
  if (items == nullptr) return false;
  list.items = static_cast<DirectoryDataNode**>(items);
  list.room = room;
  return true;
}

bool append(DirectoryDataList& list, std::string_view text) {
  if (text.size() > mostBytes || list.count >= mostBytes / 4 || !reserve(list, list.count + 1)) return false;
  DirectoryDataNode* node = dsDataNodeAllocateBlock(text.data(), static_cast<std::uint32_t>(text.size()));
  if (node == nullptr) return false;
  list.items[list.count++] = node;
  return true;
}

void destroy(DirectoryDataList* list) {
  dsDataListDeallocate(list);
  std::free(list);
}

DirectoryDataList* listOfPath(std::string_view path, std::string_view separator) {
  DirectoryDataList* list = dsDataListAllocate();
  while (list != nullptr && !path.empty()) {
    const std::size_t end = path.find(separator);
    const std::string_view component = path.substr(0, end);
    if (!component.empty() && !append(*list, component)) {
      destroy(list);
      return nullptr;
    }
    path.remove_prefix(end == std::string_view::npos ? path.size() : end + separator.size());
  }
  return list;
}

}  // namespace

namespace detail {

DirectoryDataList* listFromNodePath(std::string_view path) { return listOfPath(path, "/"); }

DirectoryAttributeValueEntry* makeValueEntry(std::uint32_t identifier, std::string_view bytes) {
  if (bytes.size() > mostBytes) return nullptr;
  void* block = std::malloc(sizeof(DirectoryAttributeValueEntry) + bytes.size());
  if (block == nullptr) return nullptr;
  const auto size = static_cast<std::uint32_t>(bytes.size());
  auto* entry = new (block) DirectoryAttributeValueEntry{identifier, {size, size}};
  if (!bytes.empty()) std::memcpy(entry->value.bytes(), bytes.data(), bytes.size());
  return entry;
}

DirectoryAttributeEntry* makeAttributeEntry(std::uint32_t valueCount, std::string_view name) {
  void* block = std::malloc(sizeof(DirectoryAttributeEntry) + name.size() + 1);
  if (block == nullptr) return nullptr;
  char* text = static_cast<char*>(block) + sizeof(DirectoryAttributeEntry);
  std::memcpy(text, name.data(), name.size());
  text[name.size()] = '\0';
  return new (block) DirectoryAttributeEntry{valueCount, {text, name.size()}};
}

DirectoryRecordEntry* makeRecordEntry(std::uint32_t attributeCount, std::string_view type, std::string_view name) {
  void* block = std::calloc(1, sizeof(DirectoryRecordEntry) + type.size() + name.size() + 2);
  if (block == nullptr) return nullptr;
  char* typeText = static_cast<char*>(block) + sizeof(DirectoryRecordEntry);
  char* nameText = typeText + type.size() + 1;
  std::memcpy(typeText, type.data(), type.size());
  std::memcpy(nameText, name.data(), name.size());
  return new (block) DirectoryRecordEntry{attributeCount, {typeText, type.size()}, {nameText, name.size()}};
}

}  // namespace detail

DirectoryDataNode* dsDataNodeAllocateString(const char* string) noexcept {
  if (string == nullptr) return nullptr;
  const std::size_t length = std::strlen(string);
  return length > mostBytes ? nullptr : dsDataNodeAllocateBlock(string, static_cast<std::uint32_t>(length));
}

DirectoryDataNode* dsDataNodeAllocateBlock(const void* bytes, std::uint32_t length) noexcept {
  if (bytes == nullptr && length > 0) return nullptr;
  void* block = std::malloc(sizeof(DirectoryDataNode) + length);
  if (block == nullptr) return nullptr;
  auto* node = new (block) DirectoryDataNode{length, length};
  if (length > 0) std::memcpy(node->bytes(), bytes, length);
  return node;
}

DirectoryStatus dsDataNodeDeAllocate(DirectoryDataNode* node) noexcept { return release(node); }

DirectoryDataBuffer* dsDataBufferAllocate(std::uint32_t capacity) noexcept {
  void* block = std::calloc(1, sizeof(DirectoryDataBuffer) + std::size_t{capacity});
  return block == nullptr ? nullptr : new (block) DirectoryDataBuffer{capacity, 0};
}

DirectoryStatus dsDataBufferDeAllocate(DirectoryDataBuffer* buffer) noexcept { return release(buffer); }

DirectoryDataList* dsDataListAllocate() noexcept {
  void* block = std::malloc(sizeof(DirectoryDataList));
  return block == nullptr ? nullptr : new (block) DirectoryDataList{0, 0, nullptr};
}

DirectoryStatus dsDataListDeallocate(DirectoryDataList* list) noexcept {
  if (list == nullptr) return directoryStatus::invalidArgument;
  for (std::uint32_t index = 0; index < list->count; ++index) std::free(list->items[index]);
  std::free(list->items);
  *list = {0, 0, nullptr};
  return directoryStatus::success;
}

DirectoryStatus dsAppendStringToListAlloc(DirectoryDataList* list, const char* string) noexcept {
  if (list == nullptr || string == nullptr) return directoryStatus::invalidArgument;
  return append(*list, string) ? directoryStatus::success : directoryStatus::outOfMemory;
}

DirectoryDataList* dsBuildListFromStringsAlloc(const char* first, ...) noexcept {
  DirectoryDataList* list = dsDataListAllocate();
  std::va_list strings;
  va_start(strings, first);
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): started in the line above, which the analyzer does not see
  for (const char* string = first; list != nullptr && string != nullptr; string = va_arg(strings, const char*)) {
    if (append(*list, string)) continue;
    destroy(list);
    list = nullptr;
  }
  va_end(strings);
  return list;
}

DirectoryDataList* dsBuildFromPath(const char* path, const char* separator) noexcept {
  if (path == nullptr || separator == nullptr || *separator == '\0') return nullptr;
  return listOfPath(path, separator);
}

char* dsGetPathFromList(const DirectoryDataList* list, const char* separator) noexcept {
  if (list == nullptr || separator == nullptr) return nullptr;
  const std::size_t separatorSize = std::strlen(separator);
  std::size_t size = 1;
  for (std::uint32_t index = 0; index < list->count; ++index) size += separatorSize + list->items[index]->length;
  auto* path = static_cast<char*>(std::malloc(size));
  if (path == nullptr) return nullptr;
  char* end = path;
  for (std::uint32_t index = 0; index < list->count; ++index) {
    const std::string_view item = list->items[index]->text();
    std::memcpy(end, separator, separatorSize);
    if (!item.empty()) std::memcpy(end + separatorSize, item.data(), item.size());
    end += separatorSize + item.size();
  }
  *end = '\0';
  return path;
}

DirectoryAttributeValueEntry* dsAllocAttributeValueEntry(std::uint32_t identifier, const void* bytes,
                                                         std::uint32_t length) noexcept {
  if (bytes == nullptr && length > 0) return nullptr;
  return detail::makeValueEntry(identifier, {static_cast<const char*>(bytes), length});
}

DirectoryStatus dsDeallocRecordEntry(DirectoryRecordEntry* entry) noexcept { return release(entry); }
DirectoryStatus dsDeallocAttributeEntry(DirectoryAttributeEntry* entry) noexcept { return release(entry); }
DirectoryStatus dsDeallocAttributeValueEntry(DirectoryAttributeValueEntry* entry) noexcept { return release(entry); }

}  // namespace ostrel
