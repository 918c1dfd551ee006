// Makes the nodes that the host's configuration names. docs/directory.md describes the file.
#include <algorithm>
#include <utility>

#include "Platform/HostRoot.h"
#include "Platform/Internal/Directory/HostNode.h"
#include "Platform/Internal/Directory/LocalNode.h"
#include "Platform/Internal/Directory/NodeKinds.h"
#include "Platform/Internal/Directory/NodeSet.h"
#include "Platform/Internal/Directory/SearchNode.h"
#include "Platform/Mutex.h"
#include "Platform/SystemLog.h"
#include "Platform/TrustedPropertyList.h"

namespace ostrel::detail {
namespace {

constexpr std::string_view configurationFile = "/etc/ostreld/directory.plist";
constexpr std::string_view localDatabase = "/var/ostreld/directory/local.db";
constexpr std::string_view ldapKind = "LDAP";

// A fault of the configuration, for the log.
struct Fault {
  std::string text;
};

// Whoever may write this file decides who is let in, and it may hold passwords.
PlistValue readConfiguration(const std::string& path) {
  std::string fault;
  PlistValue configuration = readTrustedPropertyList(path, fault);
  if (configuration.isNull()) throw Fault{fault};
  return configuration;
}

std::shared_ptr<DirectoryNode> configuredNode(const PlistValue& entry) {
  const PlistValue kind = entry.get("Kind");
  const PlistValue path = entry.get("Path");
  if (!kind.isString() || !path.isString()) throw Fault{"has a node without \"Kind\" or \"Path\""};
  const std::string nodePath(path.stringValue());
  if (nodePath.find('\0') != std::string::npos || nodePath.size() < 2 || normalizedNodePath(nodePath) != nodePath)
    throw Fault{"has a node whose \"Path\" is none"};
  const DirectoryNodeFactory factory = nodeFactory(kind.stringValue());
  if (factory == nullptr) throw Fault{"has a node of the unknown kind " + std::string(kind.stringValue())};
  std::string fault;
  std::shared_ptr<DirectoryNode> node = factory(nodePath, entry, fault);
  if (!node) throw Fault{"has a node " + nodePath + " that cannot be used: " + fault};
  return node;
}

NodeSet::Nodes configuredNodes(const PlistValue& configuration, const std::shared_ptr<DirectoryNode>& local) {
  NodeSet::Nodes nodes{local};
  const PlistValue host = configuration.get("HostNode");
  if (!host.isNull() && !host.isBoolean()) throw Fault{"has a \"HostNode\" that is no boolean"};
  if (host.isNull() || host.boolValue()) nodes.push_back(std::make_shared<HostNode>());
  const PlistValue entries = configuration.get("Nodes");
  if (!entries.isNull() && !entries.isArray()) throw Fault{"has \"Nodes\" that are no array"};
  for (const PlistValue& entry : entries.elements()) {
    auto node = configuredNode(entry);
    const auto samePath = [&](const auto& other) { return other->path() == node->path(); };
    if (node->path() == searchNodePath || std::ranges::any_of(nodes, samePath))
      throw Fault{"has the node " + node->path() + " twice"};
    nodes.push_back(std::move(node));
  }
  return nodes;
}

NodeSet::Nodes searchPath(const PlistValue& configuration, const NodeSet::Nodes& nodes) {
  const PlistValue paths = configuration.get("SearchPath");
  if (paths.isNull()) return nodes;
  if (!paths.isArray()) throw Fault{"has a \"SearchPath\" that is no array"};
  NodeSet::Nodes searched;
  for (const PlistValue& path : paths.elements()) {
    const auto found = std::ranges::find_if(
        nodes, [&](const auto& node) { return path.isString() && node->path() == path.stringValue(); });
    if (found == nodes.end() || std::ranges::find(searched, *found) != searched.end())
      throw Fault{"has a \"SearchPath\" with a node that is none or stands there twice"};
    searched.push_back(*found);
  }
  return searched;
}

NodeSetPointer makeNodes(const std::string& path) {
  const PlistValue configuration = readConfiguration(path);
  auto local = std::make_shared<LocalNode>(hostPath(localDatabase));
  NodeSet::Nodes nodes = configuredNodes(configuration, local);
  NodeSet::Nodes searched = searchPath(configuration, nodes);
  return std::make_shared<NodeSet>(std::move(nodes), std::move(searched), std::move(local));
}

// What tells one state of the configuration from another.
struct State {
  std::string path;
  std::uint64_t kinds = 0;
  FileState file;

  friend bool operator==(const State&, const State&) = default;
};

State currentState() {
  const std::string path = hostPath(configurationFile);
  return {path, nodeKindGeneration(), FileState::of(path)};
}

struct Shared {
  Mutex mutex;
  State state OSTREL_GUARDED_BY(mutex);
  NodeSetPointer nodes OSTREL_GUARDED_BY(mutex);
};

Shared& shared() {
  static Shared& instance = *new Shared;  // never freed: threads may still work on the nodes when the process ends
  return instance;
}

bool isHostName(std::string_view host) {
  constexpr std::string_view others = ".-:_";
  return !host.empty() && host.size() <= 255 && std::ranges::all_of(host, [&](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           others.find(c) != std::string_view::npos;
  });
}

// Passwords go there: encrypted from the first byte, or by StartTLS on a port of the caller's choice.
std::string serverURL(const std::string& host, std::uint16_t port) {
  constexpr std::uint16_t encryptedPort = 636;
  const std::string name = host.find(':') == std::string::npos ? host : "[" + host + "]";
  if (port == 0 || port == encryptedPort) return "ldaps://" + name;
  return "ldap://" + name + ":" + std::to_string(port);
}

}  // namespace

DirectoryStatus currentNodes(NodeSetPointer& nodes) {
  const State state = currentState();
  Shared& known = shared();
  NodeSetPointer former;  // ends after the lock
  const MutexLock lock(known.mutex);
  if (!known.nodes || known.state != state) {
    try {
      NodeSetPointer made = makeNodes(state.path);
      former = std::exchange(known.nodes, std::move(made));
      known.state = state;
    } catch (const Fault& fault) {
      logAt(LogLevel::error, "[%d] directory configuration %s %s", processId(), state.path, fault.text);
      return directoryStatus::configurationFault;
    }
  }
  nodes = known.nodes;
  return directoryStatus::success;
}

DirectoryStatus nodesOfHost(std::string_view host, std::uint16_t port, NodeSetPointer& nodes) {
  if (!isHostName(host)) return directoryStatus::invalidArgument;
  const DirectoryNodeFactory factory = nodeFactory(ldapKind);
  if (factory == nullptr) return directoryStatus::notSupported;
  const std::string name(host);
  const PlistValue entry = PlistValue::dictionaryOf(
      {{"Kind", ldapKind}, {"Servers", PlistValue::arrayOf({serverURL(name, port)})}, {"RequireTLS", true}});
  std::string fault;
  std::shared_ptr<DirectoryNode> node = factory("/LDAP/" + name, entry, fault);
  if (!node) {
    logAt(LogLevel::error, "[%d] directory of host %s: %s", processId(), name, fault);
    return directoryStatus::configurationFault;
  }
  nodes = std::make_shared<NodeSet>(NodeSet::Nodes{node}, NodeSet::Nodes{node}, nullptr);
  return directoryStatus::success;
}

}  // namespace ostrel::detail
