#include "PropertyListSamples.h"

#include <cstdint>
#include <random>
#include <string>

namespace ostrel::benchmarks {
namespace {

constexpr const char* givenNames[] = {"Anna",    "Bj\xC3\xB6rn", "Chidi",    "Dolores",
                                      "Eleanor", "Fatima",       "Giovanni", "Hana"};
constexpr const char* familyNames[] = {"Lindqvist",
                                       "Okonkwo",
                                       "Garc\xC3\xAD"
                                       "a",
                                       "Petrov",
                                       "Schneider",
                                       "Takahashi",
                                       "O'Brien",
                                       "Nakamura-Smith"};
constexpr const char* shells[] = {"/bin/bash", "/bin/sh", "/usr/bin/zsh", "/usr/bin/false"};

std::string hex(std::mt19937_64& random, std::size_t digits) {
  std::string text;
  for (std::size_t i = 0; i < digits; ++i) text += "0123456789ABCDEF"[random() % 16];
  return text;
}

std::string uuid(std::mt19937_64& random) {
  return hex(random, 8) + "-" + hex(random, 4) + "-" + hex(random, 4) + "-" + hex(random, 4) + "-" + hex(random, 12);
}

std::string bytes(std::mt19937_64& random, std::size_t count) {
  std::string made;
  while (made.size() < count) made += static_cast<char>(random());
  return made;
}

PlistValue user(std::mt19937_64& random, std::size_t number) {
  const std::string given = givenNames[random() % std::size(givenNames)];
  const std::string family = familyNames[random() % std::size(familyNames)];
  const std::string name = "user" + std::to_string(10000 + number);
  PlistValue groups = PlistValue::mutableArray();
  for (std::size_t i = 0; i < 2; ++i) groups.append("group" + std::to_string(random() % 500));
  return PlistValue::mutableDictionaryOf({{"name", name},
                                          {"realName", given + " " + family},
                                          {"uniqueID", 1000 + number},
                                          {"primaryGroupID", random() % 4 * 10 + 20},
                                          {"homeDirectory", "/Network/Servers/files.example.com/Users/" + name},
                                          {"loginShell", shells[random() % std::size(shells)]},
                                          {"generatedUID", uuid(random)},
                                          {"emailAddress", name + "@mail.example.com"},
                                          {"memberOf", groups}});
}

}  // namespace

PlistValue userListing(std::size_t users) {
  std::mt19937_64 random(20000);  // NOLINT: a fixed seed makes every run measure the same document
  PlistValue records = PlistValue::mutableArray();
  for (std::size_t i = 0; i < users; ++i) records.append(user(random, i));
  return PlistValue::mutableDictionaryOf({{"command", "getUserList"}, {"status", 0}, {"users", records}});
}

PlistValue request() {
  PlistValue keys = PlistValue::mutableArrayOf({"name", "realName", "uniqueID", "homeDirectory"});
  PlistValue filter = PlistValue::mutableDictionaryOf(
      {{"attribute", "realName"}, {"pattern", "Lindqvist & sons"}, {"ignoreCase", true}, {"maximumCount", 250}});
  return PlistValue::mutableDictionaryOf({{"command", "getUserList"},
                                          {"variant", "withFilter"},
                                          {"node", "/LDAPv3/directory.example.com"},
                                          {"offset", 0},
                                          {"amount", 100},
                                          {"includeDisabled", false},
                                          {"timeout", 2.5},
                                          {"since", PlistDate{1313424505}},
                                          {"keys", keys},
                                          {"filter", filter}});
}

PlistValue mixedDocument() {
  std::mt19937_64 random(7);  // NOLINT: as above
  PlistValue services = PlistValue::mutableArray();
  for (std::size_t i = 0; i < 300; ++i) {
    PlistValue ports = PlistValue::mutableArray();
    for (std::size_t port = 0; port < 4; ++port) ports.append(random() % 65536);
    services.append(PlistValue::mutableDictionaryOf(
        {{"name", "Service " + std::to_string(i)},
         {"enabled", i % 3 != 0},
         {"load", static_cast<double>(random() % 100000) / 1000},
         {"lastChange", PlistDate{1.2e9 + static_cast<double>(random() % 400'000'000)}},
         {"counter", random()},
         {"comment", "Keeps <" + uuid(random) + "> & its peers\nin step; see the notes of the last change"},
         {"ports", ports},
         {"certificate", PlistData{bytes(random, 900)}},
         {"icon", PlistData{bytes(random, i % 10 == 0 ? 6000 : 120)}}}));
  }
  return PlistValue::mutableDictionaryOf({{"services", services}, {"version", 12}});
}

}  // namespace ostrel::benchmarks
