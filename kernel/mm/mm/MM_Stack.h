/*
 * MM_Stack.h - the stack discipline: free memory is the one stretch between a segment's start and what was pushed last, so
 * there is no list to keep. MM_Push and MM_Pop move the end of the stretch.
 */
#ifndef MM_STACK_H
#define MM_STACK_H

#include "../guard/MM_Guard.h"
#include "MM_RunIndex.h"

/* Bytes that a push takes: a multiple of 4. */
inline U32 MM_StackBytes(U32 ulBytes)
{
    return ulBytes % 4 == 0 ? ulBytes : (ulBytes + 4) & ~3u;
}

/* Blocks that are left. */
inline U32 MM_StackFree(U32 hulHandle)
{
    const TStackStr& stStack = astStackStr[hulHandle];
    return (MM_Addr(stStack.pubStackHead) - MM_Addr(stStack.pubStackTail)) >> stSegTable[hulHandle].ubBlkBit;
}

/* Blocks that the next allocation can get in one piece: of a stack all that is left, of a list its longest run. */
inline U32 MM_LargestFree(U32 hulHandle)
{
    if constexpr (MM_Guarded) {
        if (stSegTable[hulHandle].stInfoFromApp.ubSegDSType != STACK)
            return MM_GuardLargestRun(hulHandle);
    }
    return stSegTable[hulHandle].stInfoFromApp.ubSegDSType == STACK ? MM_StackFree(hulHandle)
                                                                    : MM_LargestRun(hulHandle);
}

#endif
