#include "HostFacts/FailoverState.h"

#include <string>

#include "Containers/Format.h"
#include "Containers/PropertyList.h"
#include "Platform/HostRoot.h"
#include "Platform/RegularFile.h"

namespace ostrel {
namespace {

constexpr std::size_t longestPreferences = 16U << 20U;

// Where programs of this machine, not of one user, keep their files.
std::string localLibraryFolder() { return hostPath("/Library"); }

PlistValue failoverPreferences() {
  const FileDescriptor file = openRegularFile(format("%@/Preferences/com.brantle.tavrond.plist", localLibraryFolder()));
  if (!file) return {};
  const auto bytes = readToEnd(file.get(), longestPreferences);
  return bytes ? readPropertyList(*bytes) : PlistValue();
}

}  // namespace

std::int32_t NIGetFailoverState() {
  const PlistValue preferences = failoverPreferences();
  const PlistValue nodes = preferences.get("PublicNodes");
  if (!nodes.isArray() || nodes.count() == 0) return failoverNone;
  const PlistValue role = preferences.get("FailoverRole");
  if (role == PlistValue("MASTER")) return failoverMaster;
  if (role == PlistValue("BACKUP")) return failoverBackup;
  return failoverNone;
}

}  // namespace ostrel
