#include "ostrelctl/PortsCommand.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "Containers/Format.h"
#include "Containers/PropertyList.h"
#include "Network/PortMappings.h"
#include "Network/PortmapList.h"
#include "Platform/HostRoot.h"
#include "ostrelctl/Exchange.h"
#include "ostrelctl/PortRules.h"
#include "ostrelctl/TextForm.h"

namespace ostrel {
namespace {

using Protocol = PortMapping::Protocol;

constexpr const char* details =
    "\nThe list is /private/etc/nat/autoportmap.plist, below --root if that is given.\n"
    "A mapping without --protocol is for TCP and UDP, without --to leads to this machine, without --external is for "
    "all\n"
    "its addresses. remove takes away what was added with the same words; the external address does not count.\n"
    "render prints an nftables rule set that replaces the one of the last time: ostrelctl ports render | nft -f -\n"
    "\nExit status: 0 done, 1 not possible or not there, 2 wrong usage, 3 the list cannot be read or written.\n"
    "\nExamples:\n"
    "  ostrelctl ports add 80 --protocol tcp --to 10.0.0.5 --to-port 8080 --description 'Web server'\n"
    "  ostrelctl ports remove 80 --protocol tcp --to 10.0.0.5 --to-port 8080 --dry-run\n"
    "  ostrelctl ports list --json\n";

enum PortsStatus { notPossible = replyHoldsError, listFault = noReply };

int failWith(PortsStatus status, const std::string& reason) { return fail(static_cast<ExitStatus>(status), reason); }

// An empty text is a variable that was not set: it must not mean any.
std::string isGiven(const std::string& text) { return text.empty() ? "is empty" : ""; }

std::string capitals(std::string text) {
  std::ranges::transform(text, text.begin(), [](char c) { return c >= 'a' && c <= 'z' ? char(c - 'a' + 'A') : c; });
  return text;
}

// What a list answers to a mapping, in words.
std::string reasonOf(int status) {
  switch (status) {
    case EPROTONOSUPPORT:
      return "the protocol is neither tcp nor udp";
    case EAFNOSUPPORT:
      return "an address is no numeric IPv4 or IPv6 address, or the two are not of one family";
    case EADDRNOTAVAIL:
      return "an address is none by which a host can be reached";
    case EILSEQ:
      return "the description is no text that a property list can hold";
    case EEXIST:
      return "this mapping is there already";
    case EADDRINUSE:
      return "another mapping is for some of the same packets (see ostrelctl ports list)";
    case ENOENT:
      return "there is no such mapping: protocol, ports and --to must be those that it was added with";
    default:
      return std::generic_category().message(status);
  }
}

// What keeps a list from being read or written, in words.
std::string faultOf(int status) {
  switch (status) {
    case EBADMSG:
      return "it is no list of port mappings; it is left as it is";
    case EWOULDBLOCK:
      return "somebody else keeps it locked";
    case ESTALE:
      return "it was changed by somebody else meanwhile: try again";
    case EINVAL:
      return "it is no regular file";
    default:
      return std::generic_category().message(status);
  }
}

std::string endText(const std::optional<SocketAddress>& address, const char* any, int port) {
  if (!address) return format("%s:%d", any, port);
  const std::string host = address->numericHost();
  return address->isIPv6() ? format("[%s]:%d", host, port) : format("%s:%d", host, port);
}

std::string lineOf(const PortMapping& mapping) {
  const char* protocol = mapping.protocol == Protocol::any ? "any" : mapping.protocol == Protocol::tcp ? "tcp" : "udp";
  std::string description = readableText(mapping.description);
  std::ranges::replace(description, '\n', ' ');
  std::string line =
      format("%-4s %-28s -> %-28s %s", protocol, endText(mapping.externalAddress, "*", mapping.externalPort),
             endText(mapping.localAddress, "this machine", mapping.localPort), description);
  line.resize(line.find_last_not_of(' ') + 1);
  return line + "\n";
}

PlistValue valueOf(const std::vector<PortMapping>& mappings) {
  PlistValue array = PlistValue::mutableArray();
  for (const PortMapping& mapping : mappings) array.append(entryOf(mapping));
  return array;
}

// Those of `left` that `right` lacks.
std::vector<PortMapping> difference(const std::vector<PortMapping>& left, const std::vector<PortMapping>& right) {
  std::vector<PortMapping> rest;
  const PlistValue others = valueOf(right);
  std::ranges::copy_if(left, std::back_inserter(rest), [&](const PortMapping& mapping) {
    return std::ranges::find(others.elements(), entryOf(mapping)) == others.elements().end();
  });
  return rest;
}

class PortsCommand final : public Subcommand {
 public:
  void declare(CLI::App& app) override {
    app.footer(details);
    app.require_subcommand(1);
    declareOne(app, "list", "Print the mappings");
    declareOne(app, "render", "Print the mappings as an nftables rule set");
    CLI::App* const add = declareOne(app, "add", "Add a mapping");
    CLI::App* const remove = declareOne(app, "remove", "Remove a mapping");
    for (CLI::App* const verb : {add, remove}) {
      verb->add_option("PORT", externalPort_, "Port on the external side")->required()->check(CLI::Range(1, 65535));
      verb->add_option("--protocol", protocol_, "tcp or udp; both by default")->check(isGiven);
      verb->add_option("--to", localAddress_, "Internal address; this machine by default")
          ->type_name("ADDRESS")
          ->check(isGiven);
      verb->add_option("--to-port", localPort_, "Port on the internal side; PORT by default")
          ->check(CLI::Range(1, 65535));
      verb->add_flag("--dry-run", dryRun_, "Print what would change, save nothing");
    }
    add->add_option("--external", externalAddress_, "External address; every one of this machine by default")
        ->type_name("ADDRESS")
        ->check(isGiven);
    add->add_option("--description", description_, "What it is for");
  }

