/*
 * MM_GuardCreate - start-up and the creation of segments in the guarded build. The list of free memory lies in kernel memory
 * here; what managed memory says of it is written for readers only, and only where memory is free. A creation that breaks
 * a rule is taken back whole.
 */
#include "../mm/MM_Heap.h"
#include "../mm/MM_Layout.h"
#include "../mm/MM_List.h"
#include "MM_Guard.h"

namespace {

constexpr U32 MAX_NODES = 64; /* more than segments can make: each leaves one more at the most */
constexpr U8 MIN_BLK_BIT = 4; /* blocks that hold a run's header */

struct TMMFreeNode {
    U32 ulAddr;
    U32 aulField[3]; /* next, back, size: as in memory */
};

enum EMMNodeField { NODE_NEXT, NODE_BACK, NODE_SIZE };

struct TMMFreeNodes {
    TMMFreeNode astNode[MAX_NODES];
    U32 ulNodes;
};

TMMFreeNodes stNodes;

/* Memory that may be written while a segment is created: what was free when it began, and a fixed segment's own. */
struct TMMFreeStretch {
    U32 ulStart, ulEnd;
};
TMMFreeStretch astWritable[MAX_NODES + 1];
U32 ulWritable;

bool fStarted;
U32 ulOpens;   /* descriptors */
bool fRefused; /* the running creation */

/* As it was when the running creation began. */
struct TMMBefore {
    TMMFreeNodes stNodes;
    TMMBlkStr *pstHead, *pstTail, *pstBiggest;
    THeapAddrRange stStart, stEnd, stMapStart, stMapEnd;
    U32 hulFixed, hulFloat;
    U32 hulHandle; /* that the segment was given, MM_FAILED as long as it has none */
};
TMMBefore stBefore;

bool Report(EMMReason enReason, U32 hulHandle, U32 ulAddr, U32 ulCount)
{
    MM_GuardReport(enReason, hulHandle, ulAddr, ulCount);
    return false;
}

/* Nodes ------------------------------------------------------------------------------------------------ */

TMMFreeNode* FindNode(U32 ulAddr)
{
    for (U32 ulIdx = 0; ulIdx < stNodes.ulNodes; ++ulIdx)
        if (stNodes.astNode[ulIdx].ulAddr == ulAddr)
            return stNodes.astNode + ulIdx;
    return nullptr;
}

U32 Field(const TMMBlkStr* pstNode, EMMNodeField enField)
{
    const TMMFreeNode* const pstFound = FindNode(MM_Addr(pstNode));
    return pstFound != nullptr ? pstFound->aulField[enField] : 0;
}

bool IsWritable(U32 ulAddr, U32 ulBytes)
{
    for (U32 ulIdx = 0; ulIdx < ulWritable; ++ulIdx)
        if (ulAddr >= astWritable[ulIdx].ulStart && ulAddr < astWritable[ulIdx].ulEnd &&
            ulBytes <= astWritable[ulIdx].ulEnd - ulAddr)
            return true;
    return false;
}

void WriteWord(U32 ulAddr, U32 ulValue)
{
    struct TMMWord {
        U32 ulWord;
    } __attribute__((packed, may_alias));
    if (!IsWritable(ulAddr, 4))
        return;
    MMP_Touch(MM_At(ulAddr), 4);
    MM_At<TMMWord>(ulAddr)->ulWord = ulValue;
}

/* Leaves the nodes that the list has, and lets their memory be written. */
void KeepListedNodes()
{
    TMMFreeNodes& stKept = stBefore.stNodes;
    stKept.ulNodes = 0;
    ulWritable = 0;
    for (const TMMBlkStr* pstNode = pstSegBlkHead; pstNode != nullptr && stKept.ulNodes < MAX_NODES;
         pstNode = MM_GuardNext(pstNode)) {
        const TMMFreeNode* const pstFound = FindNode(MM_Addr(pstNode));
        if (pstFound == nullptr)
            break;
        stKept.astNode[stKept.ulNodes++] = *pstFound;
        astWritable[ulWritable++] = {pstFound->ulAddr, pstFound->ulAddr + pstFound->aulField[NODE_SIZE]};
    }
    stNodes = stKept;
}

/* Creation --------------------------------------------------------------------------------------------- */

void Begin()
{
    KeepListedNodes();
    stBefore.pstHead = pstSegBlkHead;
    stBefore.pstTail = pstSegBlkTail;
    stBefore.pstBiggest = pstHEAPBiggestBlk;
    stBefore.stStart = stSegStartAddr;
    stBefore.stEnd = stSegEndAddr;
    stBefore.stMapStart = stSegMapStartAddr;
    stBefore.stMapEnd = stSegMapEndAddr;
    stBefore.hulFixed = hulFixedHandle;
    stBefore.hulFloat = hulFloatHandle;
    stBefore.hulHandle = MM_FAILED;
    fRefused = false;
}

void TakeBack()
{
    stNodes = stBefore.stNodes;
    pstSegBlkHead = stBefore.pstHead;
    pstSegBlkTail = stBefore.pstTail;
    pstHEAPBiggestBlk = stBefore.pstBiggest;
    stSegStartAddr = stBefore.stStart;
    stSegEndAddr = stBefore.stEnd;
    stSegMapStartAddr = stBefore.stMapStart;
    stSegMapEndAddr = stBefore.stMapEnd;
    hulFixedHandle = stBefore.hulFixed;
    hulFloatHandle = stBefore.hulFloat;
    if (stBefore.hulHandle != MM_FAILED) {
        MM_GuardClose(stBefore.hulHandle);
        stSegTable[stBefore.hulHandle] = TMMSegInfo{};
    }
    for (U32 ulIdx = 0; ulIdx < stNodes.ulNodes; ++ulIdx)
        for (U32 ulField = 0; ulField < 3; ++ulField)
            WriteWord(stNodes.astNode[ulIdx].ulAddr + 4 * ulField, stNodes.astNode[ulIdx].aulField[ulField]);
}

/* True when blocks, and a map if there is one, can be laid out in [ulPlaced, ulPlacedEnd): as MM_InitSegment will. */
bool CanHold(const TMMSegInfo& stSegInfo, U32 ulPlaced, U32 ulPlacedEnd)
{
    const U32 ulBlkSize = stSegInfo.stInfoFromApp.ulBlkSize;
    const U8 ubBlkBit = MM_Log2(ulBlkSize);
    const U8 ubMap = stSegInfo.stInfoFromApp.ubMap;
    const U32 ulUnit = MM_AlignUnit(ulBlkSize);
    const U32 ulStart = MM_AlignUp(ulPlaced, ulUnit);

    if (ulPlaced >= ulPlacedEnd || ulStart < ulPlaced || ulStart >= ulPlacedEnd)
        return false;
    U32 ulBlkNum = (ulPlacedEnd - ulPlaced) >> ubBlkBit;
    U32 ulEnd = ulStart + MM_BlkToBytes(ulBlkNum, ubBlkBit);
    if (ulEnd > ulPlacedEnd || ulEnd < ulStart) {
        if (ulBlkNum < 2 || ulBlkSize > ulEnd - ulStart)
            return false;
        --ulBlkNum;
        ulEnd -= ulBlkSize;
    }
    if (ulBlkNum == 0 || ulBlkNum > (ulPlacedEnd - ulStart) >> ubBlkBit)
        return false;
    if (ubMap == 0)
        return true;
    const U32 ulMapEnd = MM_AlignUp(ulStart + MM_MapBytes(ulBlkNum, ubMap), ulUnit);
    if (ulMapEnd <= ulStart || ulMapEnd >= ulEnd || ulEnd > ulPlacedEnd)
        return false;
    const U32 ulMapped = (ulEnd - ulMapEnd) >> ubBlkBit;
    return ulMapped != 0 && (ulMapped - 1) * ubMap / 8 < ulMapEnd - ulStart;
}

/* True when a segment that is there shares memory with [ulStart, ulEnd). */
bool IsHeldByOthers(U32 ulStart, U32 ulEnd)
{
    for (U32 hulHandle = 0; hulHandle < HEAPHANDLE; ++hulHandle) {
        const TMMSegInfo& stSeg = stSegTable[hulHandle];
        const U32 ulHeld = MM_Addr(stSeg.pubMapStartAddr != nullptr ? stSeg.pubMapStartAddr : stSeg.pubStartAddr);
        if (MM_CheckSegInitCompleted(hulHandle) && ulHeld < ulEnd && ulStart < MM_Addr(stSeg.pubEndAddr))
            return true;
    }
    for (U8 ubIdx = 0; MM_IsPiece(ubIdx); ++ubIdx) {
        const U32 ulMap = MM_PieceAddr(PIECE_MAP_START, ubIdx);
        const U32 ulHeld = ulMap != MM_UNUSED_PIECE ? ulMap : MM_PieceAddr(PIECE_START, ubIdx);
        if (ulHeld < ulEnd && ulStart < MM_PieceAddr(PIECE_END, ubIdx))
            return true;
    }
    return false;
}

/* True when a fixed segment may lie there; its memory may then be written. */
bool CanLieFixed(U32 ulStart, U32 ulEnd)
{
    if (ulStart < memstart || ulEnd > memend || ulStart >= ulEnd || IsHeldByOthers(ulStart, ulEnd))
        return false;
    for (U32 ulIdx = 0; ulIdx < ulWritable; ++ulIdx)
        if (astWritable[ulIdx].ulStart < ulEnd && ulStart < astWritable[ulIdx].ulEnd)
            return false;
    astWritable[ulWritable++] = {ulStart, ulEnd};
    return true;
}

/* Leaves out the pieces of the heap that are too short for a block, as placement leaves out small nodes. False when no piece
 * is left. */
bool KeepUsefulPieces(const TMMSegInfo& stSegInfo)
{
    U8 ubKept = 0;
    for (U8 ubIdx = 0; ubIdx < MAX_PIECE_NUM; ++ubIdx) {
        const U32 ulStart = stSegStartAddr.aulHeapAddr[ubIdx];
        const U32 ulEnd = stSegEndAddr.aulHeapAddr[ubIdx];
        stSegStartAddr.aulHeapAddr[ubIdx] = stSegEndAddr.aulHeapAddr[ubIdx] = MM_UNUSED_PIECE;
        if (ulStart == MM_UNUSED_PIECE)
            continue;
        if (!CanHold(stSegInfo, ulStart, ulEnd)) {
            MM_Unlink(TMMFreeMemoryLinks(), MM_At<TMMBlkStr>(ulStart));
            continue;
        }
        stSegStartAddr.aulHeapAddr[ubKept] = ulStart;
        stSegEndAddr.aulHeapAddr[ubKept++] = ulEnd;
    }
    return ubKept > 0;
}

bool Accepts(const TMMSegInfo& stSegInfo)
{
    const TSegInfoFromApp& stInfo = stSegInfo.stInfoFromApp;
    const U32 ulStart = MM_Addr(stSegInfo.pubStartAddr);
    const U32 ulEnd = MM_Addr(stSegInfo.pubEndAddr);

    if (stInfo.ubSegDSType == LINKEDLIST && MM_Log2(stInfo.ulBlkSize) < MIN_BLK_BIT)
        return false;
    if (stInfo.hulHandle == HEAPHANDLE)
        return KeepUsefulPieces(stSegInfo);
    if (stInfo.ubType == FIXED ? !CanLieFixed(ulStart, ulEnd)
                               : ulEnd <= ulStart || !IsWritable(ulStart, ulEnd - ulStart))
        return false;
    return CanHold(stSegInfo, ulStart, ulEnd);
}

/* Nobody else has the device open, and nobody holds a block. */
bool IsIdle()
{
    return (ulOpens <= 1 && !MM_GuardAnyAllocated()) || Report(IN_USE, 0, 0, ulOpens);
}

/* Looks where memory is free when no segment is there, and lets it be written. */
bool MeasureFreeMemory()
{
    U32 ulStart = CM_IF_ReadFixedSegEndAddr();
    U32 ulEnd = memend;
    for (U32 hulHandle = 0; hulHandle < MAX_SEGTABLE_SIZE; ++hulHandle)
        if (MM_CheckSegInitCompleted(hulHandle))
            return Report(IN_USE, hulHandle, 0, 0);
    if (ulStart < memstart || ulStart >= ulEnd || ulEnd > memend)
        return Report(NOT_STARTED, 0, ulStart, 0);
    /* Rows that begin inside end it, the others move its start; each of the five does so once at the most. */
    for (U8 ubPass = 0; ubPass < MAX_MCT_NUM; ++ubPass)
        for (const TMCTInfo* pstRow : pstMCTTable) {
            const U32 ulRow = MM_Addr(pstRow->pubStartAddr);
            if (ulRow == 0 || ulRow >= ulEnd || ulRow + pstRow->ulSize <= ulStart)
                continue;
            if (ulRow > ulStart)
                ulEnd = ulRow;
            else
                ulStart = ulRow + pstRow->ulSize;
        }
    if (ulStart >= ulEnd || ulEnd - ulStart < HEAP_BLOCK_SIZE)
        return Report(BAD_AREA, 0, ulStart, 0);
    astWritable[0] = {ulStart, ulEnd};
    ulWritable = 1;
    return true;
}

/* As before the library was started. */
void Forget()
{
    MM_GuardCloseAll();
    fStarted = false;
    stNodes.ulNodes = 0;
    ulWritable = 0;
    pstSegBlkHead = nullptr;
    pstSegBlkTail = nullptr;
}

} // namespace

