/*
 * MM_MST - placement: where in the managed area a new segment lies, and taking that memory out of the
 * free-memory list. No lock: segments are created one at a time.
 */
#include "MM_List.h"
#include "MM_Memory.h"

TMMSegInfo stSegTable[MAX_SEGTABLE_SIZE];
TMMBlkStr* pstSegBlkHead;
TMMBlkStr* pstSegBlkTail;
TMMBlkStr* pstHEAPBiggestBlk;
THeapAddrRange stSegStartAddr, stSegEndAddr, stSegMapStartAddr, stSegMapEndAddr;

namespace {

/* INTENDED(two-thresholds): a free node of up to 128 bytes does not become a piece of the heap; a remainder of up to
 * 130 bytes is not kept as a free node. */
constexpr U32 MAX_SMALL_NODE = 128;
constexpr U32 MAX_LOST_REMAINDER = 130;

constexpr TMMFreeMemoryList stFreeMemory;

/* Takes ulNewSegSize bytes off the front of a node; what remains takes the node's place. */
U32 CutFront(TMMBlkStr* pstSegBlk, U32 ulNewSegSize)
{
    TMMNode stNode = MM_ReadNode(pstSegBlk);
    TMMBlkStr* pstRemainder = MM_At<TMMBlkStr>(MM_Addr(pstSegBlk) + ulNewSegSize);

    stNode.ulSize -= ulNewSegSize;
    if (stNode.ulSize <= MAX_LOST_REMAINDER) {
        MM_Unlink(stFreeMemory, pstSegBlk);
        return ENOERR;
    }
    if (static_cast<S32>(stNode.ulSize) < 0)
        MM_ASSERT_FOR("MM_RearrangeSegList", 0, EASSERT);
    MM_WriteNode(pstRemainder, stNode);
    MM_Repoint(stFreeMemory, pstSegBlk, stNode, pstRemainder);
    return ENOERR;
}

/* Takes [pubNewStartAddr, + ulNewSegSize) out of the inside of a node. The node keeps the gap in front,
 * whatever its size. */
U32 CutInside(TMMBlkStr* pstSegBlk, U32 ulNewSegSize, U8* pubNewStartAddr)
{
    const U8* pubSegEndAddr = MM_At(MM_Addr(pstSegBlk) + MM_Size(pstSegBlk));
    const U8* pubNewEndAddr = MM_At(MM_Addr(pubNewStartAddr) + ulNewSegSize);
    const U32 ulRemainder = MM_Addr(pubSegEndAddr) - MM_Addr(pubNewEndAddr);

    MM_SetSize(pstSegBlk, MM_Addr(pubNewStartAddr) - MM_Addr(pstSegBlk));
    MM_ASSERT_FOR("MM_RearrangeSegList", pubNewEndAddr <= pubSegEndAddr, EASSERT);
    if (ulRemainder > MAX_LOST_REMAINDER)
        MM_InsertAfter(stFreeMemory, pstSegBlk, MM_At<TMMBlkStr>(MM_Addr(pubNewEndAddr)), ulRemainder);
    return ENOERR;
}

void SetPlace(TMMSegInfo* pstSegInfo, U32 ulStartAddr, U32 ulSize)
{
    pstSegInfo->pubStartAddr = MM_At(ulStartAddr);
    pstSegInfo->pubEndAddr = MM_At(ulStartAddr + ulSize);
    pstSegInfo->stInfoFromApp.ulSegSize = ulSize;
    pstSegInfo->stInfoFromApp.ulRetSegSize = ulSize;
}

/* INTENDED(exact-fit): a node of exactly the size is not taken; at least one byte is left over. */
bool FitsLoosely(const TMMBlkStr* pstBlk, U32 ulSize)
{
    return static_cast<S32>(MM_Size(pstBlk) - ulSize) > 0;
}

U32 PlaceFixed(TMMSegInfo* pstSegInfo)
{
    TSegRange stSegRange;

    if (MM_ReadSegOnMCT(pstSegInfo->stInfoFromApp.aubSegID, &stSegRange) != ENOERR)
        return EERR;
    SetPlace(pstSegInfo, MM_Addr(stSegRange.pubStartAddr), stSegRange.ulRetSegSize);

    /* INTENDED(start-line-twice): both ends print the start's line. EOUTOFRANGE is left for memory that changes between
     * the two tests. */
    constexpr char acFormat[] = "%s: *pubSegMemStartAddr 0x%x <= (int)(pstSegInfo->pubStartAddr) 0x%x\n";
    if (*pubSegMemStartAddr > MM_Addr(pstSegInfo->pubStartAddr)) {
        MMP_Print(acFormat, "MM_InstallSegment", *pubSegMemStartAddr, MM_Addr(pstSegInfo->pubStartAddr));
        MM_ASSERT_FOR("MM_InstallSegment", (*pubSegMemStartAddr <= (int)(pstSegInfo->pubStartAddr)) && "Overflow occurs! Interrupt Total Mem range", /* GCOVR_EXCL_BR_LINE: as the return that follows */
                  EASSERT);
        return EOUTOFRANGE; /* GCOVR_EXCL_LINE: unchanged memory fails the check before */
    }
    if (*pubSegMemEndAddr < MM_Addr(pstSegInfo->pubEndAddr)) {
        MMP_Print(acFormat, "MM_InstallSegment", *pubSegMemStartAddr, MM_Addr(pstSegInfo->pubStartAddr));
        MM_ASSERT_FOR("MM_InstallSegment", (*pubSegMemEndAddr >= (int)(pstSegInfo->pubEndAddr)) && "Overflow occurs! Interrupt Total Mem range", /* GCOVR_EXCL_BR_LINE: as the return that follows */
                  EASSERT);
        return EOUTOFRANGE; /* GCOVR_EXCL_LINE: unchanged memory fails the check before */
    }
    return ENOERR;
}

U32 PlaceFloat(TMMSegInfo* pstSegInfo)
{
    MM_ASSERT_FOR("MM_InstallSegment", pstSegBlkHead != NULL && "There is no available Segment list", EASSERT);
    MM_ASSERT_FOR("MM_InstallSegment", pstSegBlkTail != NULL && "There is no available Segment list", EASSERT);

    const U32 ulNewSegSize = (pstSegInfo->stInfoFromApp.ulSegSize + 3) & ~3u;
    if (pstSegInfo->stInfoFromApp.ubSegDSType == LINKEDLIST) {
        MM_ASSERT_FOR("MM_InstallSegment", ulNewSegSize >= HEAP_BLOCK_SIZE, EASSERT);
        MM_ASSERT_FOR("MM_InstallSegment", ulNewSegSize >= 2* pstSegInfo->stInfoFromApp.ulBlkSize, EASSERT);
    }

    TMMBlkStr* pstBestFitBlk =
        MM_BestFit(pstSegBlkHead, [=](const TMMBlkStr* pstBlk) { return FitsLoosely(pstBlk, ulNewSegSize); });
    MM_ASSERT_FOR("MM_InstallSegment", pstBestFitBlk != NULL && "There is no available Segment Block", EASSERT);

    /* INTENDED(cut-result): a list that could not be cut is on the log only, here and below, and the segment stays
     * as placed. */
    MM_RearrangeSegList(FLOAT, pstBestFitBlk, ulNewSegSize, nullptr);
    SetPlace(pstSegInfo, MM_Addr(pstBestFitBlk), ulNewSegSize);
    MM_ASSERT_FOR("MM_InstallSegment", (*pubSegMemStartAddr <= (unsigned int)(pstSegInfo->pubStartAddr)) && "Overflow occurs! Interrupt Total Mem range",
              EASSERT);
    MM_ASSERT_FOR("MM_InstallSegment", (*pubSegMemEndAddr >= (unsigned int)(pstSegInfo->pubEndAddr)) && "Overflow occurs! Interrupt Total Mem range",
              EASSERT);
    return ENOERR;
}

U32 PlaceAligned(TMMSegInfo* pstSegInfo)
{
    MM_ASSERT_FOR("MM_InstallSegment", pstSegBlkHead != NULL && "There is no available Segment list", EASSERT);
    MM_ASSERT_FOR("MM_InstallSegment", pstSegBlkTail != NULL && "There is no available Segment list", EASSERT);

    const U32 ulNewSegSize = pstSegInfo->stInfoFromApp.ulSegSize;
    const U32 ulBlkSize = pstSegInfo->stInfoFromApp.ulBlkSize;
    const auto AlignedAddr = [=](const TMMBlkStr* pstBlk) {
        const U32 ulAddr = MM_Addr(pstBlk);
        return (ulAddr & (ulBlkSize - 1)) == 0 ? ulAddr : (ulAddr + ulBlkSize) & (0 - ulBlkSize);
    };

    TMMBlkStr* pstBestFitBlk = MM_BestFit(pstSegBlkHead, [=](const TMMBlkStr* pstBlk) {
        return FitsLoosely(pstBlk, ulNewSegSize) &&
               MM_Addr(pstBlk) + MM_Size(pstBlk) > AlignedAddr(pstBlk) + ulNewSegSize;
    });
    MM_ASSERT_FOR("MM_InstallSegment", pstBestFitBlk != NULL && "There is no available Segment Block", EASSERT);

    const U32 pubAlignedAddr = AlignedAddr(pstBestFitBlk);
    MM_ASSERT_FOR("MM_InstallSegment", (U32)((U32)pstBestFitBlk + pstBestFitBlk->ulSize) >= (U32)(pubAlignedAddr + ulNewSegSize), EASSERT); /* GCOVR_EXCL_BR_LINE: the search has compared the same sums */

    MM_RearrangeSegList(FLOATALIGN, pstBestFitBlk, ulNewSegSize, MM_At(pubAlignedAddr));
    SetPlace(pstSegInfo, pubAlignedAddr, ulNewSegSize);
    return ENOERR;
}

U32 PlaceHeap(TMMSegInfo* pstSegInfo)
{
    MM_ASSERT_FOR("MM_InstallSegment", pstSegBlkHead != NULL && "There is no available Segment list", EASSERT);
    MM_ASSERT_FOR("MM_InstallSegment", pstSegBlkTail != NULL && "There is no available Segment list", EASSERT);

    THeapAddrRange stUnused;
    for (U32& ulAddr : stUnused.aulHeapAddr)
        ulAddr = MM_UNUSED_PIECE;
    stSegStartAddr = stSegEndAddr = stSegMapStartAddr = stSegMapEndAddr = stUnused;
    pstHEAPBiggestBlk = pstSegBlkHead;

    U8 ubPieces = 0;
    U32 ulSegSize = 0;
    TMMBlkStr* pstTempBlk = pstSegBlkHead;
    while (pstTempBlk != nullptr && ubPieces < MAX_PIECE_NUM) {
        const U32 ulSize = MM_Size(pstTempBlk);
        TMMBlkStr* const pstNext = MM_Next(pstTempBlk);
        if (ulSize <= MAX_SMALL_NODE) {
            MM_Unlink(TMMFreeMemoryLinks(), pstTempBlk);
        } else {
            stSegStartAddr.aulHeapAddr[ubPieces] = MM_Addr(pstTempBlk);
            stSegEndAddr.aulHeapAddr[ubPieces] = MM_Addr(pstTempBlk) + ulSize;
            ulSegSize += ulSize;
            ++ubPieces;
        }
        pstTempBlk = pstNext;
    }
    pstSegInfo->stInfoFromApp.ulSegSize = ulSegSize;
    MM_ASSERT_FOR("MM_InstallSegment", pstTempBlk == NULL && "MAX_PIECE_NUM is not enough.", EASSERT);

    pstSegInfo->pubStartAddr = reinterpret_cast<U8*>(&stSegStartAddr);
    pstSegInfo->pubEndAddr = reinterpret_cast<U8*>(&stSegEndAddr);
    pstSegInfo->pubMapStartAddr = reinterpret_cast<U8*>(&stSegMapStartAddr);
    pstSegInfo->pubMapEndAddr = reinterpret_cast<U8*>(&stSegMapEndAddr);
    pstSegInfo->stInfoFromApp.ulRetSegSize = ulSegSize;

    for (U8 ubIdx = 0; ubIdx < ubPieces; ++ubIdx) {
        if (*pubSegMemStartAddr > stSegStartAddr.aulHeapAddr[ubIdx]) {
            MMP_Print("%s: (U32)pubSegMemStartAddr %x, stSegStartAddr.aulHeapAddr[%d] %x\n", "MM_InstallSegment",
                      *pubSegMemStartAddr, ubIdx, stSegStartAddr.aulHeapAddr[ubIdx]);
            MM_ASSERT_FOR("MM_InstallSegment", ((U32)*pubSegMemStartAddr <= stSegStartAddr.aulHeapAddr[ubIdx]) && "Overflow occurs! Interrupt Total Mem range", /* GCOVR_EXCL_BR_LINE: as the return that follows */
                      EASSERT);
            return EOUTOFRANGE; /* GCOVR_EXCL_LINE: unchanged memory fails the check before */
        }
        if (*pubSegMemEndAddr < stSegEndAddr.aulHeapAddr[ubIdx]) {
            MMP_Print("%s: (U32)*pubSegMemEndAddr %x, stSegEndAddr.aulHeapAddr[%d] %x\n", "MM_InstallSegment",
                      *pubSegMemEndAddr, ubIdx, stSegEndAddr.aulHeapAddr[ubIdx]);
            MM_ASSERT_FOR("MM_InstallSegment", ((U32)*pubSegMemEndAddr >= stSegEndAddr.aulHeapAddr[ubIdx]) && "Overflow occurs! Interrupt Total Mem range", /* GCOVR_EXCL_BR_LINE: as the return that follows */
                      EASSERT);
            return EOUTOFRANGE; /* GCOVR_EXCL_LINE: unchanged memory fails the check before */
        }
    }
    return ENOERR;
}

} // namespace

