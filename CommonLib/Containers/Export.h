// Marks what libostrelcommon exports; everything else in the library is hidden.
#pragma once

#define OSTREL_EXPORT __attribute__((visibility("default")))
