/*
 * MM_InitSegment - turns a placed segment into a working one: alignment, owner map, counts, starting state
 * of the allocator. A segment with a map is laid out as map, padding up to the unit, blocks.
 */
#include "MM_Heap.h"
#include "MM_Layout.h"
#include "MM_List.h"
#include "MM_Stack.h"

TMMBcptr astBlkHead[MAX_SEGTABLE_SIZE];
TMMBcptr astBlkTail[MAX_SEGTABLE_SIZE];
TStackStr astStackStr[MAX_SEGTABLE_SIZE];

namespace {

void InstallRoutines(TMMSegInfo* pstSegInfo)
{
    const bool fStack = pstSegInfo->stInfoFromApp.ubSegDSType == STACK;
    pstSegInfo->pfnAlloc = fStack ? MM_Push : MM_AllocBlk;
    pstSegInfo->pfnFree = fStack ? MM_Pop : MM_FreeBlk;
}

void SetUsableBytes(TMMSegInfo* pstSegInfo, U32 ulBytes)
{
    pstSegInfo->stInfoFromApp.ulRetSegSize = ulBytes;
    pstSegInfo->ulRealAvailSize = ulBytes;
}

void AddPiece(TMMSegInfo* pstSegInfo, U32 ulBytes, U32 ulBlkNum)
{
    SetUsableBytes(pstSegInfo, pstSegInfo->ulRealAvailSize + ulBytes);
    pstSegInfo->ulTotalBlkNum += ulBlkNum;
}

/* Stores the finished record; every block is free. */
void StoreRecord(TMMSegInfo* pstSegInfo)
{
    pstSegInfo->ulTotalFreeBlkNum = pstSegInfo->ulTotalBlkNum;
    pstSegInfo->ulTotalAllocBlkNum = 0;
    stSegTable[pstSegInfo->stInfoFromApp.hulHandle] = *pstSegInfo;
}

/* The free-memory list finds the node of a heap piece, whose fields are stNode, at a new first address. Small pieces
 * with large blocks may come to share an address, so what is written, and when, matters. */
void RepointPiece(U32 ulOldAddr, const TMMNode& stNode, U32 ulNewAddr)
{
    MM_Repoint(TMMFreeMemoryList(), MM_At<TMMBlkStr>(ulOldAddr), stNode, MM_At<TMMBlkStr>(ulNewAddr));
}

/* Lays out the blocks of one heap piece; its node counts blocks from here on. */
void LayOutPiece(TMMSegInfo* pstSegInfo, U8 ubIdx, U32 ulUnit)
{
    const U32 ulPlaced = stSegStartAddr.aulHeapAddr[ubIdx];
    const U32 ulStart = MM_AlignUp(ulPlaced, ulUnit);
    TMMNode stNode = MM_ReadNode(MM_At<TMMBlkStr>(ulPlaced));

    if (ulStart != ulPlaced)
        RepointPiece(ulPlaced, stNode, ulStart);
    U32 ulEnd = ulStart + MM_BlkToBytes(stNode.ulSize >> pstSegInfo->ubBlkBit, pstSegInfo->ubBlkBit);
    if (ulEnd > stSegEndAddr.aulHeapAddr[ubIdx])
        ulEnd -= pstSegInfo->stInfoFromApp.ulBlkSize;

    stNode.ulSize = (ulEnd - ulStart) >> pstSegInfo->ubBlkBit;
    stSegStartAddr.aulHeapAddr[ubIdx] = ulStart;
    stSegEndAddr.aulHeapAddr[ubIdx] = ulEnd;
    MM_WriteNode(MM_At<TMMBlkStr>(ulStart), stNode);
    AddPiece(pstSegInfo, ulEnd - ulStart, stNode.ulSize);
}

/* Cuts the map of one heap piece off the front of its blocks. */
void LayOutPieceMap(TMMSegInfo* pstSegInfo, U8 ubIdx, U32 ulUnit)
{
    const U32 ulMapStart = stSegStartAddr.aulHeapAddr[ubIdx];
    TMMNode stNode = MM_ReadNode(MM_At<TMMBlkStr>(ulMapStart));
    const U32 ulStart = MM_AlignUp(ulMapStart + MM_MapBytes(stNode.ulSize, pstSegInfo->stInfoFromApp.ubMap), ulUnit);
    const U32 ulBytes = stSegEndAddr.aulHeapAddr[ubIdx] - ulStart;

    stNode.ulSize = ulBytes >> pstSegInfo->ubBlkBit;
    stSegMapStartAddr.aulHeapAddr[ubIdx] = ulMapStart;
    stSegMapEndAddr.aulHeapAddr[ubIdx] = ulStart;
    stSegStartAddr.aulHeapAddr[ubIdx] = ulStart;
    MM_WriteNode(MM_At<TMMBlkStr>(ulStart), stNode);
    RepointPiece(ulMapStart, stNode, ulStart);
    AddPiece(pstSegInfo, ulBytes, stNode.ulSize);
}

void ClearTotals(TMMSegInfo* pstSegInfo)
{
    SetUsableBytes(pstSegInfo, 0);
    pstSegInfo->ulTotalBlkNum = 0;
}

/* Does one step of the layout for every piece. */
void ForEachPiece(TMMSegInfo* pstSegInfo, U32 ulUnit, void (*pfnLayOut)(TMMSegInfo*, U8, U32))
{
    ClearTotals(pstSegInfo);
    for (U8 ubIdx = 0; ubIdx < MAX_PIECE_NUM && stSegStartAddr.aulHeapAddr[ubIdx] != MM_UNUSED_PIECE; ++ubIdx)
        pfnLayOut(pstSegInfo, ubIdx, ulUnit);
}

/* A stack heap is its biggest piece alone. INTENDED(stack-heap): its two ends start out equal, so it has blocks, but
 * nothing is free. */
void StartStackHeap(TMMSegInfo* pstSegInfo)
{
    const U32 ulStart = MM_Addr(pstHEAPBiggestBlk);
    const U32 ulBlkNum = MM_Size(pstHEAPBiggestBlk);

    for (U8 ubIdx = 0; ubIdx < MAX_PIECE_NUM; ++ubIdx)
        stSegStartAddr.aulHeapAddr[ubIdx] = stSegEndAddr.aulHeapAddr[ubIdx] = MM_UNUSED_PIECE;
    stSegStartAddr.aulHeapAddr[0] = ulStart;
    stSegEndAddr.aulHeapAddr[0] = ulStart + MM_BlkToBytes(ulBlkNum, pstSegInfo->ubBlkBit);
    astStackStr[HEAPHANDLE].pubStackTail = MM_At(ulStart);
    astStackStr[HEAPHANDLE].pubStackHead = MM_At(ulStart);
    SetUsableBytes(pstSegInfo, MM_BlkToBytes(ulBlkNum, pstSegInfo->ubBlkBit));
    pstSegInfo->ulTotalBlkNum = ulBlkNum;
}

/* The heap takes over the free-memory list: no segment can be placed afterwards. */
void StartHeap(TMMSegInfo* pstSegInfo)
{
    pstHEAPBiggestBlk = MM_LargestNode(pstSegBlkHead);
    if (pstSegInfo->stInfoFromApp.ubSegDSType == STACK) {
        StartStackHeap(pstSegInfo);
    } else {
        astBlkHead[HEAPHANDLE].pstBlk = pstSegBlkHead;
        astBlkTail[HEAPHANDLE].pstBlk = pstSegBlkTail;
    }
    pstSegBlkHead = nullptr;
    pstSegBlkTail = nullptr;
}

/* One free run over all blocks, or an empty stack. */
void StartSegment(const TMMSegInfo* pstSegInfo)
{
    const U32 hulHandle = pstSegInfo->stInfoFromApp.hulHandle;

    if (pstSegInfo->stInfoFromApp.ubSegDSType == STACK) {
        astStackStr[hulHandle].pubStackTail = pstSegInfo->pubStartAddr;
        astStackStr[hulHandle].pubStackHead = pstSegInfo->pubEndAddr;
    } else {
        TMMBlkStr* pstRun = reinterpret_cast<TMMBlkStr*>(pstSegInfo->pubStartAddr);
        MM_WriteNode(pstRun, {nullptr, nullptr, pstSegInfo->ulTotalBlkNum});
        astBlkHead[hulHandle].pstBlk = pstRun;
        astBlkTail[hulHandle].pstBlk = pstRun;
    }
}

/* Fills the block range of a segment without a map. */
void LayOutBlocks(TMMSegInfo* pstSegInfo, U32 ulUnit)
{
    const U32 ulStart = MM_AlignUp(MM_Addr(pstSegInfo->pubStartAddr), ulUnit);
    U32 ulBlkNum = pstSegInfo->ulRealAvailSize >> pstSegInfo->ubBlkBit;
    U32 ulEnd = ulStart + MM_BlkToBytes(ulBlkNum, pstSegInfo->ubBlkBit);

    if (ulEnd > MM_Addr(pstSegInfo->pubEndAddr)) {
        ulBlkNum -= 1;
        ulEnd -= pstSegInfo->stInfoFromApp.ulBlkSize; /* the size itself, not its power of two */
    }
    pstSegInfo->pubStartAddr = MM_At(ulStart);
    pstSegInfo->pubEndAddr = MM_At(ulEnd);
    pstSegInfo->ulTotalBlkNum = ulBlkNum;
    SetUsableBytes(pstSegInfo, MM_BlkToBytes(ulBlkNum, pstSegInfo->ubBlkBit));
}

/* Cuts the map off the front of the blocks. The end stays: it may leave part of a block that is never
 * handed out. */
void LayOutMap(TMMSegInfo* pstSegInfo, U32 ulUnit)
{
    const U32 ulMapStart = MM_Addr(pstSegInfo->pubStartAddr);
    const U32 ulMapBytes = MM_MapBytes(pstSegInfo->ulTotalBlkNum, pstSegInfo->stInfoFromApp.ubMap);
    const U32 ulMapEnd = MM_AlignUp(ulMapStart + ulMapBytes, ulUnit);
    const U32 ulBytes = MM_Addr(pstSegInfo->pubEndAddr) - ulMapEnd;

    pstSegInfo->pubMapStartAddr = MM_At(ulMapStart);
    pstSegInfo->pubMapEndAddr = MM_At(ulMapEnd);
    pstSegInfo->pubStartAddr = MM_At(ulMapEnd);
    SetUsableBytes(pstSegInfo, ulBytes);
    pstSegInfo->ulTotalBlkNum = ulBytes >> pstSegInfo->ubBlkBit;
}

void StoreAndClearMap(const TMMSegInfo* pstSegInfo)
{
    stSegTable[pstSegInfo->stInfoFromApp.hulHandle] = *pstSegInfo;
    MM_ClearMapAll(pstSegInfo->stInfoFromApp.hulHandle);
}

void InitSegment(TMMSegInfo* pstSegInfo, U32 ulUnit)
{
    pstSegInfo->pubMapStartAddr = nullptr;
    pstSegInfo->pubMapEndAddr = nullptr;
    LayOutBlocks(pstSegInfo, ulUnit);
    if (pstSegInfo->stInfoFromApp.ubMap != 0) {
        LayOutMap(pstSegInfo, ulUnit);
        StoreAndClearMap(pstSegInfo);
    }
    StartSegment(pstSegInfo);
}

void InitHeap(TMMSegInfo* pstSegInfo, U32 ulUnit)
{
    ForEachPiece(pstSegInfo, ulUnit, LayOutPiece);
    if (pstSegInfo->stInfoFromApp.ubMap != 0) {
        ForEachPiece(pstSegInfo, ulUnit, LayOutPieceMap);
        StoreAndClearMap(pstSegInfo);
    }
    StartHeap(pstSegInfo);
}

void ZeroBytes(U32 ulStart, U32 ulEnd)
{
    if (ulEnd > ulStart)
        MM_FillMemory(MM_At(ulStart), 0, ulEnd - ulStart);
}

} // namespace

