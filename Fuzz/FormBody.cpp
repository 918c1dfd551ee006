// Form bodies and command paths, as strangers send them to the daemon.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "ClientSession/FormBody.h"
#include "Containers/Utf8.h"
#include "ostreld/RequestSyntax.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(bytes), size);

  const ostrel::FormBody body = ostrel::readFormBody(text);
  if (body.input.size() > size) std::abort();
  if (body.fault != ostrel::RequestFault::none && !body.input.empty()) std::abort();
  // What a client would write for this input is read back as it.
  const ostrel::FormBody again = ostrel::readFormBody(ostrel::encodeFormBody(body.input));
  if (again.fault != ostrel::RequestFault::none || again.input != body.input) std::abort();

  for (const std::string& path : {std::string(text), "/commands/" + std::string(text)}) {
    const ostrel::CommandPath command = ostrel::readCommandPath(path);
    if (command.fault != ostrel::RequestFault::none) continue;
    if (command.module.empty() || command.module.size() > 255 || !ostrel::isValidUtf8(command.module)) std::abort();
    if (command.module.find('/') != std::string::npos || command.module.find('\0') != std::string::npos) std::abort();
  }
  return 0;
}