U32 MM_RearrangeSegList(U8 ubType, TMMBlkStr* pstSegBlk, U32 ulNewSegSize, U8* pubAlignAddr)
{
    U32 ulResult = ENOERR;
    if (ubType == FLOATALIGN && MM_Addr(pubAlignAddr) != MM_Addr(pstSegBlk))
        ulResult = CutInside(pstSegBlk, ulNewSegSize, pubAlignAddr);
    else if (ubType == FLOAT || ubType == FLOATALIGN)
        ulResult = CutFront(pstSegBlk, ulNewSegSize);
    MM_RecheckRunIndexes();
    return ulResult;
}

U32 MM_InstallSegment(TMMSegInfo* pstSegInfo)
{
    const U8 ubType = pstSegInfo->stInfoFromApp.ubType;
    U32 ulResult = ENOERR;

    if (pstSegInfo->stInfoFromApp.hulHandle == HEAPHANDLE && ubType <= FLOATALIGN)
        ulResult = PlaceHeap(pstSegInfo);
    else if (ubType == FLOAT)
        ulResult = PlaceFloat(pstSegInfo);
    else if (ubType == FIXED)
        ulResult = PlaceFixed(pstSegInfo);
    else if (ubType == FLOATALIGN)
        ulResult = PlaceAligned(pstSegInfo);
    if (ulResult != ENOERR) {
        MM_RecheckRunIndexes(); /* the list may have been cut all the same */
        return ulResult;
    }
    MM_SegInitial(pstSegInfo); /* INTENDED(start-result): on the log only; the segment stays as far as it was written */
    return ENOERR;
}
