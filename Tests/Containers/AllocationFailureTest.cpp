// Every allocation of the value type and its codecs fails once. The sanitizers replace the allocator themselves: there
// this file is empty.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <new>
#include <string>

#include "Containers/PropertyList.h"

#ifdef __has_feature
#define OSTREL_HAS_FEATURE(feature) __has_feature(feature)
#else
#define OSTREL_HAS_FEATURE(feature) 0
#endif

#if defined(__GLIBC__) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) && \
    !OSTREL_HAS_FEATURE(address_sanitizer) && !OSTREL_HAS_FEATURE(thread_sanitizer)

namespace {

thread_local long allocationsUntilFailure = -1;  // negative: none fails

bool failsNow() {
  if (allocationsUntilFailure < 0 || allocationsUntilFailure-- > 0) return false;
  errno = ENOMEM;
  return true;
}

}  // namespace

// The allocator's own names stay those of the C library; these stand before them in the search for symbols.
extern "C" {
void* __libc_malloc(std::size_t size);                     // NOLINT
void* __libc_calloc(std::size_t count, std::size_t size);  // NOLINT
void* __libc_realloc(void* memory, std::size_t size);      // NOLINT

void* malloc(std::size_t size) { return failsNow() ? nullptr : __libc_malloc(size); }
void* calloc(std::size_t count, std::size_t size) { return failsNow() ? nullptr : __libc_calloc(count, size); }
void* realloc(void* memory, std::size_t size) { return failsNow() ? nullptr : __libc_realloc(memory, size); }
}

namespace ostrel {
namespace {

/// Runs `work` with its first allocation failing, then with its second, and so on, until it succeeds. Returns how often
/// it ran out of memory. What is freed twice on the way stops the program: the C library notices.
template <class Work>
long exhaust(const Work& work) {
  for (long failing = 0;; ++failing) {
    allocationsUntilFailure = failing;
    try {
      work();
      const bool reached = allocationsUntilFailure < 0;
      allocationsUntilFailure = -1;
      if (!reached) return failing;  // fewer allocations than that
    } catch (const std::bad_alloc&) {
      allocationsUntilFailure = -1;
    }
  }
}

PlistValue sample() {
  PlistValue large = PlistValue::mutableDictionary();
  for (int i = 0; i < 100; ++i) large.set("a key of some length " + std::to_string(i), std::string(40, 'v'));
  large.set("data", PlistData{"has an allocation of its own"});
  return PlistValue::dictionaryOf({{"large", large},
                                   {"list", PlistValue::arrayOf({large, PlistData{std::string(5000, 'd')}, large})},
                                   {"wide", "\xC3\xA9 in a text beyond a handle"}});
}

TEST(AllocationFailure, IsThrownAndLeavesNothingBehind) {
  const PlistValue value = sample();
  std::string xml = *writeXmlPropertyList(value);
  xml.replace(xml.find("<array>"), 7, "<array><date>2011-08-15T16:08:25." + std::string(80, '1') + "Z</date>");
  const std::string binary = *writeBinaryPropertyList(value);
  EXPECT_GT(exhaust([&] { readPropertyList(xml); }), 5);
  EXPECT_GT(exhaust([&] { readPropertyList(binary, PlistForm::mutableContainers); }), 5);
  EXPECT_GT(exhaust([&] { readStringsFile("a = \"a text that no handle holds\"; b = \"\\n\";"); }), 3);
  EXPECT_GT(exhaust([&] { value.deepMutableCopy(); }), 5);
  EXPECT_GT(exhaust([&] { value.dictionaryForKeys(PlistValue::arrayOf({"*"})).updateWithDictionary(value); }), 5);
  EXPECT_GT(exhaust([&] { value.get("large").mutableCopy(); }), 1);
  EXPECT_GT(exhaust([&] { writeXmlPropertyList(value); }), 0);
  EXPECT_GT(exhaust([&] { writeBinaryPropertyList(value); }), 3);
  EXPECT_GT(exhaust([&] { (void)value.description(); }), 3);
  EXPECT_EQ(value, sample());
}

TEST(AllocationFailure, LeavesADictionaryThatIsWrittenWhole) {
  PlistValue dictionary = PlistValue::mutableDictionary();
  for (int i = 0; i < 40; ++i) {
    const std::string key = "a key of some length " + std::to_string(i);
    exhaust([&] { dictionary.set(key, i); });
  }
  ASSERT_EQ(dictionary.count(), 40U);
  for (const PlistEntry& entry : dictionary.entries()) EXPECT_EQ(dictionary.find(entry.keyText()), &entry.value);
}

}  // namespace
}  // namespace ostrel

#endif
