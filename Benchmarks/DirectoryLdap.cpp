// An LDAP node beside libldap alone: 20,000 users on Debian's slapd, eight attributes.
//
// The peer reads pages of the same size over one connection that is bound already, and copies every value as its
// interface has it. Ours is DSGetListOfRecords, from the opening of the session to the dictionary of the answer.
#include <benchmark/benchmark.h>
#include <ldap.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "Directory/RecordListings.h"
#include "Platform/HostRoot.h"
#include "Support/SlapdFixture.h"

namespace {

using namespace ostrel;
using testing::Slapd;

constexpr int userCount = 20000;
constexpr ber_int_t pageSize = 1000;

void require(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "%s\n", what);
  std::abort();
}

class Site {
 public:
  Site() : slapd_({.users = userCount, .groups = 500}) {
    testing::writeDirectoryConfiguration(
        folder_.path(), PlistValue::dictionaryOf({{"Nodes", PlistValue::arrayOf({slapd_.entry(folder_.path())})}}));
    const int version = LDAP_VERSION3;
    berval password{13, const_cast<char*>("administrator")};
    require(ldap_initialize(&peer_, slapd_.url().c_str()) == LDAP_SUCCESS &&
                ldap_set_option(peer_, LDAP_OPT_PROTOCOL_VERSION, &version) == LDAP_OPT_SUCCESS &&
                ldap_sasl_bind_s(peer_, Slapd::administrator, LDAP_SASL_SIMPLE, &password, nullptr, nullptr, nullptr) ==
                    LDAP_SUCCESS,
            "cannot bind");
  }
  ~Site() { ldap_unbind_ext_s(peer_, nullptr, nullptr); }
  Site(const Site&) = delete;
  Site& operator=(const Site&) = delete;

  static Site& instance() {
    static Site site;
    return site;
  }

  std::int64_t list(const PlistValue& starts, const PlistValue& contains, const PlistValue& ends) const {
    const ScopedHostRoot root(folder_.path());
    const PlistValue types = PlistValue::arrayOf({"dsRecTypeStandard:Users"});
    const PlistValue attributes = PlistValue::arrayOf(
        {"dsAttrTypeStandard:RecordName", "dsAttrTypeStandard:UniqueID", "dsAttrTypeStandard:PrimaryGroupID",
         "dsAttrTypeStandard:RealName", "dsAttrTypeNative:home", "dsAttrTypeStandard:UserShell",
         "dsAttrTypeStandard:EMailAddress", "dsAttrTypeStandard:GeneratedUID"});
    const PlistValue listing =
        DSGetListOfRecords("/LDAP/example", types, attributes, starts, contains, ends, userCount);
    require(listing.get("status") == PlistValue(0), "a listing failed");
    return listing.get("nbRecords").int64Value();
  }

  std::int64_t ask(const std::string& condition, std::size_t& bytes) {
    const std::string filter = "(&(objectClass=posixAccount)" + condition + ")";
    const char* attributes[] = {"uid",        "uidNumber", "gidNumber", "cn",   "homeDirectory",
                                "loginShell", "mail",      "entryUUID", nullptr};
    berval cookie{0, nullptr};
    std::int64_t records = 0;
    do {
      LDAPControl* control = nullptr;
      require(ldap_create_page_control(peer_, pageSize, &cookie, 0, &control) == LDAP_SUCCESS, "no control");
      LDAPControl* controls[] = {control, nullptr};
      LDAPMessage* answer = nullptr;
      require(ldap_search_ext_s(peer_, Slapd::base, LDAP_SCOPE_SUBTREE, filter.c_str(), const_cast<char**>(attributes),
                                0, controls, nullptr, nullptr, LDAP_NO_LIMIT, &answer) == LDAP_SUCCESS,
              "a search failed");
      ldap_control_free(control);
      ber_memfree(cookie.bv_val);
      cookie = {0, nullptr};
      for (LDAPMessage* entry = ldap_first_entry(peer_, answer); entry != nullptr;
           entry = ldap_next_entry(peer_, entry), ++records)
        bytes += read(entry);
      LDAPControl** answered = nullptr;
      ldap_parse_result(peer_, answer, nullptr, nullptr, nullptr, nullptr, &answered, 1);
      ber_int_t estimate = 0;
      if (LDAPControl* page = ldap_control_find(LDAP_CONTROL_PAGEDRESULTS, answered, nullptr); page != nullptr)
        ldap_parse_pageresponse_control(peer_, page, &estimate, &cookie);
      ldap_controls_free(answered);
    } while (cookie.bv_len > 0);
    ber_memfree(cookie.bv_val);
    return records;
  }

 private:
  std::size_t read(LDAPMessage* entry) {
    std::size_t bytes = 0;
    BerElement* position = nullptr;
    for (char* name = ldap_first_attribute(peer_, entry, &position); name != nullptr;
         name = ldap_next_attribute(peer_, entry, position)) {
      berval** values = ldap_get_values_len(peer_, entry, name);
      for (berval** value = values; value != nullptr && *value != nullptr; ++value) bytes += (*value)->bv_len;
      ldap_value_free_len(values);
      ldap_memfree(name);
    }
    ber_free(position, 0);
    return bytes;
  }

  testing::TemporaryFolder folder_;
  Slapd slapd_;
  LDAP* peer_ = nullptr;
};

void ldapListing(benchmark::State& state, const char* starts, const char* contains, const char* ends) {
  if (!Slapd::isInstalled()) return state.SkipWithError("slapd is not installed");
  const Site& site = Site::instance();
  std::int64_t records = 0;
  for (auto _ : state) records = site.list(starts, contains, ends);
  state.counters["records"] = static_cast<double>(records);
}

void libldap(benchmark::State& state, const char* condition) {
  if (!Slapd::isInstalled()) return state.SkipWithError("slapd is not installed");
  Site& site = Site::instance();
  std::int64_t records = 0;
  std::size_t bytes = 0;
  for (auto _ : state) records = site.ask(condition, bytes);
  benchmark::DoNotOptimize(bytes);
  state.counters["records"] = static_cast<double>(records);
}

// The server works in another process: only real time tells.
BENCHMARK_CAPTURE(ldapListing, all, nullptr, nullptr, nullptr)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(libldap, all, "")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(ldapListing, exact, "user12345", nullptr, "user12345")->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK_CAPTURE(libldap, exact, "(uid=user12345)")->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK_CAPTURE(ldapListing, contains, nullptr, "r1234", nullptr)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK_CAPTURE(libldap, contains, "(uid=*r1234*)")->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
