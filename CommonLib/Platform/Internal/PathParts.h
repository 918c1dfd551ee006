// A path as the folder and the name in it.
#pragma once

#include <string>

namespace ostrel::detail {

struct PathParts {
  std::string folder;  ///< never empty: "." for a bare name
  std::string name;    ///< what follows the last slash: "" when the path ends in one
};

inline PathParts splitPath(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return {".", path};
  return {slash == 0 ? "/" : path.substr(0, slash), path.substr(slash + 1)};
}

}  // namespace ostrel::detail
