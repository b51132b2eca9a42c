/*
 * MM_FreeBlk - the release routines: runs of blocks back into the free list, their owners out of the map,
 * all runs of one owner; and the pop of a stack segment.
 *
 * INTENDED(lock-stays-held): a failed check in MM_FreeBlk and MM_Pop returns with the lock held and interrupts off,
 * and undoes nothing. The controller stops at the first broken release.
 */
#include "MM_List.h"
#include "MM_Lock.h"
#include "MM_Map.h"
#include "MM_Memory.h"
#include "MM_RunIndex.h"
#include "MM_Stack.h"

/* INTENDED(mask-table): 0x70 stands in the row; no width reads it. */
const U8 aubMapIDMaskTbl[8] = {0x01, 0x03, 0x07, 0x0F, 0x1F, 0x3F, 0x70, 0xFF};
const U8 aubBitMaskTbl[8] = {0x01, 0x02, 0x04, 0x08, 0x10, 0x20, 0x40, 0x80};

namespace {

/* Checks that the address lies in the segment, whose range for it is stRange. */
U32 CheckRange(U32 hulHandle, const TMMRange& stRange, const U8* pubRlsAddr)
{
    if (hulHandle == HEAPHANDLE) {
        const U8 ubFindRange = MM_Addr(stRange.pubEndAddr) != MM_UNUSED_PIECE ? 1 : 0;
        MM_ASSERT_FOR("MM_FreeBlk", ubFindRange == 1 && "Free Request is over the available Range of Segment", EASSERT);
        return ENOERR;
    }
    MM_ASSERT_FOR("MM_FreeBlk", (pubRlsAddr >= stSegTable[hulHandle].pubStartAddr) && "Free Request is over the available Range of Segment",
                  EASSERT);
    MM_ASSERT_FOR("MM_FreeBlk", (pubRlsAddr < stSegTable[hulHandle].pubEndAddr) && "Free Request is over the available Range of Segment",
                  EASSERT);
    return ENOERR;
}

/* The runs on either side of an address, by walking down from the tail: the reference for what the index answers. */
TMMNeighbours WalkToNeighbours(U32 hulHandle, U32 ulAddr)
{
    TMMBlkStr* pstUpper = nullptr;
    TMMBlkStr* pstLower = astBlkTail[hulHandle].pstBlk;
    while (pstLower != nullptr && MM_Addr(pstLower) > ulAddr) {
        pstUpper = pstLower;
        pstLower = MM_Back(pstUpper);
    }
    return {pstLower, pstUpper};
}

TMMNeighbours FindNeighbours(TMMRunIndex& stIndex, U32 hulHandle, U32 ulAddr, U32 ulBlkNo)
{
    if (stIndex.enState == INDEX_AWAKE) {
        const TMMNeighbours stNeighbours = stIndex.clTables.Neighbours(TMMRunList{hulHandle}, ulAddr, ulBlkNo);
        if (stNeighbours.pstLower != MM_UnknownRun())
            return stNeighbours;
        MM_SetIndexState(stIndex, INDEX_NONE);
    }
    return WalkToNeighbours(hulHandle, ulAddr);
}

/* Links a released run into the list and merges it with the neighbours that it touches. Only a run that
 * starts at a free run's first address counts as released before. The order of the writes matters where
 * blocks are smaller than a node. */
U32 InsertRun(U32 hulHandle, U8* pubRlsAddr, U32 ulBlkNo)
{
    const TMMRunList stList{hulHandle};
    const U8 ubBlkBit = stSegTable[hulHandle].ubBlkBit;
    TMMBcptr stBlkPtr, stTemp;
    stBlkPtr.pubyiscp = pubRlsAddr;
    TMMBlkStr* const pstNew = stBlkPtr.pstBlk;
    TMMRunIndex& stIndex = MM_OpenRunIndex(hulHandle);
    const TMMNeighbours stNeighbours = FindNeighbours(stIndex, hulHandle, stBlkPtr.ulyisl, ulBlkNo);
    TMMBlkStr* const pstUpper = stNeighbours.pstUpper;
    U32 ulSize = ulBlkNo;
    U32 ulUpperSize = 0; /* of the upper neighbour, when it is absorbed */

    stTemp.pstBlk = stNeighbours.pstLower;
    MM_ASSERT_FOR("MM_FreeBlk", (U32)stTemp.pstBlk != stBlkPtr.ulyisl && "Already Freed Block is requested!!", EASSERT);

    MM_SetBack(pstNew, stTemp.pstBlk);
    if (pstUpper == nullptr)
        MM_SetNext(pstNew, nullptr);
    if (stTemp.pstBlk == nullptr)
        stList.Head() = pstNew;
    else
        MM_SetNext(stTemp.pstBlk, pstNew);

    if (pstUpper == nullptr) {
        stList.Tail() = pstNew;
    } else if (stBlkPtr.ulyisl + MM_BlkToBytes(ulBlkNo, ubBlkBit) == MM_Addr(pstUpper)) {
        ulUpperSize = MM_Size(pstUpper);
        ulSize += ulUpperSize;
        MM_SetNext(pstNew, MM_Next(pstUpper));
        if (MM_Next(pstNew) == nullptr)
            stList.Tail() = pstNew;
        else
            MM_SetBack(MM_Next(pstNew), pstNew);
    } else {
        MM_SetBack(pstUpper, pstNew);
        MM_SetNext(pstNew, pstUpper);
    }
    MM_SetSize(pstNew, ulSize);

    TMMBlkStr* const pstLower = MM_Back(pstNew);
    const bool fAbsorbed = pstLower != nullptr && MM_RunEnd(pstLower, ubBlkBit) == stBlkPtr.ulyisl;
    if (fAbsorbed) {
        MM_SetSize(pstLower, MM_Size(pstLower) + ulSize);
        MM_SetNext(pstLower, MM_Next(pstNew));
        if (MM_Next(pstNew) == nullptr)
            stList.Tail() = pstLower;
        else
            MM_SetBack(MM_Next(pstNew), pstLower);
    }

    if (fAbsorbed) {
        MM_RunGrown(stIndex, pstLower);
        if (ulUpperSize != 0)
            MM_RunRemoved(stIndex, pstUpper, ulUpperSize, pstLower);
    } else if (ulUpperSize != 0) {
        MM_RunMoved(stIndex, pstNew, pstUpper, ulUpperSize);
    } else {
        MM_RunAdded(stIndex, pstNew);
    }
    return ENOERR;
}

/* Erases the owner of ulBlkNo blocks of the range that holds them. */
U32 ClearEntries(U32 hulHandle, const TMMRange& stRange, U8* pubRlsAddr, U32 ulBlkNo)
{
    const U8* pubMapStartAddr = stRange.pubMapStartAddr;
    const U8* pubMapEndAddr = stRange.pubMapEndAddr;
    const U8 ubMap = stSegTable[hulHandle].stInfoFromApp.ubMap;
    CMMMapWalker clWalker = MM_WalkMap(hulHandle, stRange, pubRlsAddr);
    TMMBcptr stTempBlk;

    stTempBlk.pubyiscp = clWalker.Byte();
    MM_ASSERT_FOR("MM_ClearMap", stTempBlk.pubyiscp >= pubMapStartAddr, EASSERT);
    MM_ASSERT_FOR("MM_ClearMap", stTempBlk.pubyiscp < pubMapEndAddr, EASSERT);

    for (U32 ulLeft = ulBlkNo; ulLeft > 0; --ulLeft) {
        const U32 ulInMap = MM_Addr(pubMapEndAddr) - MM_Addr(clWalker.FirstWholeByte());
        const U32 ulWhole = clWalker.WholeBytes(ulLeft) < ulInMap ? clWalker.WholeBytes(ulLeft) : ulInMap;
        if (ulWhole > 0 && clWalker.Byte() < pubMapEndAddr) {
            ulLeft -= clWalker.SkipBytes(MM_ClearMarkedBytes(clWalker.FirstWholeByte(), ulWhole, ubMap));
            if (ulLeft == 0)
                break;
        }
        if (clWalker.NextByte()) {
            stTempBlk.pubyiscp = clWalker.Byte();
            MM_ASSERT_FOR("MM_ClearMap", stTempBlk.pubyiscp <= pubMapEndAddr, EASSERT);
            /* INTENDED(byte-past-the-map): the end itself still passes, a byte of the first block. */
            if (stTempBlk.pubyiscp == pubMapEndAddr)
                MM_MemoryWritten(stTempBlk.ulyisl, 1);
        }
        clWalker.NextEntry();
        const U8 ubBitMask = clWalker.EntryMask();
        MMP_Touch(stTempBlk.pubyiscp, 1);
        if (ubMap > 1) /* INTENDED(one-bit-second-release): one-bit maps are not checked */
            MM_ASSERT_FOR("MM_ClearMap", ((*(stTempBlk.pubyiscp) & ubBitMask ) != 0) && "This bit is already freed!!", EASSERT);
        *stTempBlk.pubyiscp = static_cast<U8>(*stTempBlk.pubyiscp & ~ubBitMask);
    }
    return ENOERR;
}

/* Releases the runs of one owner that the map of one range records.
 * INTENDED(owner-contained): an entry matches when it holds all bits of the ID, whatever else it holds.
 * INTENDED(run-at-the-maps-start): a run that reaches the map's start is not released. */
void CleanUpRange(U32 hulHandle, U8 ubMapID, const TMMRange& stRange)
{
    const U8 ubWidth = stSegTable[hulHandle].stInfoFromApp.ubMap;
    const U8 ubBlkBit = stSegTable[hulHandle].ubBlkBit;
    const U32 ulByteEntries = 8 / ubWidth;
    const U8 ubOwned = MM_ByteOf(ubMapID, ubWidth);
    const bool fFits = ubMapID >> ubWidth == 0; /* a wider ID reaches into the entries above, not past their byte */
    U32 ulEntry = 0;                            /* counted from the map's end */
    U32 ulRun = 0;

    for (U8* pubByte = stRange.pubMapEndAddr; pubByte > stRange.pubMapStartAddr;) {
        --pubByte;
        MMP_Touch(pubByte, 1);
        if (*pubByte == 0 && ulRun == 0 && ubMapID != 0) { /* nobody's */
            ulEntry += ulByteEntries;
            continue;
        }
        if (fFits && (*pubByte & ubOwned) == ubOwned) { /* all the owner's */
            ulEntry += ulByteEntries;
            ulRun += ulByteEntries;
            continue;
        }
        for (U8 ubBitPos = 0; ubBitPos < 8; ubBitPos = static_cast<U8>(ubBitPos + ubWidth), ++ulEntry) {
            const U32 ulWanted = static_cast<U32>(ubMapID) << ubBitPos;
            if ((*pubByte & ulWanted) == ulWanted) {
                ++ulRun;
            } else if (ulRun > 0) {
                MM_FreeBlk(hulHandle, MM_At(MM_Addr(stRange.pubEndAddr) - MM_BlkToBytes(ulEntry, ubBlkBit)), ulRun);
                ulRun = 0;
            }
        }
    }
}

/* The end of both releases: the largest run, the counters, the lock. */
[[gnu::always_inline]] inline U32 FinishRelease(const char* pcEntry, U32 hulHandle, bool fLocked, TMMLock enLock)
{
    stSegTable[hulHandle].ulLargestBlkSize = MM_LargestFree(hulHandle);
    MM_ASSERT_FOR(pcEntry, (stSegTable[hulHandle].ulLargestBlkSize >= 0) && (stSegTable[hulHandle].ulLargestBlkSize <= stSegTable[hulHandle].ulTotalFreeBlkNum),
                  EASSERT);
    if (fLocked && !MM_CountersAgree(hulHandle)) {
        MM_TraceMST(hulHandle);
        MM_ASSERT_FOR(pcEntry, ((stSegTable[hulHandle].ulTotalFreeBlkNum + stSegTable[hulHandle].ulTotalAllocBlkNum) == stSegTable[hulHandle].ulTotalBlkNum) && "Total Blk Number is Wrong!!", /* GCOVR_EXCL_BR_LINE: the counters do not agree here, so the check always fails */
                      EASSERT);
    }
    MM_UnlockSegment(fLocked, enLock);
    return ENOERR;
}

} // namespace

