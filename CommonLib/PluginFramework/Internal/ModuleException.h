// What a module threw, in words.
#pragma once

#include "Containers/PlistValue.h"

namespace ostrel::detail {

/// The text of the exception that is being handled: what() of a std::exception, a thrown text as it is, the description
/// of a thrown value, the type's name of anything else. Null for a thrown null. Always valid UTF-8.
/// Requires: called from a catch clause. A thread's cancellation is not an exception and passes through.
PlistValue describeCurrentException();

}  // namespace ostrel::detail
