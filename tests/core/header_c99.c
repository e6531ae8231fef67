/* The public headers compile as strict C99 (built with -std=c99 -pedantic -Werror). */
#include "vekcore.h"
#include "vekr.h"

int vekrTestHeaderC99(void) {
    VekrIntersectContext ctx;
    VekrBoundBox box = {{0, 0, 0}, {1, 1, 1}};
    ctx.pBound = &box;
    ctx.pAccel = 0;
    ctx.pRootNode = 0;
    return (int)sizeof(VekrTriangleAccel) + (ctx.pBound->maxCorner[0] > 0 ? vekStatusOk : vekStatusBadSize);
}
