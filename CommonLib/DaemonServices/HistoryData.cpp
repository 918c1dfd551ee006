#include "DaemonServices/HistoryData.h"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <new>
#include <span>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "Containers/ErrorCodes.h"
#include "Containers/Format.h"
#include "Containers/PlistRows.h"
#include "Platform/Clock.h"
#include "Platform/SystemLog.h"

namespace ostrel {
namespace {

constexpr std::string_view defaultName = "history";

constexpr std::uint32_t historyVersion = 1;
constexpr std::uint32_t fineCapacity = 1'440;
constexpr std::uint32_t coarseCapacity = 2'016;
constexpr std::uint64_t coarseInterval = 299;  // seconds; a promoted sample is later by more
constexpr std::uint64_t noValue = 0x7FFF'FFFF'FFFF'FFFF;

struct Header {
  std::uint32_t version = historyVersion;
  std::uint32_t fineSize = fineCapacity;
  std::uint32_t coarseSize = coarseCapacity;
  std::uint32_t valuesPerSample = 0;
  std::uint32_t newestFine = fineCapacity - 1;
  std::uint32_t newestCoarse = coarseCapacity - 1;
};
static_assert(sizeof(Header) == 24);

std::uint64_t sampleSize(std::uint32_t valuesPerSample) { return (std::uint64_t{valuesPerSample} + 1) * 8; }
std::uint64_t historySize(std::uint32_t valuesPerSample) {
  return sizeof(Header) + sampleSize(valuesPerSample) * (fineCapacity + coarseCapacity);
}

/// The bytes of a history whose lengths and indexes fit one another, of char or const char. Words are copied in and
/// out: nothing says that the bytes are aligned.
template <class Byte>
class History {
 public:
  /// Throws std::runtime_error for a damaged history.
  explicit History(std::span<Byte> bytes) : bytes_(bytes) {
    if (bytes.size() < sizeof header_) throw std::runtime_error("the history is shorter than its header");
    std::memcpy(&header_, bytes.data(), sizeof header_);
    if (bytes.size() != historySize(header_.valuesPerSample))
      throw std::runtime_error(
          format("the history has %d bytes, which %d values a sample do not fill", bytes.size(), valuesPerSample()));
    if (header_.newestFine >= fineCapacity || header_.newestCoarse >= coarseCapacity)
      throw std::runtime_error(
          format("the history's indexes %d and %d lie outside its rings", header_.newestFine, header_.newestCoarse));
  }

  const Header& header() const noexcept { return header_; }
  std::uint32_t valuesPerSample() const noexcept { return header_.valuesPerSample; }

  // Samples are counted through both rings: the coarse ones follow the fine ones.
  Byte* sample(std::uint32_t index) const noexcept {
    return bytes_.data() + sizeof header_ + index * sampleSize(valuesPerSample());
  }
  std::uint64_t word(std::uint32_t index, std::uint32_t position) const noexcept {
    std::uint64_t value = 0;
    std::memcpy(&value, sample(index) + std::size_t{position} * 8, sizeof value);
    return value;
  }
  std::uint64_t time(std::uint32_t index) const noexcept { return word(index, 0); }
  void setWord(std::uint32_t index, std::uint32_t position, std::uint64_t value) const noexcept {
    std::memcpy(sample(index) + std::size_t{position} * 8, &value, sizeof value);
  }

  void setNewest(std::uint32_t fine, std::uint32_t coarse) noexcept {
    header_.newestFine = fine;
    header_.newestCoarse = coarse;
    std::memcpy(bytes_.data(), &header_, sizeof header_);
  }

