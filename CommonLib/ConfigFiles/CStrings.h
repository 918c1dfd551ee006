// Routines for NUL-terminated strings in buffers of fixed size.
#pragma once

#include <cstddef>
#include <cstdint>

#include "Containers/Export.h"

namespace ostrel {

extern "C" {

// A size is that of the destination in bytes, the terminating NUL included; with a size of 0 or a null destination
// nothing is written. What does not fit is cut off, and the destination is NUL-terminated all the same. A null source
// counts as an empty one. Source and destination may overlap where nothing else is said. Mind the order of the
// arguments: copy and concatenation take the destination first, the quoting copies the source.
// Threads: may be called from any thread.

/// Copies at most `size` - 1 characters.
OSTREL_EXPORT void MyCopyCStrings(char* destination, const char* source, std::size_t size);

/// Appends as much as fits; nothing when the destination holds `size` - 1 characters already (or no NUL within `size`).
OSTREL_EXPORT void MyConcatCStrings(char* destination, const char* source, std::size_t size);

/// Appends a path component with exactly one "/" between, whatever slashes the two have there; nothing when the
/// destination is empty. The two may not overlap.
OSTREL_EXPORT void MyConcatCPaths(char* destination, const char* component, std::size_t size);

/// 1 when the paths are equal or `a` is a folder above `b`, one trailing "/" on each being ignored; then `isAncestor`
/// (may be null) becomes 1 when `b` is the longer one. Otherwise, and for empty paths, both are 0. Case counts.
OSTREL_EXPORT std::int32_t MyCompareCPaths(const char* a, const char* b, std::int32_t* isAncestor);

/// Copies in double quotes; as it is when it is in double quotes already or would not fit with them.
OSTREL_EXPORT void MyCopyCStringsWithDQ(const char* source, char* destination, std::size_t size);

/// Copies without the pair of double quotes around it, if there is one.
OSTREL_EXPORT void MyCopyCStringsWithoutDQ(const char* source, char* destination, std::size_t size);

/// 1 when equal; the second takes A-Z and a-z as the same. A null string equals an empty one.
OSTREL_EXPORT std::int32_t MyEqualCStrings(const char* a, const char* b);
OSTREL_EXPORT std::int32_t MyEqualCaseCStrings(const char* a, const char* b);

/// A new string, `a` followed by `b`, which the caller frees with free(3); null when there is no memory.
OSTREL_EXPORT char* MyNewCStringByConcat(const char* a, const char* b);

/// Grows `a`, which malloc(3) or one of these two made, and appends `b`, which may lie inside `a`; with a null `a` a
/// new copy of `b`. The result takes the place of `a` and is the caller's to free. Null when there is no memory: `a` is
/// then still the caller's, unchanged.
OSTREL_EXPORT char* MyReallocCStringByConcat(char* a, const char* b);

}  // extern "C"

}  // namespace ostrel
