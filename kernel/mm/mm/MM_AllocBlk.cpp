/*
 * MM_AllocBlk - the allocators: runs of blocks from the free list, first fit from the top of the
 * segment; and the push of a stack segment.
 */
#include "MM_List.h"
#include "MM_Lock.h"
#include "MM_Map.h"
#include "MM_Memory.h"
#include "MM_RunIndex.h"
#include "MM_Stack.h"

namespace {

/* The highest-addressed run, from pstTail down, of at least ulReqBlkNum blocks; null when there is none. The
 * reference for what the index answers. */
TMMBlkStr* WalkToRun(TMMBlkStr* pstTail, U32 ulReqBlkNum)
{
    for (TMMBlkStr* pstRun = pstTail; pstRun != nullptr; pstRun = MM_Back(pstRun))
        if (static_cast<S32>(MM_Size(pstRun) - ulReqBlkNum) >= 0)
            return pstRun;
    return nullptr;
}

TMMBlkStr* FindRun(TMMRunIndex& stIndex, U32 hulHandle, U32 ulReqBlkNum)
{
    if (stIndex.enState == INDEX_AWAKE) {
        TMMBlkStr* const pstRun = stIndex.clTables.Find(ulReqBlkNum);
        if (pstRun != MM_UnknownRun())
            return pstRun;
        MM_SetIndexState(stIndex, INDEX_NONE);
    }
    return WalkToRun(astBlkTail[hulHandle].pstBlk, ulReqBlkNum);
}

/* Takes blocks off the high end of a run, so that the header of what remains never moves. */
TMMBlkStr* CutRun(TMMRunIndex& stIndex, U32 hulHandle, TMMBlkStr* pstRun, U32 ulReqBlkNum)
{
    const U32 ulSize = MM_Size(pstRun);
    const U32 ulRest = ulSize - ulReqBlkNum;
    if (ulRest == 0) {
        TMMBlkStr* const pstLower = MM_Back(pstRun);
        MM_Unlink(TMMRunList{hulHandle}, pstRun);
        MM_RunRemoved(stIndex, pstRun, ulSize, pstLower);
        return pstRun;
    }
    MM_SetSize(pstRun, ulRest);
    MM_RunShrunk(stIndex, pstRun, ulSize);
    return MM_At<TMMBlkStr>(MM_Addr(pstRun) + MM_BlkToBytes(ulRest, stSegTable[hulHandle].ubBlkBit));
}

TMMBlkStr* MM_SearchBlock(U32 hulHandle, U32 ulReqBlkNum, U8 ubMapID)
{
    TMMSegInfo& stSeg = stSegTable[hulHandle];

    if (stSeg.ulTotalFreeBlkNum == 0)
        return nullptr;
    const bool fLocked = MM_LockSegment(hulHandle, search_lock);

    TMMRunIndex& stIndex = MM_OpenRunIndex(hulHandle);
    TMMBlkStr* const pstRun = FindRun(stIndex, hulHandle, ulReqBlkNum);
    if (pstRun == nullptr) {
        MM_UnlockSegment(fLocked, search_lock);
        return nullptr;
    }

    TMMBlkStr* const pstResult = CutRun(stIndex, hulHandle, pstRun, ulReqBlkNum);
    MM_CheckRunIndex(hulHandle);
    if (stSeg.stInfoFromApp.ubMap != 0 && ubMapID != 0)
        MM_SetMap(hulHandle, reinterpret_cast<U8*>(pstResult), ulReqBlkNum, ubMapID);
    stSeg.ulTotalFreeBlkNum -= ulReqBlkNum;
    stSeg.ulTotalAllocBlkNum += ulReqBlkNum;
    stSeg.ulLargestBlkSize = MM_LargestFree(hulHandle);

    if (fLocked && !MM_CountersAgree(hulHandle))
        MM_TraceMST(hulHandle);
    MM_UnlockSegment(fLocked, search_lock);
    return pstResult;
}

} // namespace