 private:
  std::span<Byte> bytes_;
  Header header_;
};

double wholeSecondsNow() { return std::floor(Clock::current().now().secondsSince1970); }

bool isCurrentHistory(const PlistValue* value) {
  Header header;
  const std::string_view bytes = value == nullptr ? std::string_view() : value->dataBytes();
  if (bytes.size() < sizeof header) return false;
  std::memcpy(&header, bytes.data(), sizeof header);
  return header.version == historyVersion && header.fineSize == fineCapacity && header.coarseSize == coarseCapacity;
}

/// False when there is no memory for it.
bool beginHistory(PlistValue& context, std::string_view name, std::size_t valuesPerSample) try {
  Header header;
  if (valuesPerSample > UINT32_MAX) throw std::bad_alloc();
  header.valuesPerSample = static_cast<std::uint32_t>(valuesPerSample);
  std::string bytes(historySize(header.valuesPerSample), '\0');
  std::memcpy(bytes.data(), &header, sizeof header);
  context.set(name, PlistData{bytes});
  return true;
} catch (const std::bad_alloc&) {
  return false;
}

void append(History<char> history, std::span<const PlistValue> values, std::uint64_t now) {
  const std::uint32_t fine = (history.header().newestFine + 1) % fineCapacity;
  std::uint32_t coarse = history.header().newestCoarse;
  // Unsigned, and meant: after the clock was set back the difference is huge, and the sample is kept.
  const std::uint64_t oldest = history.time(fine);
  if (oldest != 0 && oldest - history.time(fineCapacity + coarse) > coarseInterval) {
    coarse = (coarse + 1) % coarseCapacity;
    std::memcpy(history.sample(fineCapacity + coarse), history.sample(fine), sampleSize(history.valuesPerSample()));
  }
  history.setWord(fine, 0, now);
  const std::size_t count = std::min<std::size_t>(values.size(), history.valuesPerSample());
  for (std::uint32_t i = 0; i < count; ++i)
    history.setWord(fine, i + 1, values[i].isNumber() ? values[i].uint64Value() : noValue);
  history.setNewest(fine, coarse);
}

std::uint32_t before(std::uint32_t index, std::uint32_t capacity) { return index == 0 ? capacity - 1 : index - 1; }

/// The samples from the newest back to the first that is earlier than `cutOff` or was never written.
std::vector<std::uint32_t> recentSamples(const History<const char>& history, std::uint64_t cutOff) {
  std::vector<std::uint32_t> recent;
  const auto walk = [&](std::uint32_t ring, std::uint32_t newest, std::uint32_t capacity) {
    std::uint32_t index = newest;
    do {
      const std::uint64_t time = history.time(ring + index);
      if (time == 0 || time < cutOff) return false;
      recent.push_back(ring + index);
      index = before(index, capacity);
    } while (index != newest);
    return true;
  };
  if (walk(0, history.header().newestFine, fineCapacity))
    walk(fineCapacity, history.header().newestCoarse, coarseCapacity);
  return recent;
}

/// The time and the values that a filter lets through; no filter lets all through.
struct Columns {
  std::vector<PlistValue> keys;
  std::vector<std::uint32_t> positions;  // in a sample
};

Columns columnsFor(const PlistValue& keyFilter, std::uint32_t valuesPerSample) {
  if (!keyFilter.isNull() && !keyFilter.isString()) throw std::runtime_error("the key filter is not text");
  const std::string_view filter = keyFilter.stringValue();
  Columns columns{{"t"}, {0}};
  for (std::uint32_t i = 1; i <= valuesPerSample; ++i) {
    const std::string key = format("v%u", i);
    if (!keyFilter.isNull() && filter.find(key) == std::string_view::npos) continue;
    columns.keys.emplace_back(key);
    columns.positions.push_back(i);
  }
  return columns;
}

PlistValue samplesOf(const History<const char>& history, const PlistValue& keyFilter, std::uint64_t cutOff) {
  const std::vector<std::uint32_t> recent = recentSamples(history, cutOff);
  const Columns columns = columnsFor(keyFilter, history.valuesPerSample());
  PlistRows samples(recent.size(), columns.keys.size());
  std::vector<std::uint64_t> words(columns.positions.size());
  for (const std::uint32_t index : recent) {
    for (std::size_t i = 0; i < words.size(); ++i) words[i] = history.word(index, columns.positions[i]);
    samples.add(columns.keys, words, noValue);
  }
  return samples.finish();
}

}  // namespace

const char* do_update_named_history_data(std::string_view name, const PlistValue& values, const PlistValue& context) {
  if (values.isNull() || context.isNull()) return errors::cannotMakeHistory;
  try {
    PlistValue changed = context;
    if (!changed.set("contextDirty", true)) throw std::runtime_error("the context is not a mutable dictionary");
    if (!values.isArray()) throw std::runtime_error("the values are not an array");
    if (!isCurrentHistory(changed.find(name)) && !beginHistory(changed, name, values.count())) return nullptr;
    const History<const char> checked(changed.find(name)->dataBytes());  // before it is copied or changed
    append(History<char>(changed.changeData(name)), values.elements(), PlistValue(wholeSecondsNow()).uint64Value());
    return nullptr;
  } catch (const std::exception& exception) {
    logNotice("[%d] exception in do_update_named_history_data(%s): %s\n", processId(), name, exception.what());
    return errors::cannotMakeHistory;
  }
}

const char* do_get_named_history_data(std::string_view name, const PlistValue& keyFilter, const PlistValue& period,
                                      PlistValue& outArray, const PlistValue& context) {
  outArray = PlistValue();
  try {
    const PlistValue* entry = context.find(name);
    if (entry == nullptr) return nullptr;
    // Rounded up and clamped to what a time can be.
    const std::uint64_t cutOff = PlistValue(std::ceil(wholeSecondsNow() - period.doubleValue())).uint64Value();
    outArray = PlistValue::mutableArray();
    if (entry->isData()) outArray = samplesOf(History<const char>(entry->dataBytes()), keyFilter, cutOff);
    return nullptr;
  } catch (const std::exception& exception) {
    logNotice("[%d] exception in do_get_named_history_data(%s): %s\n", processId(), name, exception.what());
    return errors::cannotGetHistory;
  }
}

const char* do_update_history_data(const PlistValue& values, const PlistValue& context) {
  return do_update_named_history_data(defaultName, values, context);
}

const char* do_get_history_data(const PlistValue& keyFilter, const PlistValue& period, PlistValue& outArray,
                                const PlistValue& context) {
  return do_get_named_history_data(defaultName, keyFilter, period, outArray, context);
}

}  // namespace ostrel
