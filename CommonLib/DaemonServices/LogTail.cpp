#include "DaemonServices/LogTail.h"

#include <algorithm>
#include <chrono>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "Containers/ErrorCodes.h"
#include "Containers/Format.h"
#include "DaemonServices/BackwardSearch.h"
#include "DaemonServices/Internal/SearchSteps.h"
#include "Platform/FileDescriptor.h"
#include "Platform/RegularFile.h"

namespace ostrel {
namespace {

constexpr std::chrono::seconds searchTimeLimit{20};

/// A part of a file: where it begins and how long it is.
struct Portion {
  std::uint64_t offset;
  std::uint64_t amount;
};

/// The part to read of a file of `size` bytes. Never adds offset and amount: the sum may not fit.
Portion portionToRead(std::uint64_t size, Portion asked) {
  if (asked.offset >= size || asked.amount == 0) return {size, 0};
  const std::uint64_t available = size - asked.offset;
  // The newest bytes win over the requested start; this is meant.
  if (asked.amount <= available) return {size - asked.amount, asked.amount};
  return {asked.offset, available};
}

/// The members of an array that are non-empty strings.
PlistValue usableFilters(const PlistValue& filters) {
  PlistValue usable = PlistValue::mutableArray();
  for (const PlistValue& filter : filters.elements()) {
    if (!filter.stringValue().empty()) usable.append(filter);
  }
  return usable;
}

/// Reads the portion that `offset` and `amount` ask for. `reached` is kept at the code that a failure of the current
/// step has.
const char* readPortion(const std::string& path, PlistValue& offset, PlistValue& amount, PlistValue& contents,
                        const char*& reached) {
  reached = errors::fileNotFound;
  FileDescriptor file = openRegularFile(path);
  if (!file) return reached;

  reached = errors::cannotSeek;
  const auto status = descriptorStatus(file.get());
  if (!status) return reached;
  const Portion portion = portionToRead(status->size, {offset.uint64Value(), amount.uint64Value()});

  reached = errors::cannotAllocate;
  if (portion.amount > SIZE_MAX) return reached;
  const auto size = static_cast<std::size_t>(portion.amount);
  const OwnedByteBuffer buffer(newBuffer(size));
  if (!buffer) return reached;

  reached = errors::cannotRead;
  if (readAt(file.get(), buffer->bytes, size, portion.offset) != static_cast<ssize_t>(size)) return reached;
  file.reset();

  reached = errors::cannotAllocate;
  offset = portion.offset;
  amount = portion.amount;
  contents = PlistValue::stringFromUTF8({buffer->bytes, size});
  return contents.isNull() ? reached : nullptr;
}

const char* readFiltered(const std::string& path, PlistValue& offset, PlistValue& amount, PlistValue& contents,
                         const PlistValue& filters) {
  const FileDescriptor file = openRegularFile(path);
  if (!file) return errors::fileNotFound;
  const auto status = descriptorStatus(file.get());
  if (!status) return errors::cannotSeek;

  Portion portion{offset.uint64Value(), amount.uint64Value()};
  if (portion.offset >= status->size || portion.amount == 0) portion = {status->size, 0};
  std::vector<std::string_view> words;
  for (const PlistValue& filter : filters.elements()) {
    if (filter.isString()) words.push_back(filter.stringValue());
  }
  const LineCollector found =
      detail::searchBackward(file.get(), status->size, {words, portion.amount, portion.offset, searchTimeLimit});
  offset = status->size;
  amount = portion.amount;
  contents = PlistValue::stringFromUTF8(found.text());
  return nullptr;
}

/// What the contents become when an exception ended the read.
PlistValue accessError(const PlistValue& path, const char* reached) try {
  return format("Error while accessing %@: %@", path, reached);
} catch (const std::bad_alloc&) {
  return {};
}

}  // namespace

const char* do_get_tail_contents_for_identifier(const PlistValue& identifier, const PlistValue& allowedLogs,
                                                PlistValue& path, PlistValue& offset, PlistValue& amount,
                                                PlistValue& contents, const PlistValue& context,
                                                const PlistValue& request) {
  path = PlistValue();
  contents = PlistValue();
  if (!identifier.isString()) return errors::illegalLogIdentifierRequested;
  path = allowedLogs.get(identifier.stringValue());
  if (path.isNull()) return errors::illegalLogIdentifierRequested;
  return do_verify_path_and_get_tail_contents(path, allowedLogs, offset, amount, contents, context, request);
}

const char* do_verify_path_and_get_tail_contents(const PlistValue& path, const PlistValue& allowedLogs,
                                                 PlistValue& offset, PlistValue& amount, PlistValue& contents,
                                                 const PlistValue& context, const PlistValue& request) {
  contents = PlistValue();
  const auto isThisPath = [&path](const PlistEntry& log) { return log.value == path; };
  if (!path.isString() || std::ranges::none_of(allowedLogs.entries(), isThisPath)) return errors::illegalPathRequested;
  return do_get_tail_contents(path, offset, amount, contents, context, request);
}

const char* do_get_tail_contents(const PlistValue& path, PlistValue& offset, PlistValue& amount, PlistValue& contents,
                                 const PlistValue& context, const PlistValue& request) try {
  const PlistValue filters = usableFilters(request.get("withFilters"));
  if (filters.count() == 0) return do_get_file_contents(path, offset, amount, contents);
  return do_get_filtered_file_contents(path, offset, amount, contents, context, filters);
} catch (const std::bad_alloc&) {
  contents = PlistValue();
  return errors::cannotAllocate;
}

const char* do_get_file_contents(const PlistValue& path, PlistValue& offset, PlistValue& amount, PlistValue& contents) {
  contents = PlistValue();
  const char* reached = errors::fileNotFound;
  try {
    return readPortion(std::string(path.stringValue()), offset, amount, contents, reached);
  } catch (const std::exception&) {
    contents = accessError(path, reached);
    return reached;
  }
}

const char* do_get_filtered_file_contents(const PlistValue& path, PlistValue& offset, PlistValue& amount,
                                          PlistValue& contents, const PlistValue&, const PlistValue& filters) try {
  contents = PlistValue();
  return readFiltered(std::string(path.stringValue()), offset, amount, contents, filters);
} catch (const std::bad_alloc&) {
  contents = PlistValue();
  return errors::cannotAllocate;
}

}  // namespace ostrel
