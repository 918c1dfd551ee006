// The form body that carries a request (percent-escapes of RFC 2396).
#pragma once

#include <string>
#include <string_view>

#include "Containers/Export.h"

namespace ostrel {

/// "input=" followed by `text`, escaped so that a form decoder gives back exactly its bytes. Plain are ASCII letters,
/// digits and -_.!~*'();?:@=$, ; every other byte is "%" and two upper-case hexadecimal digits. A pure function.
OSTREL_EXPORT std::string encodeFormBody(std::string_view text);

}  // namespace ostrel
