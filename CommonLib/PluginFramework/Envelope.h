// The envelope of every exchange: one request and one response dictionary, each an XML property list.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "Containers/ErrorCodes.h"
#include "Containers/Export.h"
#include "Containers/PlistValue.h"

namespace ostrel {

// A failed request is answered by a dictionary whose "error" holds one of the codes of ErrorCodes.h.
//
// Nothing here throws (std::bad_alloc aside) or logs, holds state or blocks, except where a function says so. All may
// be called from any thread; a dictionary that is passed in must not be written by another thread meanwhile. Where a
// value may be absent, null stands for absent.

// Conversions.

/// Reads a request body (a data value). True: `outDictionary` is the request (immutable) and `outErrorData` null. An
/// empty body is an empty request. False, for a body that is null, no property list or no dictionary:
/// `outDictionary` is null and `outErrorData` the document to send back as it is.
OSTREL_EXPORT bool convert_request_data_to_dict(const PlistValue& data, PlistValue& outDictionary,
                                                PlistValue& outErrorData);

/// Reads a response body (a data value). True: `outDictionary` is the response (immutable). An empty body is an empty
/// response. False: it is {"error": "UNEXPECTED_COMMAND"} for a null body and {"error":
/// "CANNOT_PARSE_XML_RESPONSE_ERR"} for one that is no property list or no dictionary.
OSTREL_EXPORT bool convert_response_data_to_dict(const PlistValue& data, PlistValue& outDictionary);

/// Writes a response as an XML property list into `outData` (a data value). False: it is the fallback document for
/// "UNEXPECTED_COMMAND" (null) or "CANNOT_CREATE_XML_RESPONSE_ERR" (a value that XML cannot carry).
OSTREL_EXPORT bool convert_response_dict_to_data(const PlistValue& dict, PlistValue& outData);

// The requesting user.

/// Sets "_user_" in a mutable dictionary to the part of the session identifier before its first "@"; without one to
/// the environment's REMOTE_USER; when that is "<USE_SESSION_ID>", to the user part of HTTP_OSTRELSESSIONID.
/// True when it was set. The environment must not be written by another thread meanwhile.
OSTREL_EXPORT bool add_user_to_dict(PlistValue dict, const PlistValue& sessionId);

/// Removes "_user_" from a mutable dictionary when it is a string. True when it was removed.
OSTREL_EXPORT bool remove_user_from_dict(PlistValue dict);

/// The "_user_" string of a dictionary, or null. Each output that is given receives the user's id and primary group
/// id, or -1 when there is no such key or no such user. May block on the name service.
OSTREL_EXPORT PlistValue do_get_user(const PlistValue& dict, uid_t* outUid = nullptr, gid_t* outGid = nullptr);

// Dictionary helpers: the input is never changed.

/// The value for `key` if it is a string, else null.
OSTREL_EXPORT PlistValue get_str_value_for_key(const PlistValue& dict, std::string_view key);

/// The last dictionary among the members of an array whose entry for `key` equals `value`, or null.
OSTREL_EXPORT PlistValue findSubDictionary(const PlistValue& value, std::string_view key, const PlistValue& collection);

/// An immutable copy of `dict` with `value` set for `key`; `dict` itself when it or the value is null. The value comes
/// before its key.
OSTREL_EXPORT PlistValue add_key_value_to_dict(const PlistValue& dict, const PlistValue& value, std::string_view key);

/// An immutable copy of `dict` without `key`; null for a null `dict`.
OSTREL_EXPORT PlistValue remove_key_from_dict(const PlistValue& dict, std::string_view key);

/// The members of an array as unsigned 32-bit integers, in memory from malloc(3) that the caller frees; entries whose
/// member is no number are left uninitialised. nullptr for an empty array, another kind, or without memory.
OSTREL_EXPORT std::uint32_t* do_convert_int_nsarray2carray(const PlistValue& array);

// Hexadecimal text.

// Both return an error code or nullptr for success, and give memory from malloc(3) that the caller frees.

/// Two upper-case digits a byte and a NUL. `bytes` may be null when `length` is 0. Fails with CANNOT_MALLOC_ERR,
/// leaving `outText` null.
OSTREL_EXPORT const char* hexencode_buffer(const void* bytes, std::size_t length, char*& outText);

/// Decodes pairs of digits of a text that ends with a NUL (not null); white space and control characters between pairs
/// are skipped, and a lone character before them is dropped. Other characters are not refused: they give what the
/// arithmetic gives. A text beyond 2 MiB and 4 characters fails with CANNOT_MALLOC_ERR. On failure `outBytes` is null
/// and `outLength` is left alone.
OSTREL_EXPORT const char* hexdecode_buffer(const char* text, unsigned char*& outBytes, std::size_t& outLength);

// Diagnostic printers of modules' command lines: to standard output, always 0.

OSTREL_EXPORT int do_output_version();
OSTREL_EXPORT int do_output_context(const PlistValue& context);
OSTREL_EXPORT int do_output_history();

}  // namespace ostrel
