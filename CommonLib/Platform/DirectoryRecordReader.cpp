#include "Platform/DirectoryRecordReader.h"

#include "Platform/Internal/Directory/PackedBuffer.h"

namespace ostrel {
namespace {

using detail::PackedBufferReader;

DirectoryStatus readValues(const PackedBufferReader& reader, detail::PackedAttribute& attribute,
                           DirectoryRecordVisitor& visitor) {
  DirectoryStatus status = visitor.beginAttribute(attribute.name, attribute.values.count);
  for (std::uint32_t at = 1; status == directoryStatus::success && at <= attribute.values.count; ++at) {
    const auto value = reader.value(attribute.values, at);
    status = value ? visitor.value(value->bytes) : directoryStatus::invalidArgument;
  }
  return status;
}

}  // namespace

DirectoryStatus readDirectoryRecord(const DirectoryDataBuffer& buffer, std::uint32_t index,
                                    DirectoryRecordVisitor& visitor) {
  const PackedBufferReader reader(buffer, detail::PackedKind::records);
  if (!reader.valid()) return directoryStatus::invalidArgument;
  auto record = reader.record(index);
  if (!record) return directoryStatus::noSuchEntry;
  DirectoryStatus status = directoryStatus::success;
  for (std::uint32_t at = 1; status == directoryStatus::success && at <= record->attributes.count; ++at) {
    auto attribute = reader.attribute(record->attributes, at);
    status = attribute ? readValues(reader, *attribute, visitor) : directoryStatus::invalidArgument;
  }
  return status;
}

}  // namespace ostrel
