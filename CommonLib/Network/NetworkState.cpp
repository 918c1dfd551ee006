#include "Network/NetworkState.h"

#include <net/if.h>

#include <map>
#include <set>
#include <string>

#include "Network/InterfaceInfo.h"
#include "Platform/InterfaceAddresses.h"

namespace ostrel {
namespace {

std::set<std::string> disabledInterfaces() {
  constexpr unsigned int works = IFF_UP | IFF_RUNNING;
  std::set<std::string> names;
  for (const InterfaceAddress& entry : InterfaceAddresses::current().list()) {
    if ((entry.flags & works) != works) names.insert(entry.name);
  }
  return names;
}

// A state with some members of some descriptions emptied.
template <class Concerns>
PlistValue emptied(const PlistValue& state, std::initializer_list<const char*> keys, Concerns concerns) {
  PlistValue array = PlistValue::mutableArray();
  for (const PlistValue& description : state.elements()) {
    if (!concerns(description)) {
      array.append(description);
      continue;
    }
    PlistValue changed = description.mutableCopy();
    for (const char* key : keys) changed.set(key, "");
    array.append(changed.immutableCopy());
  }
  return array.immutableCopy();
}

std::map<std::string, PlistValue> byInterface(const PlistValue& state) {
  std::map<std::string, PlistValue> interfaces;
  for (const PlistValue& description : state.elements()) {
    PlistValue& own = interfaces[description.get("name").stringValue()];
    if (own.isNull()) own = PlistValue::mutableArray();
    own.append(description);
  }
  return interfaces;
}

PlistValue changedInterfaces(const PlistValue& oldState, const PlistValue& newState) {
  const auto before = byInterface(oldState);
  const auto after = byInterface(newState);
  PlistValue names = PlistValue::mutableArray();
  for (const auto& [name, descriptions] : before) {
    const auto found = after.find(name);
    if (found == after.end() || found->second != descriptions) names.append(name);
  }
  for (const auto& [name, descriptions] : after) {
    if (!before.contains(name)) names.append(name);
  }
  return names.immutableCopy();
}

}  // namespace

PlistValue networkState(bool resolve) {
  const PlistValue state = get_interfaces_info(resolve);
  const std::set<std::string> disabled = disabledInterfaces();
  return emptied(state, {"ipAddress", "dnsName"}, [&](const PlistValue& description) {
    return disabled.contains(description.get("name").stringValue());
  });
}

PlistValue stateWithoutNames(const PlistValue& state) {
  return emptied(state, {"dnsName", "serviceName"}, [](const PlistValue&) { return true; });
}

Notification networkChangedNotification(const PlistValue& oldState, const PlistValue& newState) {
  return {.name = networkChangedName,
          .userInfo = PlistValue::dictionaryOf(
              {{"oldState", oldState}, {"newState", newState}, {"changes", changedInterfaces(oldState, newState)}})};
}

}  // namespace ostrel
