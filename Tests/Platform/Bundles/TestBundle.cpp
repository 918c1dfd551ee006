// The shared objects that the loader's test loads: sound ones and ones that are broken on purpose.
#include "Platform/ModuleBundle.h"

namespace {

[[maybe_unused]] int value = OSTREL_TEST_BUNDLE_VALUE;
[[maybe_unused]] void* create() { return &value; }

}  // namespace

#if OSTREL_TEST_BUNDLE_VERSION != 0
extern "C" OSTREL_EXPORT const ostrel::ModuleInterface ostrelModuleInterface;
const ostrel::ModuleInterface ostrelModuleInterface = {OSTREL_TEST_BUNDLE_VERSION, &create};
#endif