U8 MM_GetBlkBit(U32 ulBlkSize)
{
    /* INTENDED(fourteen-bits): 0 gives the error code, and callers shift by it. */
    MM_ASSERT(ulBlkSize > 0, EASSERT);
    return MM_Log2(ulBlkSize);
}

void MM_ClearMapAll(U32 hulHandle)
{
    if (hulHandle == HEAPHANDLE) {
        for (U8 ubIdx = 0; ubIdx < MAX_PIECE_NUM && MM_PieceAddr(PIECE_MAP_START, ubIdx) != MM_UNUSED_PIECE; ++ubIdx)
            ZeroBytes(MM_PieceAddr(PIECE_MAP_START, ubIdx), MM_PieceAddr(PIECE_MAP_END, ubIdx));
    } else {
        ZeroBytes(MM_Addr(stSegTable[hulHandle].pubMapStartAddr), MM_Addr(stSegTable[hulHandle].pubMapEndAddr));
    }
}

U32 MM_FindNewLargestBlk(U32 hulHandle)
{
    hulHandle = MM_RealHandle(hulHandle);
    MM_ASSERT((hulHandle < MAX_SEGTABLE_SIZE && hulHandle >= 0) && "The range of Handle is beyond MST range", EASSERT);
    return MM_LargestFree(hulHandle);
}

