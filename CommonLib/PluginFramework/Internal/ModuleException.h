// What a module threw, in words.
#pragma once

#include "Containers/PlistValue.h"

namespace ostrel::detail {

/// The text of the exception that is being handled: what() of a std::exception, a thrown text as it is, the description
/// of a thrown value, the type's name of anything else; with "?" for what XML cannot carry. Null for a thrown null and
/// for a what() that is null.
/// Requires: called from a catch clause. A thread's cancellation is not an exception and passes through.
PlistValue describeCurrentException();

}  // namespace ostrel::detail