TMMBlkStr* MM_GuardNext(const TMMBlkStr* pstNode)
{
    return MM_At<TMMBlkStr>(Field(pstNode, NODE_NEXT));
}

TMMBlkStr* MM_GuardBack(const TMMBlkStr* pstNode)
{
    return MM_At<TMMBlkStr>(Field(pstNode, NODE_BACK));
}

U32 MM_GuardSize(const TMMBlkStr* pstNode)
{
    return Field(pstNode, NODE_SIZE);
}

void MM_GuardSetNode(TMMBlkStr* pstNode, U32 ulOffset, U32 ulValue)
{
    TMMFreeNode* pstFound = FindNode(MM_Addr(pstNode));
    if (pstFound == nullptr && stNodes.ulNodes < MAX_NODES) {
        pstFound = &stNodes.astNode[stNodes.ulNodes++];
        *pstFound = {MM_Addr(pstNode), {}};
    }
    if (pstFound == nullptr) {
        fRefused = true;
        return;
    }
    pstFound->aulField[ulOffset / 4] = ulValue;
    WriteWord(MM_Addr(pstNode) + ulOffset, ulValue);
}

U32 MM_GuardedCreate(TSegInfoFromApp* pstInfoFromApp, U32 (*pfnCreate)(TSegInfoFromApp*))
{
    if (!fStarted) {
        Report(NOT_STARTED, 0, 0, 0);
        return EASSERT;
    }
    const TSegInfoFromApp stAsked = *pstInfoFromApp;
    Begin();
    const U32 ulResult = pfnCreate(pstInfoFromApp);
    if (ulResult == ENOERR && !fRefused)
        return ENOERR;
    TakeBack();
    *pstInfoFromApp = stAsked;
    return ulResult != ENOERR ? ulResult : U32(EASSERT);
}

