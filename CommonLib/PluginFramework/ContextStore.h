// A module's persistent context for tools: locked, read, written back and unlocked by plain functions.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

#include "Containers/Export.h"
#include "Containers/PlistValue.h"

namespace ostrel {

// The context of module N is a mutable dictionary, kept as a binary property list in the file
// "/private/var/ostreld/N.lock" (empty: an empty dictionary). An exclusive flock(2) on that very file serialises its
// users, threads and processes alike, so the file is never replaced, only written in place. Beside it,
// "N.lock.journal" makes a write whole or void across a crash: see Internal/ContextFile.h and docs/performance.md.
//
// "contextDirty" in a context, true or exactly "YES", asks for it to be written back at the unlock.
//
// Threads: every function may be called from any thread. A context belongs to whoever holds its lock.

/// Opens and locks the context file of module `name` and reads it. Only what follows the last "/" of the name counts.
/// Waits for the lock: 2 minutes (120,000 tries, a millisecond apart) when `outTimedOut` is given, for ever otherwise.
///
/// The context, with "contextDirty" false; a file that cannot be read as a context gives an empty one. The open
/// descriptor goes to `outDescriptor`; `set_and_unlock_context` takes it back.
/// Null when the lock was not had in time: logged, `outTimedOut` set, and the descriptor stays open and is the
/// caller's to close. Any other failure to lock is logged, and the context is given without the lock: an empty one with
/// the descriptor -1, which nothing is stored from, when the file cannot be opened or the name holds a NUL.
OSTREL_EXPORT PlistValue get_and_lock_context_with_timeout(std::string_view name, int* outDescriptor,
                                                           bool* outTimedOut);

/// The same without a limit to the wait.
OSTREL_EXPORT PlistValue get_and_lock_context(std::string_view name, int* outDescriptor);

/// Writes the context back if it is dirty, removing "contextDirty" from it ("_user_" stays); a null pointer or a null
/// context erases what is stored. Then unlocks and closes, and sets the descriptor to -1. Nothing happens for a null
/// descriptor or one of -1. A context that cannot be written is logged; the stored one then stays as it was.
OSTREL_EXPORT void set_and_unlock_context(int* descriptor, const PlistValue* context);

/// Raised by `BundleManager::getAndLockContext` when the status of the locked file cannot be read.
class OSTREL_EXPORT ContextError : public std::runtime_error {
 public:
  explicit ContextError(const std::string& reason) : std::runtime_error(reason) {}
  /// "contextError"; `what` is the reason.
  static constexpr const char* name() noexcept { return "contextError"; }
};

}  // namespace ostrel