U32 MM_FreeBlk(U32 hulHandle, U8* pubRlsAddr, U32 ulBlkNo)
{
    if constexpr (MM_Guarded)
        return MM_GuardedFreeBlk(hulHandle, pubRlsAddr, ulBlkNo);
    TMMSegInfo& stSeg = stSegTable[hulHandle];
    const bool fLocked = MM_LockSegment(hulHandle, free_lock);

    const TMMRange stRange = MM_RangeOf(hulHandle, pubRlsAddr);
    if (CheckRange(hulHandle, stRange, pubRlsAddr) != ENOERR)
        return EASSERT;
    MM_ASSERT((ulBlkNo > 0) && "Requested Block Number is invalid", EASSERT);
    if (stSeg.stInfoFromApp.ubMap != 0) /* INTENDED(map-disagrees): reported, and the release goes on */
        ClearEntries(hulHandle, stRange, pubRlsAddr, ulBlkNo);
    if (InsertRun(hulHandle, pubRlsAddr, ulBlkNo) != ENOERR)
        return EASSERT;

    MM_CheckRunIndex(hulHandle);
    stSeg.ulTotalAllocBlkNum -= ulBlkNo;
    MM_ASSERT((S32)stSegTable[hulHandle].ulTotalAllocBlkNum >= 0 && "Allocating Block number is turned to minus", EASSERT);
    stSeg.ulTotalFreeBlkNum += ulBlkNo;
    return FinishRelease("MM_FreeBlk", hulHandle, fLocked, free_lock);
}

