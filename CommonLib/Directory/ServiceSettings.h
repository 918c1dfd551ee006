// The frame in which modules keep a service's settings in a record of the directory: which node and record, who may
// write there, and what a client is told of both. What the record holds is the module's business.
#pragma once

#include "Containers/Export.h"
#include "Containers/PlistValue.h"
#include "Platform/DirectoryTypes.h"

namespace ostrel {

// For statuses and threads: DirectorySessions.h.
//
// The directory configuration is a dictionary that travels to the client and back:
//
//   "nodePath"           the node in use: as it came, if that is a string, else `localNodePath`; "" when there is none
//   "recordName"         the record in use: as it came, if that is a string, else `defaultRecordName`; "" without one
//   "localNodePath"      as the module gives it; "" without one
//   "defaultRecordName"  the same
//   "nodePathsArray"     what `DSGetMatrixOfNodes` answers
//   "recordNamesArray"   what the record-names callback answers, or an empty array
//   "nodePathUserName", "nodePathPassword"  with whose rights to write; only read
//
// What else it holds is handed on as it is. Anything but a dictionary counts as none.
//
// Statuses in responses are unsigned 64-bit numbers made of the sign-extended status: -14050 is 18446744073709537566.
//
// Callbacks get the open session and node, and `context` as it was given. They may block, and are called on the thread
// of the call; what one throws passes through the call, which closes session and node. A null callback is passed over.

/// The names of the records that hold such settings, as an array.
using DSRecordNamesCallback = DirectoryStatus (*)(DirectoryHandle session, DirectoryHandle node, PlistValue* names,
                                                  void* context);
/// Reads the settings.
using DSReadRecordCallback = DirectoryStatus (*)(DirectoryHandle session, DirectoryHandle node,
                                                 const PlistValue& recordName, PlistValue* configuration,
                                                 void* context);
/// Does what has to be done before settings can be written, or removes the record.
using DSRecordCallback = DirectoryStatus (*)(DirectoryHandle session, DirectoryHandle node,
                                             const PlistValue& recordName, void* context);
/// Writes the settings.
using DSWriteRecordCallback = DirectoryStatus (*)(DirectoryHandle session, DirectoryHandle node,
                                                  const PlistValue& recordName, const PlistValue& configuration,
                                                  void* context);

/// Reads a service's settings: "dsConfiguration" (unless it is to be skipped, and when node, matrix and record names
/// could be had), "configuration" (what the read callback gave, unless null) and "readStatus". A mutable dictionary.
OSTREL_EXPORT PlistValue DSReadServiceSettings(const PlistValue& dsConfiguration, bool skipDSConfiguration,
                                               const PlistValue& localNodePath, const PlistValue& defaultRecordName,
                                               DSRecordNamesCallback recordNames, DSReadRecordCallback read,
                                               void* context);

/// The same without reading: "dsConfiguration" and "getNodesStatus".
OSTREL_EXPORT PlistValue DSGetServiceNodesAndRecords(const PlistValue& dsConfiguration, const PlistValue& localNodePath,
                                                     const PlistValue& defaultRecordName,
                                                     DSRecordNamesCallback recordNames, void* context);

/// Authenticates the node, if the directory configuration has a name and a password for it, and calls prepare, write
/// (only with a configuration) and remove until one fails. Then, whatever happened, reads the settings as
/// `DSReadServiceSettings` does and adds "writeStatus" to its response, and "removedRecordName" when the record was
/// removed.
OSTREL_EXPORT PlistValue DSWriteServiceSettings(const PlistValue& dsConfiguration, bool skipDSConfiguration,
                                                const PlistValue& localNodePath, const PlistValue& defaultRecordName,
                                                const PlistValue& configuration, DSRecordCallback prepare,
                                                DSWriteRecordCallback write, DSRecordCallback remove,
                                                DSRecordNamesCallback recordNames, DSReadRecordCallback read,
                                                void* context);

/// Every node of the directory service, in its order: an immutable array of arrays of the components of a node's path.
/// Null after a failure.
OSTREL_EXPORT DirectoryStatus DSGetMatrixOfNodes(DirectoryHandle session, PlistValue* matrix);

/// For choosing a node level by level: the component at `index` (from 0) of those that stand at `level` (from 0) in the
/// matrix, each once, sorted ignoring case. Below level 0 only paths that have `parent` one level above take part.
/// `count` (may be null) becomes how many there are. Null for an index outside of them.
OSTREL_EXPORT PlistValue DSGetNodeFromMatrixOfNodes(const PlistValue& matrix, const PlistValue& parent, long index,
                                                    long level, long* count);

}  // namespace ostrel
