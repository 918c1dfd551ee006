// The closed list of error codes that travel in responses and that daemon functions return.
#pragma once

namespace ostrel::errors {

// Each is the exact value of the "error" key. Functions that return `const char*` return one of these pointers, or
// nullptr for success.
inline constexpr const char* cannotParseXmlRequest = "CANNOT_PARSE_XML_REQUEST_ERR";
inline constexpr const char* cannotParseXmlResponse = "CANNOT_PARSE_XML_RESPONSE_ERR";
inline constexpr const char* cannotCreateXmlResponse = "CANNOT_CREATE_XML_RESPONSE_ERR";
inline constexpr const char* unexpectedCommand = "UNEXPECTED_COMMAND";
inline constexpr const char* cannotLoadBundle = "CANNOT_LOAD_BUNDLE_ERR";
inline constexpr const char* cannotRunBundle = "CANNOT_RUN_BUNDLE_ERR";
inline constexpr const char* invalidArgument = "INVALID_ARG_ERR";
inline constexpr const char* fileNotFound = "FILE_NOT_FOUND_ERR";
inline constexpr const char* cannotSeek = "CANNOT_FSEEK_ERR";
inline constexpr const char* cannotRead = "CANNOT_FREAD_ERR";
inline constexpr const char* cannotAllocate = "CANNOT_MALLOC_ERR";
inline constexpr const char* cannotGetHistory = "CANNOT_GET_HISTORY_ERR";
inline constexpr const char* cannotMakeHistory = "CANNOT_MAKE_HISTORY_ERR";
inline constexpr const char* illegalPathRequested = "ILLEGAL_PATH_REQUESTED";
inline constexpr const char* illegalLogIdentifierRequested = "ILLEGAL_LOG_IDENTIFIER_REQUESTED";

// Made by clients only; they never travel in a daemon's response.
inline constexpr const char* emptyResponse = "EMPTY_RESPONSE_ERR";
inline constexpr const char* brokenConnection = "BROKEN_CONNECTION";

}  // namespace ostrel::errors