U32 MM_ClearMap(U32 hulHandle, U8* pubRlsAddr, U32 ulBlkNo)
{
    return ClearEntries(hulHandle, MM_RangeOf(hulHandle, pubRlsAddr), pubRlsAddr, ulBlkNo);
}

void MM_CleanUp(U32 hulHandle, U8 ubMapID)
{
    if constexpr (MM_Guarded)
        return MM_GuardedCleanUp(hulHandle, ubMapID);
    if (stSegTable[hulHandle].stInfoFromApp.ubMap == 0)
        return;
    if (hulHandle != HEAPHANDLE) {
        CleanUpRange(hulHandle, ubMapID, MM_RangeOf(hulHandle, nullptr));
        return;
    }
    for (U8 ubIdx = 0; MM_PieceAddr(PIECE_MAP_START, ubIdx) != MM_UNUSED_PIECE; ++ubIdx)
        CleanUpRange(hulHandle, ubMapID, MM_PieceRange(ubIdx));
}

U32 MM_Pop(U32 hulHandle, U8* pubRlsAddr, U32 ulBlkNo)
{
    if constexpr (MM_Guarded)
        return MM_GuardedPop(hulHandle, pubRlsAddr, ulBlkNo);
    TMMSegInfo& stSeg = stSegTable[hulHandle];
    const bool fLocked = MM_LockSegment(hulHandle, pop_lock);
    const U32 ulBytes = MM_StackBytes(MM_BlkToBytes(ulBlkNo, stSeg.ubBlkBit));

    MM_ASSERT((ulBlkNo > 0) && "Requested Block Size is invalid", EASSERT);
    MM_ASSERT((pubRlsAddr == astStackStr[hulHandle].pubStackHead) && "Already Freed Address is requested!", EASSERT);
    /* INTENDED(stack-head-first): stored before the next check. */
    astStackStr[hulHandle].pubStackHead = MM_At(MM_Addr(pubRlsAddr) + ulBytes);
    MM_ASSERT(((astStackStr[hulHandle].pubStackHead) <= (stSegTable[hulHandle].pubEndAddr)) && "Interrupt an another Segment",
              EASSERT);

    stSeg.ulTotalAllocBlkNum -= ulBlkNo;
    stSeg.ulTotalFreeBlkNum += ulBlkNo;
    return FinishRelease("MM_Pop", hulHandle, fLocked, pop_lock);
}