bool MM_GuardAccepts(const TMMSegInfo& stSegInfo)
{
    if (!fRefused && Accepts(stSegInfo)) {
        stBefore.hulHandle = stSegInfo.stInfoFromApp.hulHandle;
        return true;
    }
    fRefused = true;
    return Report(BAD_LAYOUT, stSegInfo.stInfoFromApp.hulHandle, MM_Addr(stSegInfo.pubStartAddr),
                  stSegInfo.stInfoFromApp.ulBlkSize);
}

bool MM_GuardEstablish(U32 hulHandle)
{
    if (MM_GuardOpen(hulHandle))
        return true;
    fRefused = true;
    return Report(NO_KERNEL_MEMORY, hulHandle, 0, stSegTable[hulHandle].ulTotalBlkNum);
}

/* Start-up --------------------------------------------------------------------------------------------- */

bool MM_GuardMayBuildMCT(TMMInitOption enInitOption)
{
    U32 ulLeft = memend - memstart;
    if (enInitOption != MM_CONSTRUCT_DEFAULT_MCT)
        return Report(BAD_OPTION, 0, 0, enInitOption);
    for (const TMCTInfo& stRow : stDefaultMCTTable) {
        if (stRow.ulSize >= ulLeft)
            return Report(BAD_AREA, 0, memstart, memend - memstart);
        ulLeft -= stRow.ulSize;
    }
    return IsIdle();
}

bool MM_GuardStart(TStartOption enStartOption)
{
    if (enStartOption > SM_BKUP_FLASH)
        return Report(BAD_OPTION, 0, 0, enStartOption);
    if (!MM_GuardHasMCT() || !IsIdle())
        return false;
    Forget();
    return true;
}

TMMFreeMemory MM_GuardFreeMemory(void)
{
    if (!MM_GuardHasMCT() || !MeasureFreeMemory())
        return {0, 0};
    fStarted = true;
    return {astWritable[0].ulStart, astWritable[0].ulEnd};
}

void MM_GuardReset(void)
{
    Forget();
    MM_GuardForgetReports();
    ulOpens = 0;
}

void MM_GuardOpened(void)
{
    MMP_LockIrq(search_lock);
    ++ulOpens;
    MMP_UnlockIrq(search_lock);
}

void MM_GuardReleased(void)
{
    MMP_LockIrq(search_lock);
    ulOpens -= ulOpens != 0;
    MMP_UnlockIrq(search_lock);
}
