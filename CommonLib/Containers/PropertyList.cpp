#include "Containers/PropertyList.h"

namespace ostrel {

PlistValue readPropertyList(std::string_view bytes, PlistForm form, PlistError* error) {
  return bytes.starts_with("bplist00") ? readBinaryPropertyList(bytes, form, error)
                                       : readXmlPropertyList(bytes, form, error);
}

}  // namespace ostrel