U8* MM_AllocBlk(U32 hulHandle, U32 ulReqBlkNum, U8 ubMapID)
{
    if constexpr (MM_Guarded)
        return MM_GuardedAllocBlk(hulHandle, ulReqBlkNum, ubMapID);
    bool fRetry = stSegTable[hulHandle].ulLargestBlkSize >= ulReqBlkNum; /* INTENDED(second-attempt): one, no loop */

    for (;; fRetry = false) {
        TMMBlkStr* const pstRun = MM_SearchBlock(hulHandle, ulReqBlkNum, ubMapID);
        if (pstRun != nullptr || !fRetry)
            return reinterpret_cast<U8*>(pstRun);
    }
}

/* INTENDED(owner-ored-in): the ID is added to what the entry holds; one that is wider spills into the next entries. */
void MM_SetMap(U32 hulHandle, U8* pubBlkTmp, U32 ulReqBlkNum, U8 ubMapID)
{
    const TMMRange stRange = MM_RangeOf(hulHandle, pubBlkTmp);
    CMMMapWalker clWalker = MM_WalkMap(hulHandle, stRange, pubBlkTmp);
    const U32 ulFirst = MM_Addr(clWalker.Byte());

    for (U32 ulLeft = ulReqBlkNum; ulLeft > 0;) {
        const U32 ulWhole = clWalker.WholeBytes(ulLeft);
        if (ulWhole > 0) {
            MM_OrBytes(clWalker.FirstWholeByte(), ulWhole,
                       MM_ByteOf(ubMapID, stSegTable[hulHandle].stInfoFromApp.ubMap));
            ulLeft -= clWalker.SkipBytes(ulWhole);
            continue;
        }
        clWalker.NextByte();
        clWalker.NextEntry();
        MMP_Touch(clWalker.Byte(), 1);
        *clWalker.Byte() = static_cast<U8>(*clWalker.Byte() | (ubMapID << clWalker.BitPos()));
        --ulLeft;
    }
    MM_MapWritten(stRange, ulFirst, MM_Addr(clWalker.Byte()));
}

U32 MM_SearchMap(U8* pubCurrentAddr, U8* pubEndAddr, U8 ubBlkBit)
{
    return MM_BlkDistance(MM_Addr(pubCurrentAddr), MM_Addr(pubEndAddr), ubBlkBit);
}

U8 MM_GetHeapBlkID(U8* pubReqAddr)
{
    return MM_FindPiece(MM_Addr(pubReqAddr));
}

U8* MM_Push(U32 hulHandle, U32 ulReqBlkNum, U8)
{
    if constexpr (MM_Guarded)
        return MM_GuardedPush(hulHandle, ulReqBlkNum);
    TMMSegInfo& stSeg = stSegTable[hulHandle];
    TStackStr& stStack = astStackStr[hulHandle];
    const bool fLocked = MM_LockSegment(hulHandle, push_lock);

    const U32 ulBytes = MM_BlkToBytes(ulReqBlkNum, stSeg.ubBlkBit);
    const U32 ulRounded = MM_StackBytes(ulBytes);
    if (ulRounded != ulBytes)
        MMP_Print("\r\n[MM] H(%d) Push Bef (%d) after(%d)", static_cast<S32>(hulHandle), static_cast<S32>(ulBytes),
                  static_cast<S32>(ulRounded));
    if (stSeg.ulLargestBlkSize < ulReqBlkNum) {
        MM_UnlockSegment(fLocked, push_lock);
        return nullptr;
    }

    stSeg.ulTotalAllocBlkNum += ulReqBlkNum;
    stSeg.ulTotalFreeBlkNum -= ulReqBlkNum;
    stStack.pubStackHead = MM_At(MM_Addr(stStack.pubStackHead) - ulRounded);
    stSeg.ulLargestBlkSize = MM_FindNewLargestBlk(hulHandle);

    if (fLocked && !MM_CountersAgree(hulHandle))
        MM_TraceMST(hulHandle);
    MM_UnlockSegment(fLocked, push_lock);
    return stStack.pubStackHead;
}
