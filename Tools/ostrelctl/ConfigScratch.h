// A text in a file of its own, for editors that work on files by their path.
#pragma once

#include <string>
#include <string_view>

#include "Platform/HostRoot.h"

namespace ostrel {

/// A private temporary folder that holds the text, and is the host root as long as this object lives. Throws
/// std::runtime_error with the reason when it cannot be made.
class ConfigScratch {
 public:
  /// `name`: the path of the file below the folder.
  explicit ConfigScratch(std::string_view text, const std::string& name = "/file");
  ~ConfigScratch();
  ConfigScratch(const ConfigScratch&) = delete;
  ConfigScratch& operator=(const ConfigScratch&) = delete;

  const std::string& path() const { return path_; }
  std::string text() const;

 private:
  std::string folder_;
  std::string path_;
  ScopedHostRoot root_;
};

}  // namespace ostrel
