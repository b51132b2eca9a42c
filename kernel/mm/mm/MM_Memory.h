/*
 * MM_Memory.h - writes to managed memory that go past the free lists. Free memory holds the lists' headers, so whoever
 * writes where a list may lie says so here, and whatever is derived from a list is looked at again:
 * the bodies are MM_RunIndex's.
 */
#ifndef MM_MEMORY_H
#define MM_MEMORY_H

#include "../guard/MM_Guard.h"
#include "MM_Heap.h"

extern "C" {
/* Somebody wrote ulBytes (0 is nothing) at ulAddr other than through a list of free runs: segments that have a run's
 * header there walk their lists from now on. */
void MM_MemoryWritten(U32 ulAddr, U32 ulBytes);

/* A control operation wrote nodes into free memory: segments whose lists were hit walk them from now on. */
void MM_RecheckRunIndexes(void);
}

/* Owner entries were written from byte ulFirst up to byte ulLast of a map: what lay outside the map was other
 * memory. */
inline void MM_MapWritten(const TMMRange& stRange, U32 ulFirst, U32 ulLast)
{
    if (ulFirst < MM_Addr(stRange.pubMapStartAddr) || ulLast >= MM_Addr(stRange.pubMapEndAddr))
        MM_MemoryWritten(ulFirst, ulLast - ulFirst + 1);
}

/* Fills ulBytes (0 is nothing) of memory that may hold anything, free runs included. */
inline void MM_FillMemory(U8* pubAddr, U8 ubByte, U32 ulBytes)
{
    MM_MemoryWritten(MM_Addr(pubAddr), ulBytes);
    MMP_MemSet(pubAddr, ubByte, ulBytes);
    if constexpr (MM_Guarded)
        MM_GuardMend(MM_Addr(pubAddr), ulBytes);
}

#endif