U32 MM_SegInitial(TMMSegInfo* pstSegInfo)
{
    const U32 hulHandle = pstSegInfo->stInfoFromApp.hulHandle;
    const U32 ulUnit = MM_AlignUnit(pstSegInfo->stInfoFromApp.ulBlkSize);

    MM_GUARD(MM_GuardAccepts(*pstSegInfo), EASSERT);
    MM_DropRunIndex(hulHandle);
    pstSegInfo->ulRealAvailSize = pstSegInfo->stInfoFromApp.ulRetSegSize;
    stSegTable[hulHandle].ulSemID = 0;
    if (hulHandle == HEAPHANDLE) {
        MM_ASSERT(pstSegBlkHead != NULL && "There is no available Segment list", EASSERT);
        MM_ASSERT(pstSegBlkTail != NULL && "There is no available Segment list", EASSERT);
    }

    pstSegInfo->pfnAlloc = nullptr;
    pstSegInfo->pfnFree = nullptr;
    pstSegInfo->ubBlkBit = MM_GetBlkBit(pstSegInfo->stInfoFromApp.ulBlkSize);
    if (hulHandle == HEAPHANDLE)
        InitHeap(pstSegInfo, ulUnit);
    else
        InitSegment(pstSegInfo, ulUnit);
    InstallRoutines(pstSegInfo);
    StoreRecord(pstSegInfo);
    MM_RecheckRunIndexes();
    MM_GUARD(MM_GuardEstablish(hulHandle), EASSERT);
    MM_BuildRunIndex(hulHandle);

    stSegTable[hulHandle].ulLargestBlkSize = MM_FindNewLargestBlk(hulHandle);
    MM_ASSERT((stSegTable[hulHandle].ulLargestBlkSize >= 0) && (stSegTable[hulHandle].ulLargestBlkSize <= stSegTable[hulHandle].ulTotalFreeBlkNum),
              EASSERT);
    return ENOERR;
}
