// Session identifiers, "user@token": minted, stored and checked; and the small host-side checks that travel with them.
#pragma once

#include <string>

#include "Containers/Export.h"
#include "Containers/PlistValue.h"

namespace ostrel {

// Texts are PlistValue strings; where null is allowed it is said. Every function may be called from any thread and
// none raises. Fixed paths lie below the host root. Only regular files of at most 16 MiB are read: others count as
// missing.
//
// A session's file is named by the identifier, followed by "." and the extension when one is given (not null). An
// identifier that is no string, is empty, ".", or "..", and an identifier or extension that holds "/" or a NUL, name
// nothing: such a call fails as if the file could not be made, removed or read. A symbolic link in the place of a
// session's file is never followed.

/// Mints "nobody@" and 32 random letters and digits, leaving an empty file of mode 0600 of that name in
/// "/var/ostreld/sessions/". Null when the random device or the marker file cannot be had (a missing folder included).
OSTREL_EXPORT PlistValue generate_unprivileged_session_id(const PlistValue& extension = {});

/// Stores `contents` (a string of at most 16 MiB) for a session in "/var/ostreld/proxied_sessions/", which is made with
/// mode 0700 if it is missing, as a file of mode 0600 that is replaced in one step. False, and a notice in the log,
/// when that fails.
OSTREL_EXPORT bool save_session_id(const PlistValue& identifier, const PlistValue& contents,
                                   const PlistValue& extension = {});

/// `save_session_id` for each member of the array, in order. All are attempted; true when every one succeeded.
OSTREL_EXPORT bool save_session_id_multiple(const PlistValue& identifiers, const PlistValue& contents,
                                            const PlistValue& extension = {});

/// Deletes a proxied session's file; whether that succeeded.
OSTREL_EXPORT bool revoke_session_id(const PlistValue& identifier, const PlistValue& extension = {});

/// The text that was stored for a proxied session; null when there is none or it is not UTF-8.
OSTREL_EXPORT PlistValue restore_session_id(const PlistValue& identifier, const PlistValue& extension = {});

/// True for equal names, without a lookup; otherwise, if `resolve`, whether both resolve and share an address (may
/// block on the resolver). Null is no host.
OSTREL_EXPORT bool is_same_host(const PlistValue& hostA, const PlistValue& hostB, bool resolve);

/// Whether one of `hosts` (an array) is the same host as `hostB`; tried in order until the first that is.
OSTREL_EXPORT bool is_same_host_multiple(const PlistValue& hosts, const PlistValue& hostB, bool resolve);

/// Whether the user is a member of the group, by the directory's search node (Platform/DirectoryMembership.h tells
/// how). False when either is null or leads to no record with an identifier, and when the directory cannot be asked.
/// May block on disk or network.
OSTREL_EXPORT bool does_user_belong_to_group(const PlistValue& user, const PlistValue& group);

/// Asks the module "ostrel_ipfilter" whether it restricts `ports`: false for null ports or when it answers that all are
/// open, true otherwise, also when it gives no such answer. `restrictions`, if given, becomes null: nothing fills it.
OSTREL_EXPORT bool check_if_ports_are_restricted(const PlistValue& ports, PlistValue* restrictions = nullptr);

/// "ServiceConfig" of "/Library/Preferences/com.brantle.ostrel_info.plist", or null.
OSTREL_EXPORT PlistValue get_service_config();

/// The process id in the file at `path` (taken as it is): one decimal integer, with or without a sign, after any white
/// space and line breaks; what follows it does not matter. -1 when there is no such regular file or it is not UTF-8;
/// 0, and a notice in the log, when it begins with no integer or with one that does not fit an int.
OSTREL_EXPORT int pid_from_file(const std::string& path);

}  // namespace ostrel
