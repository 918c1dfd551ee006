// A module of another time.
#include "Platform/ModuleBundle.h"

extern "C" {
extern OSTREL_EXPORT const ostrel::ModuleInterface ostrelModuleInterface;
const ostrel::ModuleInterface ostrelModuleInterface = {ostrel::moduleInterfaceVersion + 1,
                                                       []() -> void* { return nullptr; }};
}
