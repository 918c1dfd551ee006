#include "Directory/ServiceSettings.h"

#include "Directory/DirectorySessions.h"
#include "Directory/Internal/Released.h"
#include "Directory/Internal/Utf8Text.h"

namespace ostrel {
namespace {

// Where the settings are, as the client and the module say.
struct Place {
  PlistValue incoming;
  PlistValue localNodePath;
  PlistValue defaultRecordName;

  PlistValue nodePath() const { return stringOr(incoming.get("nodePath"), localNodePath); }
  PlistValue recordName() const { return stringOr(incoming.get("recordName"), defaultRecordName); }

 private:
  static PlistValue stringOr(const PlistValue& value, const PlistValue& otherwise) {
    return value.isString() ? value : otherwise;
  }
};

PlistValue orEmptyText(const PlistValue& value) { return value.isString() ? value : PlistValue(""); }
PlistValue orEmptyArray(const PlistValue& value) { return value.isArray() ? value : PlistValue::arrayOf({}); }

PlistValue statusNumber(DirectoryStatus status) { return static_cast<std::uint64_t>(std::int64_t{status}); }

// A session and the node in use, closed at the end.
struct OpenPlace {
  detail::ReleasedSession session;
  detail::ReleasedNode node;

  DirectoryStatus open(const PlistValue& nodePath) {
    const DirectoryStatus status = DSOpenDirectoryServices(nullptr, 0, nullptr, nullptr, session.place());
    if (status != directoryStatus::success) return status;
    const auto path = detail::utf8Text(nodePath);
    return DSOpenNodeByPath(session.get(), path ? path->c_str() : nullptr, node.place());
  }
};

PlistValue outgoingConfiguration(const Place& place, const PlistValue& matrix, const PlistValue& recordNames) {
  PlistValue outgoing = place.incoming.isDictionary() ? place.incoming.mutableCopy() : PlistValue::mutableDictionary();
  outgoing.set("nodePath", orEmptyText(place.nodePath()));
  outgoing.set("recordName", orEmptyText(place.recordName()));
  outgoing.set("localNodePath", orEmptyText(place.localNodePath));
  outgoing.set("nodePathsArray", orEmptyArray(matrix));
  outgoing.set("defaultRecordName", orEmptyText(place.defaultRecordName));
  outgoing.set("recordNamesArray", orEmptyArray(recordNames));
  return outgoing;
}

// Opens session and node, gathers the nodes and the record names, and puts "dsConfiguration" into the response.
DirectoryStatus openAndDescribe(const Place& place, bool skipDSConfiguration, DSRecordNamesCallback recordNames,
                                void* context, OpenPlace& opened, PlistValue& response) {
  DirectoryStatus status = opened.open(place.nodePath());
  if (status != directoryStatus::success) return status;
  PlistValue matrix;
  status = DSGetMatrixOfNodes(opened.session.get(), &matrix);
  if (status != directoryStatus::success) return status;
  PlistValue names;
  if (recordNames != nullptr) status = recordNames(opened.session.get(), opened.node.get(), &names, context);
  if (status != directoryStatus::success) return status;
  if (!skipDSConfiguration) response.set("dsConfiguration", outgoingConfiguration(place, matrix, names));
  return directoryStatus::success;
}

struct WriteCallbacks {
  DSRecordCallback prepare;
  DSWriteRecordCallback write;
  DSRecordCallback remove;
};

DirectoryStatus authenticateAsAsked(const PlistValue& incoming, const OpenPlace& opened) {
  const PlistValue user = incoming.get("nodePathUserName");
  const PlistValue password = incoming.get("nodePathPassword");
  if (!user.isString() || !password.isString() || user.stringValue() == std::string_view())
    return directoryStatus::success;
  return DSAuthenticateNode(opened.session.get(), opened.node.get(), user, password);
}

DirectoryStatus write(const Place& place, const PlistValue& configuration, const WriteCallbacks& callbacks,
                      void* context, bool& removed) {
  OpenPlace opened;
  DirectoryStatus status = opened.open(place.nodePath());
  if (status == directoryStatus::success) status = authenticateAsAsked(place.incoming, opened);
  if (status != directoryStatus::success) return status;
  const DirectoryHandle session = opened.session.get();
  const DirectoryHandle node = opened.node.get();
  const PlistValue recordName = place.recordName();
  if (callbacks.prepare != nullptr) status = callbacks.prepare(session, node, recordName, context);
  if (status != directoryStatus::success) return status;
  if (callbacks.write != nullptr && !configuration.isNull())
    status = callbacks.write(session, node, recordName, configuration, context);
  if (status != directoryStatus::success || callbacks.remove == nullptr) return status;
  status = callbacks.remove(session, node, recordName, context);
  removed = status == directoryStatus::success;
  return status;
}

}  // namespace

PlistValue DSReadServiceSettings(const PlistValue& dsConfiguration, bool skipDSConfiguration,
                                 const PlistValue& localNodePath, const PlistValue& defaultRecordName,
                                 DSRecordNamesCallback recordNames, DSReadRecordCallback read, void* context) {
  const Place place{dsConfiguration, localNodePath, defaultRecordName};
  PlistValue response = PlistValue::mutableDictionary();
  OpenPlace opened;
  DirectoryStatus status = openAndDescribe(place, skipDSConfiguration, recordNames, context, opened, response);
  if (status == directoryStatus::success && read != nullptr) {
    PlistValue configuration;
    status = read(opened.session.get(), opened.node.get(), place.recordName(), &configuration, context);
    response.set("configuration", configuration);  // null is not stored
  }
  response.set("readStatus", statusNumber(status));
  return response;
}

PlistValue DSGetServiceNodesAndRecords(const PlistValue& dsConfiguration, const PlistValue& localNodePath,
                                       const PlistValue& defaultRecordName, DSRecordNamesCallback recordNames,
                                       void* context) {
  const Place place{dsConfiguration, localNodePath, defaultRecordName};
  PlistValue response = PlistValue::mutableDictionary();
  OpenPlace opened;
  const DirectoryStatus status = openAndDescribe(place, false, recordNames, context, opened, response);
  response.set("getNodesStatus", statusNumber(status));
  return response;
}

PlistValue DSWriteServiceSettings(const PlistValue& dsConfiguration, bool skipDSConfiguration,
                                  const PlistValue& localNodePath, const PlistValue& defaultRecordName,
                                  const PlistValue& configuration, DSRecordCallback prepare,
                                  DSWriteRecordCallback writeRecord, DSRecordCallback remove,
                                  DSRecordNamesCallback recordNames, DSReadRecordCallback read, void* context) {
  const Place place{dsConfiguration, localNodePath, defaultRecordName};
  bool removed = false;
  const DirectoryStatus status = write(place, configuration, {prepare, writeRecord, remove}, context, removed);
  PlistValue response = DSReadServiceSettings(dsConfiguration, skipDSConfiguration, localNodePath, defaultRecordName,
                                              recordNames, read, context);
  response.set("writeStatus", statusNumber(status));
  if (removed) response.set("removedRecordName", orEmptyText(place.recordName()));
  return response;
}

}  // namespace ostrel
