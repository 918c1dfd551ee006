// Launch-daemon control: switching services on and off, their launch arguments, what the launcher tells of them.
#pragma once

#include "Containers/Export.h"
#include "Containers/PlistValue.h"
#include "Platform/FileDates.h"  // ModDateIsOld, modificationDateAtPath:
#include "Platform/LaunchData.h"

namespace ostrel {

// A service is named by the absolute path of its job description file, a property list with "Label" and
// "ProgramArguments", or by a bare name N, which stands for "/System/Library/LaunchDaemons/" (below the host root) with
// "N.plist", if that exists, else "N.xml", if that exists, else "N.plist" all the same. A given path is taken as it is.
// A bare name that is empty or holds "/" or a NUL names nothing.
//
// Where the host has the launcher's own tool, "/bin/launchctl" below the host root, that is used. Elsewhere the host's
// service manager stands behind these functions (Platform/ServiceManager.h: systemd), with the same results; a host
// with neither answers false or null to everything. docs/services.md shows what becomes of a job.
//
// Every function may be called from any thread, none raises and none logs. Failures are false or null only. Those that
// ask or switch run a program and wait for it.

/// Whether the tool that controls the services is there and executable: "/bin/launchctl" below the host root, else the
/// service manager's.
OSTREL_EXPORT bool IsLaunchDaemonAvailable();

/// Switches a service on or off, now and for each start of the host. "/bin/launchctl load -w PATH" or "unload -w PATH",
/// run also when there is no file at PATH: true exactly when it exits with 0. With another service manager its own
/// command's exit status counts likewise. False, and nothing is run, without a tool or for a name that names nothing.
OSTREL_EXPORT bool SetLaunchDaemonServiceState(const PlistValue& service, bool enable);

/// Whether the launcher has the job enabled. For a path, the job is the one of the "Label" in that file; when the file
/// cannot be read, the path itself is the label. Everything else is a label. With "/bin/launchctl", a job is enabled
/// that its "list" shows.
OSTREL_EXPORT bool GetLaunchDaemonServiceState(const PlistValue& service);

/// "ProgramArguments" of a job description file; null when there is none.
OSTREL_EXPORT PlistValue GetLaunchDaemonServiceConfigArgs(const PlistValue& path);

/// Sets "ProgramArguments" in a job description file to the array, and writes the file in one step: other keys, their
/// order, the file's form (XML or binary), owner and mode stay; comments do not. False, and the file is as it was,
/// when it cannot be read or written, is no dictionary, or an argument is null or of another kind.
OSTREL_EXPORT bool SetLaunchDaemonServiceConfigArgs(const PlistValue& path, const PlistValue& arguments);

/// What the launcher tells of the job with that label, as a dictionary (its keys: `ServiceManager::send`, or
/// `jobsOfLaunchTool`); null for a null label, a job that it does not know, and where no launcher runs.
OSTREL_EXPORT PlistValue GetLaunchDaemonServiceInfo(const PlistValue& label);

/// The same of every job that the launcher has loaded: a dictionary from label to the job's dictionary, or null.
OSTREL_EXPORT PlistValue GetLaunchDaemonAllServicesInfo();

/// A launcher's value as a property list: descriptors and error numbers become numbers, a port the 4 bytes of its
/// number in the host's order. Null for null, for a value without a kind, for text that is not UTF-8 and for what
/// stands below `maximumPlistDepth` containers. Dictionaries and arrays are mutable; an element that is null is left
/// out.
OSTREL_EXPORT PlistValue _CFCopyLaunchData(const LaunchData* value);

/// Its step for a dictionary's member: sets the converted `value` under `key` in `target`. One that cannot be converted
/// is the null value there, what `get` answers: a value that `target` has under that key is removed. Null arguments do
/// nothing.
OSTREL_EXPORT void _launch_dict_callback(const LaunchData* value, const char* key, PlistValue target);

}  // namespace ostrel
