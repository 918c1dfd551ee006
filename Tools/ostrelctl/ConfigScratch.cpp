#include "ostrelctl/ConfigScratch.h"

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>

#include "Platform/Files.h"

namespace ostrel {
namespace {

std::string makeFolder() {
  std::string pattern = (std::filesystem::temp_directory_path() / "ostrelctl-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("cannot make a temporary folder");
  return pattern;
}

}  // namespace

ConfigScratch::ConfigScratch(std::string_view text, const std::string& name)
    : folder_(makeFolder()), path_(folder_ + name), root_(folder_) {
  const std::string above = path_.substr(0, path_.rfind('/'));
  AtomicWriteOptions options;
  options.mode = 0600;
  if (makeDirectories(above, 0700) && writeFileAtomically(path_, text, options)) return;
  std::error_code ignored;
  std::filesystem::remove_all(folder_, ignored);
  throw std::runtime_error("cannot write a temporary file");
}

ConfigScratch::~ConfigScratch() {
  std::error_code ignored;
  std::filesystem::remove_all(folder_, ignored);
}

std::string ConfigScratch::text() const {
  const auto bytes = readWholeFile(path_);
  if (!bytes) throw std::runtime_error("cannot read a temporary file");
  return *bytes;
}

}  // namespace ostrel
