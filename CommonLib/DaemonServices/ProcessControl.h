// Process control: finding, checking, signalling and stopping service processes; running helper programs; measuring
// processor usage.
#pragma once

#include <sys/time.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "Containers/Export.h"
#include "Containers/PlistValue.h"
#include "Platform/ProcessTable.h"

namespace ostrel {

// Each function works on the process table of that moment (Platform/ProcessTable.h) and keeps nothing between calls.
// Every function may be called from any thread, none raises and none logs, but for `get_service_state_from_pid_file`.
// Only those that say so wait.
//
// Names are compared exactly and case-sensitively with a process's short name. The kernel cuts that to 15 bytes; a
// longer name is compared with the whole name that `ProcessTable::isNamed` finds for such a process. Null and the empty
// name are nobody's. Any process may call itself as it likes: a name finds a service, it does not prove who it is.
//
// A process that ends, or whose id gets another owner, between look and signal is not an error: the signal then reaches
// nobody (Platform/ProcessSignals.h).

// The process table.

/// Gives the whole table, zombies included, in memory that the caller frees with std::free. 0; -1 with errno when it
/// cannot be had (EINVAL for a null argument), both out arguments being null and 0 then.
OSTREL_EXPORT int ec_get_process_table(ProcessEntry** table, std::size_t* count);

using ProcessCallback = int (*)(const ProcessEntry* entry, void* context);
/// Calls `callback` for every process whose id is not 0 and that is not a zombie, in table order, until it returns
/// something else than 0. What the table query returned, or -1 with errno EINVAL without a callback.
OSTREL_EXPORT int ec_walk_process_table(ProcessCallback callback, void* context);

/// The entry of a process, or null. It stands within a whole table that is never released, as it has always been:
/// `ec_check_process_by_pid` and `ProcessTable::find` cost no memory.
OSTREL_EXPORT const ProcessEntry* ec_process_info_by_pid(pid_t pid);

/// Whether a process with that id is in the table (a zombie is).
OSTREL_EXPORT bool ec_check_process_by_pid(pid_t pid);

/// The id of the first process of that name, or -1.
OSTREL_EXPORT pid_t ec_pid_for_process_named(const char* name);

/// Counts the processes of that name. 0, what the failing table query returned, EINVAL without `count`, or 12 (out of
/// memory); `count` is 0 then.
OSTREL_EXPORT int ec_is_daemon_running(const char* name, int* count);

/// The id, if the process has `name` at the start of its short name or directly behind a "/" in it ("ssh" fits "sshd",
/// "shd" does not), or is named exactly so; else -1.
OSTREL_EXPORT pid_t ec_check_pid_for_process_named(pid_t pid, const char* name);

/// Whether that process is there and not a zombie.
OSTREL_EXPORT bool get_service_state_from_pid(pid_t pid);

// Pid files.

/// The decimal integer at the start of the file at an absolute path, which is taken as it is. -1 for null, the empty
/// name, a file that cannot be opened, is no regular file or is larger than 16 MiB, and one that begins with no
/// integer or one that does not fit. A relative name of up to 1,014 bytes is -1 without a look at any file: meant so.
/// Only a longer one is looked up, below "/var/run/" (below the host root) cut to 1,023 bytes, then with ".pid" behind.
OSTREL_EXPORT int ec_pid_from_pid_file(const char* name);

/// `ec_check_pid_for_process_named` for the id in the pid file; when that gives none above 0,
/// `ec_pid_for_process_named`. Below 1: there is none.
OSTREL_EXPORT pid_t ec_pid_from_pid_file_or_process_named(const char* pidFile, const char* name);

/// `get_service_state_from_pid` for the id that `pid_from_file` (SessionIdentifiers.h, which logs) reads.
OSTREL_EXPORT bool get_service_state_from_pid_file(const std::string& path);

// Signals.

/// Sends `signal` to every process of that name. 0 when all went well (nobody of that name included), else the error
/// number of the last failure; EINVAL for a null name.
OSTREL_EXPORT int ec_signal_process_by_name(const char* name, int signal);

/// SIGTERM directly followed by SIGKILL to every process of that name. The error number as above.
OSTREL_EXPORT int ec_terminate_process_by_name(const char* name);

/// SIGTERM directly followed by SIGKILL to every child of the process, then to the process. The result of the last
/// kill: 0, or -1 with errno. An id below 1 (EINVAL) and 1 (EPERM), whose children are all of the host's services, are
/// refused.
OSTREL_EXPORT int ec_terminate_process_by_id(pid_t pid);

/// Stops a daemon that may have forked, and waits until its processes are gone: at least 2 seconds, at most 22.
///
/// SIGTERM goes to the process of that name that is the parent of another one of that name; without such a pair, to
/// the parent of the last process of that name, whoever that is: meant so, for daemons that work in a child of other
/// name. (For one that was started by this process, that is this process; for one that left its parent, process 1.)
/// Then each process that still has the name gets SIGTERM, and SIGKILL where that fails, every 2 seconds.
///
/// `message`, if given, is set to a text of malloc'ed 256 bytes that the caller frees: "NAME: stopped (pid #ID)\n",
/// "NAME: could not stop\n" (the result is false) or "NAME: already stopped\n"; to null, and the result is false, when
/// the table cannot be had.
OSTREL_EXPORT bool ec_terminate_daemon_by_name(const char* name, char** message);

// Helper programs. No shell is involved and nothing is searched for in PATH. A child gets none of this process's
// descriptors but standard output and error, and no blocked or ignored signals.

/// Runs the program at `path` with `arguments` (an array of strings, or null for none; its own name is not among them)
/// and waits, without limit, until it ends. The input is the string `input`, or empty when null; the environment is
/// the dictionary `environment` of strings, or this process's when null. Output and errors go where this process's go.
///
/// The exit status; 128 and the signal's number when a signal ended it; -1 with errno when it could not be started
/// (EINVAL for arguments of the wrong kind).
OSTREL_EXPORT int launch_task(const PlistValue& path, const PlistValue& arguments);
OSTREL_EXPORT int launch_task_with_input(const PlistValue& path, const PlistValue& arguments, const PlistValue& input);
OSTREL_EXPORT int launch_task_with_input_and_environment(const PlistValue& path, const PlistValue& arguments,
                                                         const PlistValue& input, const PlistValue& environment);

/// Starts the program like `launch_task`, for one that goes on running: returns at once, true when it was started. Its
/// output and errors are discarded, it runs in a session of its own, and it outlives this process.
OSTREL_EXPORT bool start_task(const PlistValue& path, const PlistValue& arguments);

// Processor usage.

/// The user and system time that this process has used, all its threads together; zero when it cannot be had.
OSTREL_EXPORT timeval get_process_cpu_usage();

/// Sets both to what the machine's running processors have counted: idle ticks, and user, system and idle ticks
/// together. 0; both 0 and an error number on failure (EINVAL when one is null).
OSTREL_EXPORT int reset_total_cpu_usage(std::uint64_t* idleTicks, std::uint64_t* totalTicks);

/// How busy the machine was since those baselines, in percent; 0 when no tick has passed, -1 when it cannot be read.
OSTREL_EXPORT int get_total_cpu_usage(std::uint64_t idleBaseline, std::uint64_t totalBaseline);

}  // namespace ostrel
