// The version record of this build.
#include "vekr.h"

namespace {

// Read-only data: the record and its texts live from load to unload.
const VekLibraryVersion kVersion = {
    7, 0, 205, 937,
    {'s', '8', '\0', '\0'},  // processor variant: 128-bit SIMD up to SSSE3
    "vekrs8-7.0.dll",
    "7.0 build 205.85",
    "Nov 26 2011",
};

}  // namespace

extern "C" const VekLibraryVersion* vekrGetLibVersion(void) { return &kVersion; }
