// Time series in a module's context: samples appended, and those of a recent period read.
#pragma once

#include <string_view>

#include "Containers/Export.h"
#include "Containers/PlistValue.h"

namespace ostrel {

// A history is one data value in a module's context, of fixed size: (N + 1) * 27,648 + 24 bytes for N values a sample,
// in the machine's byte order.
//
//   offset 0   six 32-bit words: version 1; capacities 1,440 and 2,016 of the rings; N; the index of the newest fine
//              sample; that of the newest coarse sample
//   offset 24  the fine ring, then the coarse ring
//   a sample   N + 1 64-bit words: the time (seconds since 1970; 0: never written) and the values, of which
//              0x7FFFFFFFFFFFFFFF means that there is none
//
// The fine ring holds the latest 1,440 samples. What falls out of it goes to the coarse ring when it is at least 300
// seconds later than the newest one there: samples taken each minute reach back a day, and a week at five minutes.
//
// What these functions share:
// - `context` is a module's loaded context, a mutable dictionary; whoever holds its lock may call them, on any thread.
// - The result is nullptr for success or a code of Containers/ErrorCodes.h. Nothing throws.
// - A history whose length does not fit its N, or whose index lies outside its ring, is damaged: it is logged as
//   "[%d] exception in do_..._named_history_data(%s): %s\n" and left as it is, and the code is
//   CANNOT_MAKE_HISTORY_ERR or CANNOT_GET_HISTORY_ERR. So are arguments of the wrong kind.

/// Appends a sample, taken now, to the history `name`, and marks the context dirty. `values` is an array; a number
/// stands for its unsigned 64-bit value, anything else for no value. The number of values is settled by the sample that
/// begins the history: what later samples have beyond it is left out, and where they have fewer the slot keeps what its
/// former sample had there (meant). Data that is no history of this version and size begins a new one.
///
/// CANNOT_MAKE_HISTORY_ERR when `values` or `context` is null. Success also, without a sample, when there is no memory
/// for a new history. Into a history that only this context holds, no byte but the sample's is written or copied.
OSTREL_EXPORT const char* do_update_named_history_data(std::string_view name, const PlistValue& values,
                                                       const PlistValue& context);

/// The samples of the last `period` seconds, newest first, in `outArray`: an array, mutable throughout, that shares
/// nothing with the context, of dictionaries {"t": time, "v1": ..., ...} without the values that are absent. The walk
/// ends at the first sample that is older. `period` is a number of any kind; a negative one reaches into the future,
/// what is no number counts as 0.
///
/// `keyFilter` is text or null. With text a value is left out unless its key occurs in it: "v1,v3", say. "v1" occurs in
/// "v10" too, which is meant.
///
/// `outArray` becomes null when there is no history `name`, an empty array when that is no data or is damaged.
OSTREL_EXPORT const char* do_get_named_history_data(std::string_view name, const PlistValue& keyFilter,
                                                    const PlistValue& period, PlistValue& outArray,
                                                    const PlistValue& context);

/// The same for the history "history".
OSTREL_EXPORT const char* do_update_history_data(const PlistValue& values, const PlistValue& context);
OSTREL_EXPORT const char* do_get_history_data(const PlistValue& keyFilter, const PlistValue& period,
                                              PlistValue& outArray, const PlistValue& context);

}  // namespace ostrel
