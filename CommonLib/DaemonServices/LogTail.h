// Portions of log files for clients: the bytes at a file's end, or the last lines that hold every filter word.
#pragma once

#include "Containers/Export.h"
#include "Containers/PlistValue.h"

namespace ostrel {

// What these functions share:
// - `path` is a string that holds an absolute path, taken as it is (no host root is put before it). Only regular files
//   are read, links to them included: a folder, pipe, socket or device is refused like a missing file, without waiting.
// - `allowedLogs` is the dictionary from log identifier to path that a module supplies.
// - `offset` and `amount` are unsigned 64-bit numbers, in and out: a byte position in the file and a byte count. What
//   is not a number counts as 0. Their sum may exceed 64 bits.
// - `contents` receives a string, or null. It holds the file's bytes as they are, NULs and control characters included.
// - The result is nullptr for success or one of the codes of Containers/ErrorCodes.h. Nothing throws.
// - They may be called from any thread and block on the disk. The size of the file is taken once, when it is opened:
//   what another process appends meanwhile is left for the next call.

/// Reads the log that the module declares under `identifier`. `path` receives the path found there (null unless found);
/// then as `do_verify_path_and_get_tail_contents`. ILLEGAL_LOG_IDENTIFIER_REQUESTED when it is no key of `allowedLogs`.
OSTREL_EXPORT const char* do_get_tail_contents_for_identifier(const PlistValue& identifier,
                                                              const PlistValue& allowedLogs, PlistValue& path,
                                                              PlistValue& offset, PlistValue& amount,
                                                              PlistValue& contents, const PlistValue& context,
                                                              const PlistValue& request);

/// Reads `path` as `do_get_tail_contents` does if it equals one of the values of `allowedLogs`, to the letter;
/// otherwise ILLEGAL_PATH_REQUESTED.
OSTREL_EXPORT const char* do_verify_path_and_get_tail_contents(const PlistValue& path, const PlistValue& allowedLogs,
                                                               PlistValue& offset, PlistValue& amount,
                                                               PlistValue& contents, const PlistValue& context,
                                                               const PlistValue& request);

/// Reads `path` without asking whether that is allowed: filtered by the strings of the request's array "withFilters",
/// unfiltered when it has none. Empty strings and members that are no strings are ignored. `context` is not used.
OSTREL_EXPORT const char* do_get_tail_contents(const PlistValue& path, PlistValue& offset, PlistValue& amount,
                                               PlistValue& contents, const PlistValue& context,
                                               const PlistValue& request);

/// The unfiltered read. From a file of `size` bytes:
/// - nothing new (`offset` >= size) or `amount` 0: contents "", `offset` := size, `amount` := 0;
/// - offset + amount <= size: the last `amount` bytes of the file, `offset` := size - amount (the newest bytes win over
///   the requested start);
/// - otherwise: from `offset` to the end, `amount` := size - offset.
///
/// Bytes that are not valid UTF-8 (a cut character at the start, too) leave the contents null and give
/// CANNOT_MALLOC_ERR, with `offset` and `amount` stored. Other failures leave both as they were: FILE_NOT_FOUND_ERR,
/// CANNOT_FSEEK_ERR when the size cannot be learnt, CANNOT_FREAD_ERR also when the file shrank meanwhile,
/// CANNOT_MALLOC_ERR when there is no memory for the bytes. Should memory run out at another step, the contents become
/// "Error while accessing PATH: CODE" and that code is the result.
OSTREL_EXPORT const char* do_get_file_contents(const PlistValue& path, PlistValue& offset, PlistValue& amount,
                                               PlistValue& contents);

/// The filtered read: the last lines after `offset` that hold every one of `filters` (an array of strings) in any
/// letter case, in file order, at most `amount` bytes of them, found as BackwardSearch.h says within 20 seconds.
/// `offset` becomes the file's size; `amount` stays as asked, or becomes 0 when there is nothing to read.
///
/// Success also when nothing matched (contents "") and when the text is not valid UTF-8 (contents null, numbers
/// stored). FILE_NOT_FOUND_ERR when the file cannot be opened, CANNOT_FSEEK_ERR when its size cannot be learnt,
/// CANNOT_MALLOC_ERR when memory ran out. `context` is not used.
OSTREL_EXPORT const char* do_get_filtered_file_contents(const PlistValue& path, PlistValue& offset, PlistValue& amount,
                                                        PlistValue& contents, const PlistValue& context,
                                                        const PlistValue& filters);

}  // namespace ostrel
