#include "Platform/HostRoot.h"

namespace ostrel {
namespace {

std::string& root() {
  static auto& folder = *new std::string;  // never freed: threads may still ask when the process ends
  return folder;
}

}  // namespace

std::string hostPath(std::string_view path) { return root() + std::string(path); }

const std::string& hostRoot() { return root(); }

void setHostRoot(std::string_view folder) {
  while (folder.ends_with('/')) folder.remove_suffix(1);
  root() = folder;
}

ScopedHostRoot::ScopedHostRoot(std::string_view folder) : previous_(hostRoot()) { setHostRoot(folder); }
ScopedHostRoot::~ScopedHostRoot() { setHostRoot(previous_); }

}  // namespace ostrel