  int run(const SharedOptions& shared) override {
    form_ = shared.form;
    if (!shared.root.empty()) setHostRoot(shared.root);
    const bool saves = (verb_ == "add" || verb_ == "remove") && !dryRun_;
    const std::string path = portmapListPath();
    const int status =
        saves ? KpPortmapListRefCreateFromFile(path.c_str(), &list_) : openPortmapListForReading(path, &list_);
    if (status != 0) return failWith(listFault, format("cannot open %s: %s", path, faultOf(status)));
    if (verb_ == "list") return printAll();
    if (verb_ == "render") return printRules();
    return change(saves);
  }

  PortsCommand() = default;
  ~PortsCommand() override { KpReleasePortmapListRef(list_); }
  PortsCommand(const PortsCommand&) = delete;
  PortsCommand& operator=(const PortsCommand&) = delete;

 private:
  CLI::App* declareOne(CLI::App& app, const char* name, const char* summary) {
    CLI::App* const verb = app.add_subcommand(name, summary);
    verb->callback([this, name] { verb_ = name; });  // the parser does not outlive the parsing
    return verb;
  }

  int printAll() {
    std::size_t unknown = 0;
    const std::vector<PortMapping> mappings = portMappingsOf(list_, &unknown);
    if (form_ != OutputForm::text) {
      return printValue(PlistValue::dictionaryOf({{"portMappings", valueOf(mappings)}, {"notUnderstood", unknown}}));
    }
    std::string text;
    for (const PortMapping& mapping : mappings) text += lineOf(mapping);
    warnOf(unknown);
    return print(text);
  }

  int printRules() {
    std::size_t unknown = 0;
    const std::string rules = nftablesRules(portMappingsOf(list_, &unknown));
    warnOf(unknown);
    if (form_ != OutputForm::text && form_ != OutputForm::raw)
      return printValue(PlistValue::dictionaryOf({{"rules", rules}, {"notUnderstood", unknown}}));
    return print(rules);
  }

  int change(bool saves) {
    const std::vector<PortMapping> before = portMappingsOf(list_);
    const PlistValue protocol = valueOrAbsent(capitals(protocol_));
    const int localPort = localPort_ == 0 ? externalPort_ : localPort_;
    const int status =
        verb_ == "add" ? KpAddPortToList(list_, localPort, externalPort_, protocol, valueOrAbsent(localAddress_),
                                         valueOrAbsent(externalAddress_), description_)
                       : KpRemovePortFromList(list_, localPort, externalPort_, protocol, valueOrAbsent(localAddress_));
    if (status != 0) return failWith(notPossible, reasonOf(status));
    const std::vector<PortMapping> after = portMappingsOf(list_);
    const int written = saves ? KpUpdatePortmapListFile(list_) : 0;
    if (written != 0) return failWith(listFault, format("cannot write %s: %s", portmapListPath(), faultOf(written)));
    return tellChange(difference(before, after), difference(after, before), saves);
  }

  int tellChange(const std::vector<PortMapping>& removed, const std::vector<PortMapping>& added, bool saved) {
    if (form_ != OutputForm::text) {
      return printValue(
          PlistValue::dictionaryOf({{"saved", saved}, {"removed", valueOf(removed)}, {"added", valueOf(added)}}));
    }
    std::string text;
    for (const PortMapping& mapping : removed) text += "- " + lineOf(mapping);
    for (const PortMapping& mapping : added) text += "+ " + lineOf(mapping);
    return saved ? int(done) : print(text);
  }

  int printValue(const PlistValue& value) const {
    return print(textInForm(value, writeXmlPropertyList(value).value_or(""), form_));
  }

  static void warnOf(std::size_t unknown) {
    if (unknown > 0) std::fprintf(stderr, "ostrelctl: %zu elements of the list are no mappings\n", unknown);
  }

  // "*" and nothing mean any.
  static PlistValue valueOrAbsent(const std::string& text) {
    return text.empty() || text == kKpPortMappingNoValue ? PlistValue() : PlistValue(text);
  }

  std::string verb_;
  int externalPort_ = 0;
  int localPort_ = 0;
  std::string protocol_;
  std::string localAddress_;
  std::string externalAddress_;
  std::string description_;
  bool dryRun_ = false;
  OutputForm form_ = OutputForm::text;
  KpPortmapListRef list_ = nullptr;
};

}  // namespace

std::unique_ptr<Subcommand> makePortsCommand() { return std::make_unique<PortsCommand>(); }

}  // namespace ostrel
