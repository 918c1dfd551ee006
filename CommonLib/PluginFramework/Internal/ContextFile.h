// A module's context file: opened, read, written in place, and made whole again after a crash.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Containers/PlistValue.h"

namespace ostrel::detail {

// How a context is written so that a crash leaves the old or the new one, never a mixture or nothing:
//
// The file itself carries the lock, so it cannot be replaced by rename. It is overwritten where it changes and cut to
// the new length. Before that, the change goes to the log "FILE.journal" (its format: ContextJournal.h):
//
//   an epoch begins   sync the file and its time; empty the journal and sync it; put the whole file there as the base
//   each write        append a record: which stretches are replaced, by what, and what they held before,
//                     with the time of modification that the file is going to get
//                     sync the journal, if the write is one that is synced (below)
//                     overwrite those stretches of the file; not synced: the log can repeat it
//                     note in the journal's status how far the file has come, and its time and size
//
// A new epoch begins when the log has passed 1 MB and four times the file, after a restart of the machine, and when the
// file is not as the status says: somebody else wrote it. Records are made from the bytes that the file really holds.
//
// Which writes are synced: all but those that change nothing but bytes within data values of unchanged length, such as
// samples taken into a history, within 90 seconds after the write before. Settings are made by people, seldom, and must
// be there after a power failure once the lock is given up. Samples are made by clocks, for ever: a sync each would
// cost ten times the rest of the write and wear the disk, to save the last half minute of a graph. They are whole or
// absent all the same, and are on the disk with the next synced write, the next epoch, or when the kernel writes them
// back.
//
// What happens after a crash, whenever somebody reads or writes the file with the lock held:
//
// - The machine has run on (boot_id is that in the journal; all processes see the same bytes): only the last record can
//   be half in the file. When the file is, byte for byte, a mixture of the contents before and after that record, the
//   record is put in place or, where the disk has no room for it, taken back.
// - The machine was started anew: the file and the unsynced end of the log are what the disk happened to get. The last
//   content that the log tells without a gap is restored, and the bytes found are kept as "FILE.unreadable", if nobody
//   has touched the file since the start and its time is one that the log knows or within 150 seconds after the last of
//   them. (A lost write came at most 90 seconds after one that the log knows, or it would have been synced; others
//   followed until the kernel wrote the first of them back.) Then the journal is emptied.
// - In every other case the file is a whole context that somebody put there, and is left alone.
//
// The journal stays, to be used by the next write. It has the mode of the file, since it holds the same data, and its
// owner where the writer may give that.
//
// A process remembers what it wrote last, and keeps the journal open: when file, journal and their names are as it left
// them, its next write need not read the file. The time that each write gives the file tells it from every other.
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
/// "FILE.unreadable" (".unreadable.2" and so on while there are others), since the next write ends them.
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
