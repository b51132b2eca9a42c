/*
 * MM_GuardRules - what the guarded build lets through, as far as arguments and tables in kernel memory tell; and the line of
 * everything that it does not.
 */
#include "../mm/MM_Heap.h"
#include "MM_Guard.h"

namespace {

constexpr const char* apcReason[REASON_NUM] = {
    "the blocks are not allocated, not whole, or not the segment's",
    "an allocation asks for no blocks",
    "the owner does not fit the map's entries",
    "the claim does not lie inside one free run",
    "this is not what was pushed last",
    "there is no such handle",
    "the heap's blocks are smaller than the segment's",
    "the segment cannot be laid out like this",
    "no kernel memory for the segment's bits",
    "a command that comes first has not been given",
    "another descriptor is open, or blocks are allocated",
    "there is no such option",
    "the fill leaves allocated blocks and fixed segments",
    "the mapping leaves the managed area",
    "the area is no stretch of RAM, or too small",
    "the fixed segment leaves the area or overlaps another one",
    "this entry is not to be called",
    "the free list or the owner map was overwritten; both are made again",
};

U32 aulReported[REASON_NUM];
constexpr U32 ALWAYS_PRINTED = 32; /* lines of a reason; then the 64th, the 128th and so on */

bool Report(EMMReason enReason, U32 hulHandle, U32 ulAddr, U32 ulCount)
{
    MM_GuardReport(enReason, hulHandle, ulAddr, ulCount);
    return false;
}

/* True when [ulAddr, ulAddr + ulBytes), of one byte at the least, lies in [ulStart, ulEnd). */
bool LiesIn(U32 ulAddr, U32 ulBytes, U32 ulStart, U32 ulEnd)
{
    return ulAddr >= ulStart && ulAddr < ulEnd && ulBytes <= ulEnd - ulAddr;
}

bool LiesInRow(U32 ulAddr, U32 ulBytes)
{
    for (const TMCTInfo* pstRow : pstMCTTable) {
        if (pstRow == nullptr || pstRow->pubStartAddr == nullptr)
            continue;
        const U32 ulStart = MM_Addr(pstRow->pubStartAddr);
        if (LiesIn(ulAddr, ulBytes, ulStart, ulStart + pstRow->ulSize))
            return true;
    }
    return false;
}

/* Fixed segments, allocated blocks and what was pushed may be filled. */
bool MayFill(U32 ulAddr, U32 ulBytes)
{
    return ulBytes == 0 || LiesInRow(ulAddr, ulBytes) || MM_GuardHeld(ulAddr, ulBytes) ||
           MM_GuardPushed(ulAddr, ulBytes) || Report(BAD_FILL, 0, ulAddr, ulBytes);
}

} // namespace

void MM_GuardReport(EMMReason enReason, U32 hulHandle, U32 ulAddr, U32 ulCount)
{
    const U32 ulReported = ++aulReported[enReason];
    if (ulReported > ALWAYS_PRINTED && (ulReported & (ulReported - 1)) != 0)
        return;
    MMP_Print("MM_Guard: %s: segment %d, address 0x%08x, count %u, line %u of this kind\n", apcReason[enReason],
              static_cast<S32>(hulHandle), ulAddr, ulCount, ulReported);
}

bool MM_GuardBadHandle(U32 hulHandle)
{
    return Report(BAD_HANDLE, hulHandle, 0, 0);
}

bool MM_GuardSelector(U32 ulSelector)
{
    return ulSelector <= HEAPHANDLE || ulSelector == MM_DISPLAY_ALL || Report(BAD_HANDLE, ulSelector, 0, 0);
}

bool MM_GuardHasMCT(void)
{
    return pstMCTTable[0] != nullptr || Report(NOT_STARTED, 0, 0, 0);
}

/* The heap's blocks may be larger than the segment's, not smaller. */
bool MM_GuardOverflow(U32 hulHandle, U32 ulReqBlkNo)
{
    return stSegTable[HEAPHANDLE].ubBlkBit >= stSegTable[hulHandle].ubBlkBit ||
           Report(SMALL_HEAP_BLOCKS, hulHandle, 0, ulReqBlkNo);
}

bool MM_GuardCommand(U32 ulCmd, const void* pvRecord)
{
    switch (ulCmd) {
    case MM_CMD_MEMSET: {
        const auto* const pstFill = static_cast<const TMemsetInfo*>(pvRecord);
        return MayFill(pstFill->s, pstFill->n);
    }
    case MM_CMD_CHECK_SEGMENT: return MM_GuardHandle(static_cast<const TCheckSegmentInfo*>(pvRecord)->hulHandle);
    case MM_CMD_DISPLAY_MST:
        return MM_GuardSelector(static_cast<U8>(static_cast<const TDisplayMSTInfo*>(pvRecord)->hulHandle));
    default: return true;
    }
}

bool MM_GuardMapping(U32 ulPgOff, U32 ulBytes)
{
    constexpr U32 ulPageBytes = 1u << MMP_PAGE_SHIFT;
    const U32 ulFirst = memstart / ulPageBytes + (memstart % ulPageBytes != 0); /* pages that are whole */
    const U32 ulPast = memend / ulPageBytes;
    const U32 ulPages = ulBytes / ulPageBytes + (ulBytes % ulPageBytes != 0);
    return (ulBytes > 0 && LiesIn(ulPgOff, ulPages, ulFirst, ulPast)) ||
           Report(BAD_MAPPING, 0, ulPgOff << MMP_PAGE_SHIFT, ulBytes);
}

bool MM_GuardArea(U32 ulStart, U32 ulEnd)
{
    return (ulStart < ulEnd && ulStart > MMP_PageOffset() && ulEnd <= MMP_HighMemory() &&
            MMP_PfnValid(MM_PhysAddr(ulStart) >> MMP_PAGE_SHIFT) &&
            MMP_PfnValid(MM_PhysAddr(ulEnd - 1) >> MMP_PAGE_SHIFT)) ||
           Report(BAD_AREA, 0, ulStart, ulEnd > ulStart ? ulEnd - ulStart : 0);
}

bool MM_GuardRow(U32 ulStart, U32 ulBytes)
{
    if (!MM_GuardHasMCT())
        return false;
    bool fGood = ulBytes <= memend - memstart;
    if (ulStart != 0 && ulBytes != 0) {
        fGood = LiesIn(ulStart, ulBytes, memstart, memend);
        for (const TMCTInfo* pstRow : pstMCTTable) {
            const U32 ulRow = pstRow != nullptr ? MM_Addr(pstRow->pubStartAddr) : 0;
            fGood = fGood && (ulRow == 0 || ulStart + ulBytes <= ulRow || ulRow + pstRow->ulSize <= ulStart);
        }
    }
    return fGood || Report(BAD_ROW, 0, ulStart, ulBytes);
}

bool MM_GuardNever(void)
{
    return Report(NEVER_CALLED, 0, 0, 0);
}

void MM_GuardForgetReports(void)
{
    for (U32& ulReported : aulReported)
        ulReported = 0;
}
