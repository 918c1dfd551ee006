#include "ostrelctl/SavedSession.h"

#include <unistd.h>

#include <cstdlib>

#include "Containers/Format.h"
#include "Platform/Files.h"
#include "Platform/RegularFile.h"
#include "Platform/UserDatabase.h"

namespace ostrel {
namespace {

constexpr std::size_t longestIdentifier = 1024;

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr && *value == '/' ? value : "";  // relative ones do not count
}

std::string folder() {
  if (const std::string runtime = environment("XDG_RUNTIME_DIR"); isDirectory(runtime)) return runtime + "/ostrelctl";
  if (const std::string state = environment("XDG_STATE_HOME"); !state.empty()) return state + "/ostrelctl";
  std::string home = environment("HOME");
  if (home.empty()) {
    const auto user = UserDatabase::current().userWithId(geteuid());
    home = user ? user->home : "/";
  }
  return home + "/.local/state/ostrelctl";
}

/// Part of a file's name, whatever the text.
std::string namePart(const std::string& text) {
  std::string part;
  for (const char c : text) {
    const bool plain =
        (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '.' || c == '-' || c == ':';
    part += plain ? std::string(1, c) : format("%%%02X", static_cast<unsigned char>(c));
  }
  return part;
}

}  // namespace

SavedSession::SavedSession(const std::string& host, const std::string& port)
    : path_(folder() + "/" + namePart(host) + "_" + namePart(port) + ".session") {}

std::optional<std::string> SavedSession::read() const {
  const FileDescriptor file = openRegularFile(path_, FinalLink::refused);
  const auto status = file ? descriptorStatus(file.get()) : std::nullopt;
  if (!status || status->user != geteuid() || (status->mode & 077U) != 0) return std::nullopt;
  const auto text = readToEnd(file.get(), longestIdentifier);
  if (!text) return std::nullopt;
  return text->substr(0, text->find('\n'));
}

bool SavedSession::write(const std::string& identifier) const {
  return makeDirectories(path_.substr(0, path_.rfind('/')), 0700) &&
         writeFileAtomically(path_, identifier + "\n", {.mode = 0600, .keepExisting = false, .followLink = false});
}

bool SavedSession::remove() const { return removeFile(path_); }

}  // namespace ostrel
