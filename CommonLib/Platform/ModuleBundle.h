// Loading module bundles: shared objects with one factory.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "Containers/Export.h"
#include "Platform/Service.h"

namespace ostrel {

/// What a module's shared object exports, as constant data with C linkage and the name `ostrelModuleInterface`.
/// PluginFramework's module macro defines it.
struct ModuleInterface {
  /// `moduleInterfaceVersion` of the headers that the module was built with; it comes first in every version.
  std::uint32_t version;
  /// Makes one handler with `new`. May throw what the handler's constructor throws; null is a failure.
  void* (*create)();
};
inline constexpr std::uint32_t moduleInterfaceVersion = 1;
inline constexpr const char* moduleInterfaceSymbol = "ostrelModuleInterface";

/// A loaded bundle. Its code is never unloaded, also not when this object goes. Threads: immutable.
class OSTREL_EXPORT ModuleBundle {
 public:
  ModuleBundle(std::string path, const ModuleInterface* interface) : path_(std::move(path)), interface_(interface) {}
  /// The path that it was loaded from, as the caller gave it.
  const std::string& path() const noexcept { return path_; }
  /// Runs the factory: a new handler, which the caller owns, as `create` gave it. Whatever it throws passes through.
  void* create() const { return interface_->create(); }

 private:
  std::string path_;
  const ModuleInterface* interface_;
};

/// Threads: may be called from any thread.
class OSTREL_EXPORT ModuleLoader {
 public:
  virtual ~ModuleLoader() = default;
  static ModuleLoader& current() { return *slot().load(std::memory_order_acquire); }

  /// Loads the bundle at `path`: a shared object, or a folder NAME.EXTENSION that holds it as NAME.so. Absent on
  /// failure, with the reason in words in `reason` when one is given; nothing is thrown except what a static
  /// initialiser in the module throws.
  ///
  /// The shared object must be a regular file, and it and each folder that it is found through (the one that holds
  /// the bundle, and the bundle itself when it is a folder) must belong to root or to the effective user of this
  /// process and be writable by no group and no others. Symbolic links are refused. What is checked is what is opened,
  /// and what is opened is what is loaded: exchanging files in between gains nothing. A file that was loaded before is
  /// not read again; each one keeps one descriptor open for the life of the process.
  virtual std::shared_ptr<ModuleBundle> load(const std::string& path, std::string* reason) = 0;

 private:
  friend class ScopedOverride<ModuleLoader>;
  static std::atomic<ModuleLoader*>& slot();
};

}  // namespace ostrel
