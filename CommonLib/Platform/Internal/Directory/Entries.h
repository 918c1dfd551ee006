// The entries that callers get, each one block of malloc(3). Null when out of memory.
#pragma once

#include <cstdint>
#include <string_view>

#include "Platform/DirectoryService.h"

namespace ostrel::detail {

DirectoryDataList* listFromNodePath(std::string_view path);
DirectoryRecordEntry* makeRecordEntry(std::uint32_t attributeCount, std::string_view type, std::string_view name);
DirectoryAttributeEntry* makeAttributeEntry(std::uint32_t valueCount, std::string_view name);
DirectoryAttributeValueEntry* makeValueEntry(std::uint32_t identifier, std::string_view bytes);

}  // namespace ostrel::detail
