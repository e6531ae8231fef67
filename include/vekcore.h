/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file vekcore.h
 * @brief vekcore: the core services that vekr and its callers share.
 *
 * Aligned allocation and the process-wide thread count used by parallel
 * operations. Link with `-lvekcore` (pkg-config module `vekcore`, CMake
 * target `vekr::vekcore`). Compiles as C99 and as C++.
 */
#ifndef VEKCORE_H
#define VEKCORE_H

#include "vekr.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * @brief Allocates memory aligned to at least 16 bytes.
 * @param numBytes size in bytes
 * @return The memory, or null when numBytes is below 1 or the memory is not
 *         available. Release it with vekFree().
 */
VEKR_API void* vekMalloc(int numBytes);

/**
 * @brief Releases memory from vekMalloc().
 * @param ptr the memory; a null pointer is ignored
 */
VEKR_API void vekFree(void* ptr);

/**
 * @brief The thread count that parallel operations use.
 * @return The count set by vekSetNumThreads(), at least 1; by default the
 *         number of processors available to the process.
 */
VEKR_API int ownGetNumThreads(void);

/**
 * @brief Sets the thread count for the parallel operations of every library
 *        that uses vekcore.
 *
 * The setting is process-wide; operations read it when they start. Any count
 * from 1 to INT_MAX is accepted: a parallel region never starts more threads
 * than it has rows, planes or triangle pairs to share, nor more than 256, and
 * no result depends on the team size. Buffer-size queries that scale with the
 * thread count use the count as set.
 *
 * @param numThreads the count, at least 1
 * @retval vekStatusOk      the count is set
 * @retval vekStatusBadSize numThreads is below 1; nothing changes
 */
VEKR_API VekStatus vekSetNumThreads(int numThreads);

/**
 * @brief Reads the thread count.
 * @param pNumThreads out: the count
 * @retval vekStatusOk      *pNumThreads is written
 * @retval vekStatusNullPtr pNumThreads is null
 */
VEKR_API VekStatus vekGetNumThreads(int* pNumThreads);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* VEKCORE_H */
