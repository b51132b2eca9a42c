/*
 * MM_Lock.h - what every allocator and release routine does around its work: the lock of its kind, taken
 * only for segments with ubSemaphore YES, and the test that the segment's counters agree.
 */
#ifndef MM_LOCK_H
#define MM_LOCK_H

#include "MM_Core.h"

/* True when the lock was taken. */
inline bool MM_LockSegment(U32 hulHandle, TMMLock enLock)
{
    const bool fLocked = stSegTable[hulHandle].stInfoFromApp.ubSemaphore == YES;
    if (fLocked)
        MMP_LockIrq(enLock);
    return fLocked;
}

inline void MM_UnlockSegment(bool fLocked, TMMLock enLock)
{
    if (fLocked)
        MMP_UnlockIrq(enLock);
}

inline bool MM_CountersAgree(U32 hulHandle)
{
    const TMMSegInfo& stSeg = stSegTable[hulHandle];
    return stSeg.ulTotalFreeBlkNum + stSeg.ulTotalAllocBlkNum == stSeg.ulTotalBlkNum;
}

#endif
