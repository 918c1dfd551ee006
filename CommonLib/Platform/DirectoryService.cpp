#include "Platform/DirectoryService.h"

#include <cstdlib>
#include <cstring>
#include <limits>
#include <unordered_set>

#include "Platform/Internal/Directory/Entries.h"
#include "Platform/Internal/Directory/OpenHandles.h"
#include "Platform/Internal/Directory/SearchNode.h"

namespace ostrel {
namespace detail {

OpenHandles& OpenHandles::current() {
  static OpenHandles handles;
  return handles;
}

}  // namespace detail

namespace {

using detail::answered;
using detail::handOut;
using detail::NodeReference;
using detail::OpenHandles;
using detail::openNode;
using detail::Session;

std::shared_ptr<Session> openSession(DirectoryHandle session) {
  return OpenHandles::current().sessions.find(session).value_or(nullptr);
}

struct Credentials {
  std::string_view user;
  std::string_view password;
};

// A length and so many bytes; absent when the bytes end before.
std::optional<std::string_view> takeCounted(std::string_view& bytes) {
  std::uint32_t length = 0;
  if (bytes.size() < sizeof length) return std::nullopt;
  std::memcpy(&length, bytes.data(), sizeof length);
  bytes.remove_prefix(sizeof length);
  if (length > bytes.size()) return std::nullopt;
  const std::string_view counted = bytes.substr(0, length);
  bytes.remove_prefix(length);
  return counted;
}

std::optional<Credentials> credentialsIn(const DirectoryDataBuffer& buffer) {
  if (buffer.length > buffer.capacity) return std::nullopt;
  std::string_view bytes = buffer.text();
  const auto user = takeCounted(bytes);
  const auto password = takeCounted(bytes);
  if (!user || !password) return std::nullopt;
  return Credentials{*user, *password};
}

DirectoryStatus authenticate(DirectoryNode& node, const DirectoryDataNode* method,
                             const DirectoryDataBuffer* authentication, DirectoryIdentityPointer& identity) {
  if (method == nullptr || authentication == nullptr) return directoryStatus::invalidArgument;
  if (method->text() != directoryName::clearTextMethod) return directoryStatus::methodUnknown;
  const auto credentials = credentialsIn(*authentication);
  if (!credentials) return directoryStatus::invalidArgument;
  return node.authenticate(credentials->user, credentials->password, identity);
}

// All at once: the tables are gone through as a whole.
void closeChildrenOfNodes(const std::unordered_set<DirectoryHandle>& nodes) {
  OpenHandles& handles = OpenHandles::current();
  // What the handles stood for ends here, outside the tables' locks.
  const auto ofNode = [&nodes](const auto& open) { return nodes.contains(open->node); };
  handles.records.takeIf(ofNode);
  handles.searches.takeIf(ofNode);
  const auto listOfNode = [&nodes](const detail::OpenList& list) { return nodes.contains(list.node); };
  handles.attributeLists.takeIf(listOfNode);
  handles.valueLists.takeIf(listOfNode);
}

// Packs the paths of nodes: all or none.
DirectoryStatus packNodes(const detail::NodeSet::Nodes& nodes, DirectoryDataBuffer& buffer, std::uint32_t& count) {
  detail::PackedBufferWriter writer(buffer, detail::PackedKind::nodes);
  for (const auto& node : nodes)
    if (!writer.addNode(node->path())) return directoryStatus::bufferTooSmall;
  writer.finish();
  count = writer.count();
  return directoryStatus::success;
}

bool isAsked(const DirectoryDataList& names, std::string_view name) {
  for (std::uint32_t index = 0; index < names.count; ++index) {
    const std::string_view asked = names.items[index]->text();
    if (asked == name || asked == directoryName::allAttributes) return true;
  }
  return false;
}

// The facts that were asked for, as one record.
DirectoryStatus packFacts(const DirectoryNode& node, const DirectoryDataList& names, DirectoryDataBuffer& buffer,
                          std::uint32_t& count) {
  const std::vector<DirectoryNode::Fact> facts = node.facts();
  std::vector<std::vector<DirectoryValue>> values;
  std::vector<DirectoryAttribute> attributes;
  values.reserve(facts.size());
  for (const DirectoryNode::Fact& fact : facts) {
    if (fact.values.empty() || !isAsked(names, fact.name)) continue;
    auto& factValues = values.emplace_back();
    for (const std::string& value : fact.values)
      factValues.push_back({static_cast<std::uint32_t>(factValues.size() + 1), value});
    attributes.push_back({fact.name, factValues});
  }
  detail::PackedBufferWriter writer(buffer, detail::PackedKind::records);
  if (!writer.addRecord({"", node.path(), attributes})) return directoryStatus::bufferTooSmall;
  writer.finish();
  count = static_cast<std::uint32_t>(attributes.size());
  return directoryStatus::success;
}

template <class Select>
DirectoryStatus listNodes(DirectoryHandle session, DirectoryDataBuffer* buffer, std::uint32_t* count,
                          DirectoryHandle* continuation, const Select& select) noexcept {
  if (count != nullptr) *count = 0;
  if (continuation != nullptr) *continuation = 0;
  if (buffer == nullptr || count == nullptr) return directoryStatus::invalidArgument;
  return answered([&]() -> DirectoryStatus {
    const auto opened = openSession(session);
    if (!opened) return directoryStatus::invalidHandle;
    return packNodes(select(*opened->nodes), *buffer, *count);
  });
}

}  // namespace

DirectoryStatus dsOpenDirService(DirectoryHandle* session) noexcept {
  if (session == nullptr) return directoryStatus::invalidArgument;
  *session = 0;
  return answered([&]() -> DirectoryStatus {
    auto opened = std::make_shared<Session>();
    const DirectoryStatus status = detail::currentNodes(opened->nodes);
    if (status != directoryStatus::success) return status;
    return handOut(OpenHandles::current().sessions, std::move(opened), session);
  });
}

DirectoryStatus dsOpenDirServiceProxy(DirectoryHandle* session, const char* host, std::int32_t port,
                                      const DirectoryDataNode* method, const DirectoryDataBuffer* authentication,
                                      DirectoryDataBuffer* response, DirectoryHandle* continuation) noexcept {
  if (session == nullptr) return directoryStatus::invalidArgument;
  *session = 0;
  if (continuation != nullptr) *continuation = 0;
  if (response != nullptr) response->length = 0;
  if (host == nullptr || port < 0 || port > std::numeric_limits<std::uint16_t>::max())
    return directoryStatus::invalidArgument;
  return answered([&]() -> DirectoryStatus {
    auto opened = std::make_shared<Session>();
    DirectoryStatus status = detail::nodesOfHost(host, static_cast<std::uint16_t>(port), opened->nodes);
    if (status != directoryStatus::success) return status;
    status = authenticate(*opened->nodes->searchNode(), method, authentication, opened->identity);
    if (status != directoryStatus::success) return status;
    return handOut(OpenHandles::current().sessions, std::move(opened), session);
  });
}

DirectoryStatus dsCloseDirService(DirectoryHandle session) noexcept {
  return answered([&]() -> DirectoryStatus {
    OpenHandles& handles = OpenHandles::current();
    if (!handles.sessions.take(session)) return directoryStatus::invalidHandle;
    const auto nodes = handles.nodes.takeIf([session](const auto& node) { return node->session() == session; });
    std::unordered_set<DirectoryHandle> closed;
    for (const auto& [handle, node] : nodes) closed.insert(handle);
    closeChildrenOfNodes(closed);
    return directoryStatus::success;
  });
}

DirectoryStatus dsFindDirNodes(DirectoryHandle session, DirectoryDataBuffer* buffer, std::uint32_t nodeType,
                               std::uint32_t* count, DirectoryHandle* continuation) noexcept {
  return listNodes(session, buffer, count, continuation,
                   [nodeType](const detail::NodeSet& set) { return set.nodesOfType(nodeType); });
}

DirectoryStatus dsGetDirNodeList(DirectoryHandle session, DirectoryDataBuffer* buffer, std::uint32_t* count,
                                 DirectoryHandle* continuation) noexcept {
  return listNodes(session, buffer, count, continuation, [](const detail::NodeSet& set) { return set.nodes(); });
}

DirectoryStatus dsGetDirNodeName(DirectoryHandle session, const DirectoryDataBuffer* buffer, std::uint32_t index,
                                 DirectoryDataList** name) noexcept {
  if (name != nullptr) *name = nullptr;
  if (buffer == nullptr || name == nullptr || index == 0) return directoryStatus::invalidArgument;
  return answered([&]() -> DirectoryStatus {
    if (!openSession(session)) return directoryStatus::invalidHandle;
    const detail::PackedBufferReader reader(*buffer, detail::PackedKind::nodes);
    if (!reader.valid()) return directoryStatus::invalidArgument;
    const auto path = reader.node(index);
    if (!path) return directoryStatus::noSuchEntry;
    *name = detail::listFromNodePath(*path);
    return *name == nullptr ? directoryStatus::outOfMemory : directoryStatus::success;
  });
}

DirectoryStatus dsOpenDirNode(DirectoryHandle session, const DirectoryDataList* name, DirectoryHandle* node) noexcept {
  if (node != nullptr) *node = 0;
  if (name == nullptr || node == nullptr) return directoryStatus::invalidArgument;
  return answered([&]() -> DirectoryStatus {
    const auto opened = openSession(session);
    if (!opened) return directoryStatus::invalidHandle;
    const std::unique_ptr<char, decltype(&std::free)> path(dsGetPathFromList(name, "/"), &std::free);
    if (path == nullptr) return directoryStatus::outOfMemory;
    auto found = opened->nodes->nodeAt(detail::normalizedNodePath(path.get()));
    if (!found) return directoryStatus::nodeNotFound;
    auto identity =
        found == opened->nodes->searchNode() ? opened->identity : detail::identityFor(*found, opened->identity);
    auto reference = std::make_shared<NodeReference>(session, opened->nodes, std::move(found), std::move(identity));
    return handOut(OpenHandles::current().nodes, std::move(reference), node);
  });
}

DirectoryStatus dsCloseDirNode(DirectoryHandle node) noexcept {
  return answered([&]() -> DirectoryStatus {
    if (!OpenHandles::current().nodes.take(node)) return directoryStatus::invalidHandle;
    closeChildrenOfNodes({node});
    return directoryStatus::success;
  });
}

DirectoryStatus dsGetDirNodeInfo(DirectoryHandle node, const DirectoryDataList* attributeNames,
                                 DirectoryDataBuffer* buffer, std::uint32_t* count, DirectoryHandle* attributes,
                                 DirectoryHandle* continuation) noexcept {
  if (count != nullptr) *count = 0;
  if (attributes != nullptr) *attributes = 0;
  if (continuation != nullptr) *continuation = 0;
  if (attributeNames == nullptr || buffer == nullptr || count == nullptr || attributes == nullptr)
    return directoryStatus::invalidArgument;
  return answered([&]() -> DirectoryStatus {
    const auto reference = openNode(node);
    if (!reference) return directoryStatus::invalidHandle;
    std::uint32_t found = 0;
    const DirectoryStatus status = packFacts(reference->node(), *attributeNames, *buffer, found);
    if (status != directoryStatus::success) return status;
    const auto record = detail::PackedBufferReader(*buffer, detail::PackedKind::records).record(1);
    if (!record) return directoryStatus::invalidArgument;
    *count = found;
    return handOut(OpenHandles::current().attributeLists, detail::OpenList{node, record->attributes}, attributes);
  });
}

DirectoryStatus dsDoDirNodeAuth(DirectoryHandle node, const DirectoryDataNode* method, bool verifyOnly,
                                const DirectoryDataBuffer* authentication, DirectoryDataBuffer* response,
                                DirectoryHandle* continuation) noexcept {
  if (continuation != nullptr) *continuation = 0;
  if (response != nullptr) response->length = 0;
  return answered([&]() -> DirectoryStatus {
    const auto reference = openNode(node);
    if (!reference) return directoryStatus::invalidHandle;
    DirectoryIdentityPointer identity;
    const DirectoryStatus status = authenticate(reference->node(), method, authentication, identity);
    if (status == directoryStatus::success && !verifyOnly) reference->speakFor(std::move(identity));
    return status;
  });
}

}  // namespace ostrel
