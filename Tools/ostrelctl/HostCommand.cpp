#include "ostrelctl/HostCommand.h"

#include <CLI/CLI.hpp>
#include <string>

#include "Containers/Format.h"
#include "ostrelctl/Exchange.h"

namespace ostrel {
namespace {

constexpr const char* command = "getHost";

/// "SATA, unknown".
std::string joined(const PlistValue& interconnects) {
  std::string all;
  for (const PlistValue& each : interconnects.elements()) {
    if (!all.empty()) all += ", ";
    all += each.stringValue().empty() ? "unknown" : each.stringValue();
  }
  return all;
}

/// "192.0.2.1 (mask 255.255.255.0, broadcast 192.0.2.255)" for each address.
PlistValue addressLines(const PlistValue& interface) {
  const PlistValue addresses = interface.get("ipv4Addresses");
  PlistValue lines = PlistValue::mutableArray();
  for (std::size_t i = 0; i < addresses.count(); ++i) {
    const PlistValue mask = interface.get("ipv4SubnetMasks").at(i);
    const PlistValue broadcast = interface.get("ipv4BroadcastAddresses").at(i);
    std::string details;
    if (mask.isString()) details += format("mask %@", mask);
    if (broadcast.isString()) details += format("%sbroadcast %@", details.empty() ? "" : ", ", broadcast);
    const std::string address(addresses.at(i).stringValue());
    lines.append(details.empty() ? address : format("%s (%s)", address, details));
  }
  return lines;
}

const char* stateOf(const PlistValue& interface) {
  if (interface.get("isActive").boolValue()) return "active";
  return interface.get("hasIPV4").boolValue() ? "has an IPv4 address, but is not active" : "no IPv4 address";
}

PlistValue interfacePage(const PlistValue& interface) {
  PlistValue page = PlistValue::mutableDictionary();
  const PlistValue name = interface.get("UserDefinedName");
  if (name != interface.get("interfaceName")) page.set("display name", name);
  page.set("type", interface.get("Hardware"));
  page.set("state", stateOf(interface));
  page.set("router", interface.get("router"));
  page.set("host name", interface.get("hostname"));
  if (interface.get("ipv4Addresses").count() > 0) page.set("addresses", addressLines(interface));
  page.set("link-layer address", interface.get("ethernetAddr"));
  return page;
}

/// "supported (SATA)".
std::string fullSyncText(const PlistValue& volume) {
  std::string text(volume.get("fullSync").stringValue());
  std::string details = joined(volume.get("interconnects"));
  if (volume.get("failure").isString()) details = volume.get("failure").stringValue();
  return details.empty() ? text : format("%s (%s)", text, details);
}

PlistValue volumePage(const PlistValue& volume) {
  return PlistValue::dictionaryOf(
      {{"device", format("%s (%s)", volume.get("device").stringValue(), volume.get("fileSystem").stringValue())},
       {"full flush", fullSyncText(volume)}});
}

class HostCommand : public Subcommand {
 public:
  void declare(CLI::App& app) override {
    app.add_option("MODULE", module_, "Whose \"getHost\" to ask")->capture_default_str();
    app.footer("\nExamples:\n  ostrelctl host\n  ostrelctl host --json | jq '.interfaces | keys'\n");
  }

  int run(const SharedOptions& shared) override {
    int exitStatus = done;
    auto answer = ask(shared, module_, PlistValue::dictionaryOf({{"command", command}}), exitStatus);
    if (!answer) return exitStatus;
    const bool isPage = shared.form == OutputForm::text && answer->reply.get("error").isNull();
    if (isPage) answer->reply = hostPage(answer->reply);
    return printAnswer(*answer, shared.form, module_, command);
  }

 private:
  std::string module_ = "ostrel_sample";
};

}  // namespace

PlistValue hostPage(const PlistValue& host) {
  PlistValue page = PlistValue::mutableDictionary();
  page.set("host", host.get("hostName"));
  if (host.get("failoverRole").isString())
    page.set("fail-over", format("%@ (%lld)", host.get("failoverRole"), host.get("failoverState").int64Value()));
  PlistValue interfaces = PlistValue::mutableDictionary();
  const PlistValue described = host.get("interfaces");
  for (const PlistEntry& entry : described.entries()) interfaces.set(entry.keyText(), interfacePage(entry.value));
  page.set("interfaces", interfaces);
  PlistValue volumes = PlistValue::mutableDictionary();
  const PlistValue mounted = host.get("volumes");
  for (const PlistValue& volume : mounted.elements()) volumes.set(volume.get("path").stringValue(), volumePage(volume));
  page.set("volumes", volumes);
  return page;
}

std::unique_ptr<Subcommand> makeHostCommand() { return std::make_unique<HostCommand>(); }

}  // namespace ostrel
