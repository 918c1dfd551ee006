// A module whose factory makes nothing.
#include "Platform/ModuleBundle.h"

extern "C" {
extern OSTREL_EXPORT const ostrel::ModuleInterface ostrelModuleInterface;
const ostrel::ModuleInterface ostrelModuleInterface = {ostrel::moduleInterfaceVersion,
                                                       []() -> void* { return nullptr; }};
}
