#include "Platform/Internal/Directory/NodeKinds.h"

#include <functional>
#include <map>
#include <string>

#include "Platform/Internal/Directory/LdapNode.h"
#include "Platform/Mutex.h"

namespace ostrel {
namespace {

struct Registry {
  Mutex mutex;
  std::map<std::string, DirectoryNodeFactory, std::less<>> factories OSTREL_GUARDED_BY(mutex){
      {"LDAP", &detail::makeLdapNode}};
  std::uint64_t generation OSTREL_GUARDED_BY(mutex) = 0;
};

Registry& registry() {
  static Registry kinds;
  return kinds;
}

}  // namespace

void registerDirectoryNodeKind(std::string_view kind, DirectoryNodeFactory factory) {
  Registry& kinds = registry();
  const MutexLock lock(kinds.mutex);
  kinds.factories.insert_or_assign(std::string(kind), factory);
  ++kinds.generation;
}

namespace detail {

DirectoryNodeFactory nodeFactory(std::string_view kind) {
  Registry& kinds = registry();
  const MutexLock lock(kinds.mutex);
  const auto found = kinds.factories.find(kind);
  return found == kinds.factories.end() ? nullptr : found->second;
}

std::uint64_t nodeKindGeneration() {
  Registry& kinds = registry();
  const MutexLock lock(kinds.mutex);
  return kinds.generation;
}

}  // namespace detail
}  // namespace ostrel
