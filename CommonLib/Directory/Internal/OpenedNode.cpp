#include "Directory/Internal/OpenedNode.h"

#include "Directory/Internal/Utf8Text.h"

namespace ostrel::detail {

DirectoryStatus OpenedNode::open(const PlistValue& path, std::uint32_t type) {
  const DirectoryStatus status = DSOpenDirectoryServices({}, 0, {}, {}, session_.place());
  if (status != directoryStatus::success) return status;
  if (!path.isString()) return DSOpenNodeByType(session(), type, node_.place(), foundPath_.place());
  const auto text = utf8Text(path);
  return DSOpenNodeByPath(session(), text ? text->c_str() : nullptr, node_.place());
}

}  // namespace ostrel::detail
