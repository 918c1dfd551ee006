#include "ConfigFiles/Internal/TextLines.h"
#include "ConfigFiles/SyslogUtilities.h"

namespace ostrel {
namespace {

constexpr std::int32_t debugLevel = 7;
constexpr std::int32_t everyFacility = 1016;

std::int32_t numberOf(std::string_view name, const SyslogName* row) {
  for (; row->name != nullptr; ++row) {
    if (detail::equalsIgnoringCase(name, row->name)) return row->number;
  }
  return row->number;
}

PlistValue nameOf(std::int32_t number, const SyslogName* row) {
  for (; row->name != nullptr; ++row) {
    if (row->number == number) return row->name;
  }
  return {};
}

}  // namespace

const SyslogName _SU_prioritynames[13] = {
    {"alert", 1}, {"crit", 2},   {"debug", 7}, {"emerg", 0}, {"err", 3},     {"error", 3},  {"info", 6},
    {"none", 16}, {"notice", 5}, {"panic", 0}, {"warn", 4},  {"warning", 4}, {nullptr, -1},
};

const SyslogName _SU_facilitynames[28] = {
    {"auth", 32},        {"authpriv", 80}, {"cron", 72},     {"daemon", 24},  {"ftp", 88},     {"install", 112},
    {"kern", 0},         {"lpr", 48},      {"mail", 16},     {"mark", 200},   {"quorel", 96},  {"ras", 120},
    {"remoteauth", 104}, {"news", 56},     {"security", 32}, {"syslog", 40},  {"user", 8},     {"uucp", 64},
    {"local0", 128},     {"local1", 136},  {"local2", 144},  {"local3", 152}, {"local4", 160}, {"local5", 168},
    {"local6", 176},     {"local7", 184},  {"corvend", 192}, {nullptr, -1},
};

std::int32_t SyslogUtilities::syslogLevelForString(const PlistValue& name) {
  return name.stringValue() == "*" ? debugLevel : numberOf(name.stringValue(), _SU_prioritynames);
}

std::int32_t SyslogUtilities::syslogFacilityForString(const PlistValue& name) {
  return name.stringValue() == "*" ? everyFacility : numberOf(name.stringValue(), _SU_facilitynames);
}

PlistValue SyslogUtilities::stringForSyslogLevel(std::int32_t level) {
  return level == debugLevel ? PlistValue("*") : nameOf(level, _SU_prioritynames);
}

PlistValue SyslogUtilities::stringForSyslogFacility(std::int32_t facility) {
  return facility == everyFacility ? PlistValue("*") : nameOf(facility, _SU_facilitynames);
}

}  // namespace ostrel
