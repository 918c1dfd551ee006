// A module's context file: opened, read, written in place, and made whole again after a crash.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Containers/PlistValue.h"

namespace ostrel::detail {

// How a context is written so that a crash leaves the old or the new one, never a mixture or nothing:
//
// The file itself carries the lock, so it cannot be replaced by rename. It is overwritten where it changes and then cut
// to the new length: on ext4 far cheaper than truncating first, which makes the file system allocate anew and flush at
// the close. Before that, the new and the old bytes there go to "FILE.journal", with a checksum over all:
//
//   1. sync the file, so that the journal's former record is needed no more
//   2. write the journal and sync it (and its folder, when the journal is new)
//   3. overwrite the file and cut it to length; not synced: the journal can repeat this step until the next write
//
// Whoever reads or writes the file, with the lock held, looks at the journal first. The write in it was interrupted
// when the record is intact and the file is neither its old nor its new bytes but, byte for byte, a mixture of the two;
// the new bytes are then put in place or, where the disk has no room for them, the old ones. In every other case the
// file is a whole context and is left alone: a journal that is torn, or is older than what somebody else wrote or
// restored since, damages nothing.
//
// The journal stays, to be overwritten by the next write: making and removing it each time would cost more, and the
// comparison above makes a leftover harmless. It has the mode of the file, since it holds the same data, and its
// owner where the writer may give that.
//
// Threads: every function may be called from any thread; the caller holds the file's lock. Each may block on the disk.

/// "YES" exactly, or a true number, under "contextDirty".
bool isDirty(const PlistValue& context);

/// Opens the file at `path`, making it empty with mode 0770 when there is none. With `exactMode` it gets that mode
/// whatever the process's umask is: by fchmod(2) after the creation, since clearing the umask would for that moment
/// open up the files that other threads make. The descriptor, or -1 with the reason in errno. A path with a NUL
/// names nothing.
int openContextFile(const std::string& path, bool exactMode);

/// The context in the file, a mutable dictionary: an empty one for an empty file, and for one that cannot be read as a
/// context, which is logged as "[%d] exception in get_and_lock_context: %s\n". Bytes that cannot be read are kept as
/// "FILE.unreadable" (the first of them, until somebody removes it), since the next write ends them.
PlistValue readContext(int descriptor);

/// Archives the context and writes it as described above. Absent on success; otherwise the reason in words, and the
/// file is as it was (when even that cannot be written: once it is read next). Without the right to make the journal (a
/// program that may write the file but not its folder) the file is written without one.
std::optional<std::string> writeContext(int descriptor, const PlistValue& context);

/// Makes the file empty. Absent on success, otherwise the reason in words.
std::optional<std::string> eraseContext(int descriptor);

/// Orders this thread's use of a shared context after that of its former holder on another thread: a file lock does
/// so for the machine, but the memory model of C++ knows nothing of it. Called after locking and before unlocking.
void handOverContext() noexcept;

}  // namespace ostrel::detail
