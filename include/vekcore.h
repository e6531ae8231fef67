/*
 * vekcore: the core services that vekr and its callers share: aligned
 * allocation and the process-wide thread count used by parallel operations.
 * Compiles as C99 and as C++.
 */
#ifndef VEKCORE_H
#define VEKCORE_H

#include "vekr.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Allocates numBytes bytes aligned to at least 16 bytes. Returns null when
 * numBytes is below 1 or the memory is not available. */
VEKR_API void* vekMalloc(int numBytes);

/* Releases memory from vekMalloc; a null pointer is ignored. */
VEKR_API void vekFree(void* ptr);

/* The thread count that parallel operations use (at least 1). */
VEKR_API int ownGetNumThreads(void);

/* Sets the thread count for parallel operations of every library that uses
 * vekcore. A count below 1 gives vekStatusBadSize and changes nothing. The
 * default is the number of processors available to the process. */
VEKR_API VekStatus vekSetNumThreads(int numThreads);

/* Reads the thread count; a null pointer gives vekStatusNullPtr. */
VEKR_API VekStatus vekGetNumThreads(int* pNumThreads);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* VEKCORE_H */
