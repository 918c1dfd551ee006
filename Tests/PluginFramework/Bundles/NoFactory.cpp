// A shared object that is no module.
#include "Containers/Export.h"

extern "C" OSTREL_EXPORT int somethingElse();
int somethingElse() { return 1; }
