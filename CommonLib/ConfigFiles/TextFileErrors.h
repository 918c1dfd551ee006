// The result codes of the functions that edit text files in place.
#pragma once

#include <cstdint>

namespace ostrel {

/// 0 is success. Besides these, the functions return the error indicator of the stream (ferror(3)), as it is, when a
/// read fails that they give no code of their own.
enum TextFileError : std::int32_t {
  kTextFileNoMemoryErr = 3905,   ///< no memory for the rest of the file
  kTextFileOpenErr = 3908,       ///< the source file cannot be opened for reading
  kTextFileCreateErr = 3909,     ///< the destination or the temporary file cannot be made
  kTextFileTellErr = 3910,       ///< the stream's position cannot be learnt
  kTextFileSeekErr = 3911,       ///< the stream cannot be positioned, or not there
  kTextFileReadErr = 3912,       ///< reading failed, or the source file's status cannot be learnt
  kTextFileWriteErr = 3913,      ///< fewer bytes were written than asked
  kTextFileRenameErr = 3914,     ///< the temporary file cannot be given the edited file's name
  kDirectiveNotFoundErr = 3916,  ///< no directive matches
  kBlockNotFoundErr = 3918,      ///< no block matches
};

}  // namespace ostrel
