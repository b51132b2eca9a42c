/*
 * MM_Lib - the calls by handle. In this order:
 *
 *   Start-up                 MM_Entry, MM_LibEntry, MM_ConstructSegLinkedList, MM_IsBrokenDramBackUp
 *   Segment creation         MM_CreateSegment
 *   Allocation and release   MM_Malloc, MM_AllocBlock, MM_Free, MM_FreeBlock, MM_CheckSegInitCompleted, MM_CheckHeapArea
 *   Reallocation             MM_ReallocBlock
 *   Owners                   MM_CollectGarbage and the permanent blocks
 *   Queries                  counts, bounds, summaries, addresses, MM_RunningMultiJob_Notify
 *   Display                  MM_DisplayMST, MM_TraceMST
 *   Printer job language     MM_ExecPJL
 */
#include "MM_Heap.h"
#include "MM_List.h"
#include "MM_Map.h"
#include "MM_Memory.h"
#include "MM_RunIndex.h"

U32 hulFixedHandle;
U32 hulFloatHandle = FIRST_FLOAT_HANDLE;
U32 ulRunningMultiJob;
U32 ulPermanentBlkStartPtr;
U32 ulPermanentBlkCount;
U32 ulRamSize;
U32* pubMCTStartAddr;
TMSTInfo stMSTInfo;

/* Start-up ------------------------------------------------------------------------------------------ */

U32 MM_Entry(TMMInitOption enInitOption)
{
    MM_GUARD(MM_GuardMayBuildMCT(enInitOption), EASSERT);
    if (enInitOption != MM_CONSTRUCT_DEFAULT_MCT)
        MM_ASSERT(0 && "Inpropriate Option Value!!", EASSERT);

    const U32 ulMemStart = CM_IF_ReadFixedSegStartAddr();
    const U32 ulMemSize = CM_IF_ReadRamSize();
    const U32 ulResult = CM_ConstructDefaultMCT(ulMemSize, ulMemStart + ulMemSize, ulMemStart);
    if (ulResult != ENOERR)
        return ulResult;

    pubMCTStartAddr = MM_At<U32>(CM_IF_ReadMCTStartAddr());
    if (pubMCTStartAddr == nullptr) /* GCOVR_EXCL_BR_LINE: as the next */
        return EWRONGADDR;          /* GCOVR_EXCL_LINE: the accessor gives 14 where there is no address */

    pstMCTTable[0] = CM_IF_GetDefaultMCT();
    return MM_RearrangeMCT(pstMCTTable);
}

U32 MM_LibEntry(TStartOption enStartOption, void (*)(void))
{
    MM_GUARD(MM_GuardStart(enStartOption), EASSERT);
    hulFloatHandle = FIRST_FLOAT_HANDLE;
    hulFixedHandle = 0;
    for (TMMSegInfo& stSeg : stSegTable)
        stSeg = TMMSegInfo{};
    MM_ResetRunIndexes();

    U8 aubJobControl[4] = {'$', 'J', 'C', 'B'};
    switch (enStartOption) {
    case SM_BKUP_OK:
    case SM_BKUP_FLASH: break;
    case SM_BKUP_NG: MM_RestoreMCT(); break;
    case SM_AJL_CLR: MM_ClearSegment(aubJobControl); break;
    default: MM_ASSERT(0 && "Inpropriate Option Value!!", EASSERT);
    }
    return MM_ConstructSegLinkedList();
}

namespace {

/* Memory that no segment has when the library starts: from the fixed segments to the area's end. */
TMMFreeMemory FreeMemory()
{
    if constexpr (MM_Guarded)
        return MM_GuardFreeMemory();
    return {CM_IF_ReadFixedSegEndAddr(), *pubSegMemEndAddr};
}

} // namespace

U32 MM_ConstructSegLinkedList(void)
{
    const TMMFreeMemory stFree = FreeMemory();
    MM_GUARD(stFree.ulStart != 0, EASSERT);
    const U32 ulStart = stFree.ulStart;
    const U32 ulEnd = stFree.ulEnd;
    TMMBlkStr* pstNode = MM_At<TMMBlkStr>(ulStart);

    MM_WriteNode(pstNode, {nullptr, nullptr, ulEnd - ulStart});
    MM_RecheckRunIndexes();

    /* INTENDED(first-row-ends): the first row in table order ends the free memory, even if a later one starts lower. */
    for (U8 iubMCTTableIDX = 0; iubMCTTableIDX < MAX_MCT_NUM; ++iubMCTTableIDX) {
        const U32 ulNewEndAddr = MM_Addr(pstMCTTable[iubMCTTableIDX]->pubStartAddr);
        if (ulNewEndAddr <= ulStart || ulNewEndAddr >= ulEnd)
            continue;
        MM_ASSERT(((ulNewEndAddr + pstMCTTable[iubMCTTableIDX]->ulSize) <= (U32)*pubSegMemEndAddr) && "Invalid Fixed Segment Size",
                  EASSERT);
        MM_SetSize(pstNode, ulNewEndAddr - ulStart);
        break;
    }

    pstSegBlkHead = pstNode;
    pstSegBlkTail = pstNode;
    CM_IF_UpdateFixedSegEndAddr(ulStart);
    return ENOERR;
}

BOOL MM_IsBrokenDramBackUp(void)
{
    constexpr U32 ulMaxRamSize = 0x20000000;
    constexpr U32 ulMCTAreaBytes = 4096;

    MM_GUARD(MM_GuardNever(), TRUE);
    /* INTENDED(backup-check): the words that bound the area become pointers that nobody else expects, so nobody
     * calls this. */
    ulRamSize = *pubSegMemEndAddr - *pubSegMemStartAddr;
    if (ulRamSize > ulMaxRamSize)
        ulRamSize = ulMaxRamSize;
    pubSegMemStartAddr = MM_At<U32>(*pubSegMemStartAddr);
    pubSegMemEndAddr = MM_At<U32>(CM_IF_ReadRamBaseAddr() + ulRamSize);

    pstMCTTable[0] = MM_At<TMCTInfo>(ulMCTStartAddr);
    MM_RearrangeMCT(pstMCTTable);
    MM_FillMemory(reinterpret_cast<U8*>(pstMCTTable[0]), 0, ulMCTAreaBytes);
    for (U8 ubIdx = 0; ubIdx < MAX_MCT_NUM; ++ubIdx)
        *pstMCTTable[ubIdx] = CM_IF_GetDefaultMCT()[ubIdx];
    return MM_CheckSumMCT();
}

/* Segment creation ---------------------------------------------------------------------------------- */

namespace {

/* Checks a request in the order that applications rely on; ENOERR or EASSERT. */
U32 CheckRequest(const TSegInfoFromApp* pstInfoFromApp)
{
    MM_ASSERT_FOR("MM_CreateSegment", (pstInfoFromApp->ulBlkSize > 0) && "Inpropriate Create Segment Value", EASSERT);
    MM_ASSERT_FOR("MM_CreateSegment", (pstInfoFromApp->ubMap == 0 || pstInfoFromApp->ubMap == 1 || pstInfoFromApp->ubMap == 2 || pstInfoFromApp->ubMap == 4 || pstInfoFromApp->ubMap == 8) && "Inpropriate Create Segment Value",
                  EASSERT);
    MM_ASSERT_FOR("MM_CreateSegment", (pstInfoFromApp->ubSegDSType == STACK || pstInfoFromApp->ubSegDSType == LINKEDLIST) && "Inpropriate Create Segment Value",
                  EASSERT);
    MM_ASSERT_FOR("MM_CreateSegment", (pstInfoFromApp->ubSemaphore == YES || pstInfoFromApp->ubSemaphore == NO) && "Inpropriate Create Segment Value",
                  EASSERT);
    MM_ASSERT_FOR("MM_CreateSegment", (pstInfoFromApp->ubType == FLOATALIGN || pstInfoFromApp->ubType == FLOAT || pstInfoFromApp->ubType == FIXED) && "Inpropriate Create Segment Value",
                  EASSERT);
    MM_ASSERT_FOR("MM_CreateSegment", strncmp(pstInfoFromApp->aubSegID, (U8*)"$MCT", 4) && "MCT can't be created", EASSERT);
    if (pstInfoFromApp->ubSegDSType == STACK)
        MM_ASSERT_FOR("MM_CreateSegment", pstInfoFromApp->ubMap == NO, EASSERT);
    for (U8 iubIdx = 0; iubIdx < MAX_SEGTABLE_SIZE; ++iubIdx)
        MM_ASSERT_FOR("MM_CreateSegment", strncmp(stSegTable[iubIdx].stInfoFromApp.aubSegID, pstInfoFromApp->aubSegID, 4) && "Same Segment ID already exists.",
                      EASSERT);
    return ENOERR;
}

/* Gives a checked request its handle; ENOERR or EASSERT. INTENDED(handle-lost): the counters only grow, so a creation
 * that fails afterwards has used up its handle. */
U32 TakeHandle(const TSegInfoFromApp* pstInfoFromApp, U32* phulHandle)
{
    if (pstInfoFromApp->ubType == FIXED) {
        MM_ASSERT_FOR("MM_CreateSegment", (hulFixedHandle < MAX_FIXEDSEG_NUM) && "The number of Fixed Segment couldn't be over MAX_FIXEDSEG_NUM",
                      EASSERT);
        *phulHandle = hulFixedHandle++;
        return ENOERR;
    }
    if (pstInfoFromApp->ubType == FLOAT && pstInfoFromApp->ulSegSize == 0) {
        *phulHandle = HEAPHANDLE;
        return ENOERR;
    }
    if (pstInfoFromApp->ulSegSize == 0)
        MM_ASSERT_FOR("MM_CreateSegment", 0 && "Invalid Segment Type is requested to create", EASSERT);
    MM_ASSERT_FOR("MM_CreateSegment", (hulFloatHandle < HEAPHANDLE) && "The number of Float Segment couldn't be over MAX FLOAT SEGMENT NUMBER",
                  EASSERT);
    *phulHandle = hulFloatHandle++;
    return ENOERR;
}

U32 CreateSegment(TSegInfoFromApp* pstInfoFromApp)
{
    TMMSegInfo stSegInfo{};

    if (CheckRequest(pstInfoFromApp) != ENOERR)
        return EASSERT;
    stSegInfo.stInfoFromApp = *pstInfoFromApp;
    if (TakeHandle(pstInfoFromApp, &stSegInfo.stInfoFromApp.hulHandle) != ENOERR)
        return EASSERT;

    const U32 ulResult = MM_InstallSegment(&stSegInfo);
    if (ulResult != ENOERR)
        return ulResult;

    pstInfoFromApp->hulHandle = stSegInfo.stInfoFromApp.hulHandle;
    pstInfoFromApp->ulRetSegSize = stSegInfo.stInfoFromApp.ulRetSegSize;
    pstInfoFromApp->ulSegSize = stSegInfo.stInfoFromApp.ulSegSize;
    return ENOERR;
}

} // namespace

U32 MM_CreateSegment(TSegInfoFromApp* pstInfoFromApp)
{
    if constexpr (MM_Guarded)
        return MM_GuardedCreate(pstInfoFromApp, CreateSegment);
    return CreateSegment(pstInfoFromApp);
}

/* Allocation and release ---------------------------------------------------------------------------- */

namespace {

/* Bytes of a segment's block as requests are counted. Those of the guarded build get as many bytes as they ask for also where
 * the size is no power of two. */
U32 BlockBytes(const TMMSegInfo& stSeg)
{
    const U32 ulBlockSize = stSeg.stInfoFromApp.ulBlkSize;
    if constexpr (MM_Guarded)
        return ulBlockSize == 0 ? 0 : 1u << stSeg.ubBlkBit;
    return ulBlockSize;
}

/* Blocks that hold a count of bytes; 0 when the sum wraps. */
U32 BytesToBlocks(U32 ulBytes, U32 ulBlockSize)
{
    return (ulBlockSize - 1 + ulBytes) / ulBlockSize;
}

/* Which owner IDs a map width takes. INTENDED(owner-values): two for one bit, no 0 for more. */
bool IsMapIDAllowed(U8 ubMap, U8 ubMapID)
{
    if (ubMap <= 1)
        return ubMapID <= ubMap;
    return ubMapID >= 1 && ubMapID < (1u << ubMap);
}

/* Leaves the function with what a release answers to its caller. INTENDED(release-result): success; what the release routine says
 * is on the kernel log only. */
#define MM_RETURN_RELEASED(call)                    \
    do {                                            \
        const U32 ulResult = (call);                \
        return MM_Guarded ? ulResult : U32(ENOERR); \
    } while (0)

bool IsInHeap(U32 ulAddr)
{
    return MM_IsPiece(MM_FindPiece(ulAddr));
}

} // namespace

U32 MM_Malloc(U32 hulHandle, U32 ulReqBytes, U8 ubMapID)
{
    const U32 hulTempHandle = MM_RealHandle(hulHandle);

    MM_ASSERT_MESSAGE(ulReqBytes > 0, "ulReqBytes is less then 0", MM_FAILED);
    MM_ASSERT_MESSAGE(hulTempHandle < MAX_SEGTABLE_SIZE, "The range of Handle is beyond MST range", MM_FAILED);
    const U32 ulBlockSize = BlockBytes(stSegTable[hulTempHandle]);
    MM_ASSERT_MESSAGE(ulBlockSize > 0, "ulBlockSize is wrong", MM_FAILED);
    const U32 ulReqBlock = BytesToBlocks(ulReqBytes, ulBlockSize);
    MM_ASSERT_MESSAGE(ulReqBlock > 0, "ulReqBlock is wrong", MM_FAILED);
    return MM_AllocBlock(hulHandle, ulReqBlock, ubMapID);
}

U32 MM_AllocBlock(U32 hulHandle, U32 ulReqBlkNo, U8 ubMapID)
{
    if (hulHandle == HEAPHANDLE_ALIAS) {
        if (ulRunningMultiJob == 1 && MM_GetTotAvailBlk(HEAPHANDLE) < CM_IF_RIPAvailBlk()) /* GCOVR_EXCL_BR_LINE */
            return 0; /* GCOVR_EXCL_LINE: the reserve is 0 in this build */
        hulHandle = HEAPHANDLE;
    }
    MM_ASSERT_SILENT(hulHandle < MAX_SEGTABLE_SIZE, MM_FAILED);

    const TMMSegInfo& stSeg = stSegTable[hulHandle];
    MM_ASSERT_MESSAGE(IsMapIDAllowed(stSeg.stInfoFromApp.ubMap, ubMapID), "Inpropriate MapID", MM_FAILED);
    MM_ASSERT_MESSAGE(MM_CheckSegInitCompleted(hulHandle), "Current handle is not yet initialized.", MM_FAILED);
    MM_ASSERT_SILENT(stSeg.pfnAlloc != nullptr, MM_FAILED); /* GCOVR_EXCL_BR_LINE: the line before has tested it */

    const U32 ulAddr = MM_Addr(stSeg.pfnAlloc(hulHandle, ulReqBlkNo, ubMapID));
    if (ulAddr != 0 || stSeg.stInfoFromApp.ubVM == 0)
        return ulAddr;

    /* INTENDED(overflow-count): the count is passed on unchanged, in the heap's blocks, and nobody owns them. The
     * pointer tested below is the requesting segment's, not the heap's. */
    MM_ASSERT_MESSAGE(MM_CheckSegInitCompleted(HEAPHANDLE), "HEAP is not yet initialized.", MM_FAILED);
    MM_ASSERT_MESSAGE(stSeg.pfnAlloc != nullptr, "HEAP Alloc function is NULL", MM_FAILED); /* GCOVR_EXCL_BR_LINE: it was called */
    MM_GUARD(MM_GuardOverflow(hulHandle, ulReqBlkNo), 0);
    return MM_Addr(stSegTable[HEAPHANDLE].pfnAlloc(HEAPHANDLE, ulReqBlkNo, 0));
}

U32 MM_Free(U32 hulHandle, U8* pubRlsAddr, U32 ulBytesNo)
{
    const U32 hulTempHandle = MM_RealHandle(hulHandle);

    MM_ASSERT(pubRlsAddr, EASSERT);
    MM_ASSERT(ulBytesNo, EASSERT);
    MM_ASSERT((hulTempHandle < MAX_SEGTABLE_SIZE && hulTempHandle >= 0) && "The range of Handle is beyond MST range", EASSERT);
    const U32 ulBlockSize = BlockBytes(stSegTable[hulTempHandle]);
    MM_ASSERT(ulBlockSize, EASSERT);
    const U32 ulRlsBlock = BytesToBlocks(ulBytesNo, ulBlockSize);
    MM_ASSERT(ulRlsBlock, EASSERT);
    MM_RETURN_RELEASED(MM_FreeBlock(hulHandle, pubRlsAddr, ulRlsBlock));
}

U32 MM_FreeBlock(U32 hulHandle, U8* pubRlsAddr, U32 ulBlkNo)
{
    hulHandle = MM_RealHandle(hulHandle);
    MM_ASSERT(pubRlsAddr, EASSERT);
    MM_ASSERT(ulBlkNo > 0, EASSERT);
    MM_ASSERT((hulHandle < MAX_SEGTABLE_SIZE && hulHandle >= 0) && "The range of Handle is beyond MST range", EASSERT);

    if (stSegTable[hulHandle].pfnFree == MM_FreeBlk) {
        if (IsInHeap(MM_Addr(pubRlsAddr))) {
            if (!MM_CheckSegInitCompleted(HEAPHANDLE))
                MM_ASSERT(0, EASSERT);
            MM_ASSERT(stSegTable[HEAPHANDLE].pfnFree, EASSERT); /* GCOVR_EXCL_BR_LINE: the line before has tested it */
            MM_RETURN_RELEASED(stSegTable[HEAPHANDLE].pfnFree(HEAPHANDLE, pubRlsAddr, ulBlkNo));
        }
        if (!MM_CheckSegInitCompleted(hulHandle))
            MM_ASSERT(0, EASSERT);
        MM_ASSERT(stSegTable[hulHandle].pfnFree, EASSERT); /* GCOVR_EXCL_BR_LINE: the line before has tested it */
        MM_RETURN_RELEASED(stSegTable[hulHandle].pfnFree(hulHandle, pubRlsAddr, ulBlkNo));
    }
    if (stSegTable[hulHandle].pfnFree == MM_Pop)
        MM_RETURN_RELEASED(MM_Pop(hulHandle, pubRlsAddr, ulBlkNo));
    MM_ASSERT(0 && "Release function is not matched", EASSERT);
}

U8 MM_CheckSegInitCompleted(U32 hulHandle)
{
    MM_GUARD(MM_GuardHandle(hulHandle), 0);
    return stSegTable[hulHandle].pfnFree != nullptr && stSegTable[hulHandle].pfnAlloc != nullptr;
}

BOOL MM_CheckHeapArea(U8* pubAddr)
{
    return IsInHeap(MM_Addr(pubAddr));
}

/* Reallocation -------------------------------------------------------------------------------------- */

namespace {

/* A claim at the first address of a free run. */
U32 ClaimFront(U32 hulHandle, TMMBlkStr* pstMatch, U32 ulReqBlk)
{
    const TMMRunList stList{hulHandle};
    const TMMNode stMatch = MM_ReadNode(pstMatch);
    TMMBlkStr* pstReplacement = stMatch.pstNext;

    if (stMatch.ulSize > ulReqBlk) {
        /* INTENDED(rest-64-times): 64 times the claimed bytes past the match, not the claimed bytes; callers know where
         * the rest of the run is kept. */
        const U32 ulBytes = MM_BlkToBytes(ulReqBlk, stSegTable[hulHandle].ubBlkBit);
        pstReplacement = MM_At<TMMBlkStr>(MM_Addr(pstMatch) + ulBytes * U32(sizeof(TMMBlkStr)));
        MM_WriteNode(pstReplacement, {stMatch.pstNext, stMatch.pstBack, stMatch.ulSize - ulReqBlk});
        if (stList.Tail() == pstMatch)
            stList.Tail() = pstReplacement;
    } else if (stMatch.ulSize < ulReqBlk) {
        MM_ASSERT_FOR("MM_ReallocBlock", 0, EASSERT);
    }

    /* INTENDED(link-back-left): that of the node after the replacement stays as it is; after a split it still names
     * the match. */
    if (pstReplacement != nullptr)
        MM_SetBack(pstReplacement, stMatch.pstBack);
    else
        stList.Tail() = stMatch.pstBack;
    if (stMatch.pstBack != nullptr)
        MM_SetNext(stMatch.pstBack, pstReplacement);
    else
        stList.Head() = pstReplacement;
    return ENOERR;
}

/* A claim past the first address of a free run. INTENDED(claim-past-the-run): that the run reaches as far as the
 * claim is not checked; one that runs past it leaves a wrapped size. */
U32 ClaimInside(U32 hulHandle, TMMBlkStr* pstMatch, const U8* pubReallocAddr, const U8* pubBlkEndAddr, U32 ulReqBlk)
{
    const TMMRunList stList{hulHandle};
    const U8 ubBlkBit = stSegTable[hulHandle].ubBlkBit;
    const U32 ulRunEnd = MM_RunEnd(pstMatch, ubBlkBit);

    if (MM_Addr(pstMatch) > MM_Addr(pubReallocAddr)) /* GCOVR_EXCL_BR_LINE: as the next */
        MM_ASSERT_FOR("MM_ReallocBlock", 0 && "Invalid Match case", EASSERT);                      /* GCOVR_EXCL_LINE: the search for the match rules it out */

    if (ulRunEnd == MM_Addr(pubBlkEndAddr)) {
        MM_SetSize(pstMatch, MM_Size(pstMatch) - ulReqBlk);
        return ENOERR;
    }
    TMMBlkStr* const pstRest = MM_At<TMMBlkStr>(MM_Addr(pubBlkEndAddr));
    MM_WriteNode(pstRest, {MM_Next(pstMatch), pstMatch, (ulRunEnd - MM_Addr(pubBlkEndAddr)) >> ubBlkBit});
    MM_SetNext(pstMatch, pstRest);
    MM_SetSize(pstMatch, (MM_Addr(pubReallocAddr) - MM_Addr(pstMatch)) >> ubBlkBit);
    if (stList.Tail() == pstMatch)
        stList.Tail() = pstRest;
    return ENOERR;
}

} // namespace

U32 MM_ReallocBlock(U32 hulHandle, U8* pubReallocAddr, U32 ulReqBlk)
{
    MM_GUARD(MM_GuardHandle(hulHandle), EASSERT);
    TMMSegInfo& stSeg = stSegTable[hulHandle];
    const U8* pubBlkEndAddr = MM_At(MM_Addr(pubReallocAddr) + MM_BlkToBytes(ulReqBlk, stSeg.ubBlkBit));

    /* INTENDED(first-address): a segment's own can never be claimed. */
    MM_ASSERT(((U8*)pubReallocAddr != stSegTable[hulHandle].pubStartAddr) && "Allocating address is the same as the start address",
              EASSERT);
    MM_ASSERT((pubReallocAddr >= stSegTable[hulHandle].pubStartAddr) && "Invalid Realloc Addr", EASSERT);
    MM_ASSERT((pubBlkEndAddr <= stSegTable[hulHandle].pubEndAddr) && "Invalid Size", EASSERT);

    if constexpr (MM_Guarded)
        return MM_GuardedClaim(hulHandle, pubReallocAddr, ulReqBlk);
    TMMBcptr stMatchBlk;
    stMatchBlk.pstBlk = astBlkTail[hulHandle].pstBlk;
    while (stMatchBlk.pstBlk != nullptr && stMatchBlk.ulyisl > MM_Addr(pubReallocAddr))
        stMatchBlk.pstBlk = MM_Back(stMatchBlk.pstBlk);
    MM_ASSERT((stMatchBlk.pstBlk) && "There is no free space", EASSERT);

    const U32 ulResult = stMatchBlk.ulyisl == MM_Addr(pubReallocAddr)
                             ? ClaimFront(hulHandle, stMatchBlk.pstBlk, ulReqBlk)
                             : ClaimInside(hulHandle, stMatchBlk.pstBlk, pubReallocAddr, pubBlkEndAddr, ulReqBlk);
    if (ulResult != ENOERR)
        return ulResult;
    MM_RefillRunIndex(hulHandle);

    stSeg.ulTotalAllocBlkNum += ulReqBlk;
    stSeg.ulTotalFreeBlkNum -= ulReqBlk;
    stSeg.ulLargestBlkSize = MM_FindNewLargestBlk(hulHandle);
    MM_ASSERT((stSegTable[hulHandle].ulLargestBlkSize >= 0) && (stSegTable[hulHandle].ulLargestBlkSize <= stSegTable[hulHandle].ulTotalFreeBlkNum),
              EASSERT);
    return ENOERR;
}

/* Owners -------------------------------------------------------------------------------------------- */

namespace {

constexpr U8 PERMANENT_MAP_ID = 254;

} // namespace

U32 MM_CollectGarbage(U32 hulHandle, U8 ubMapID)
{
    hulHandle = MM_RealHandle(hulHandle);
    MM_ASSERT((hulHandle < MAX_SEGTABLE_SIZE && hulHandle >= 0) && "The range of Handle is beyond MST range", EASSERT);
    MM_CleanUp(hulHandle, ubMapID);
    return ENOERR;
}

void MM_SetPermanentBlk(U32 ulBlkPtr, U32 ulSize)
{
    MM_GUARD(MM_GuardedMark(HEAPHANDLE, ulBlkPtr, ulSize, PERMANENT_MAP_ID));
    if (ulPermanentBlkStartPtr == 0)
        ulPermanentBlkStartPtr = ulBlkPtr;
    ulPermanentBlkCount += ulSize;
    if constexpr (MM_Guarded)
        return;
    MM_ClearMap(HEAPHANDLE, MM_At(ulBlkPtr), ulSize);
    MM_SetMap(HEAPHANDLE, MM_At(ulBlkPtr), ulSize, PERMANENT_MAP_ID);
}

void MM_ReleasePermanentBlk(U32 ulBlkPtr, U32 ulSize)
{
    MM_GUARD(MM_GuardAllocated(HEAPHANDLE, ulBlkPtr, ulSize));
    if (ulBlkPtr == ulPermanentBlkStartPtr)
        ulPermanentBlkStartPtr = 0;
    MM_FreeBlk(HEAPHANDLE, MM_At(ulBlkPtr), ulSize);
    ulPermanentBlkCount = ulPermanentBlkCount > ulSize ? ulPermanentBlkCount - ulSize : 0;
}

void MM_RlsAllPermanentBlk(void)
{
    MM_CleanUp(HEAPHANDLE, PERMANENT_MAP_ID);
    ulPermanentBlkCount = 0;
    ulPermanentBlkStartPtr = 0;
}

U32 MM_GetPermanentStartBlk(void)
{
    return ulPermanentBlkStartPtr;
}

U32 MM_CheckPermanentBlk(U32 ulBlkPtr, U32 ulSize)
{
    if (stSegTable[HEAPHANDLE].stInfoFromApp.ubMap == 0)
        return 0;

    MM_GUARD(MM_GuardAllocated(HEAPHANDLE, ulBlkPtr, ulSize), EASSERT);
    const TMMRange stRange = MM_RangeOf(HEAPHANDLE, MM_At(ulBlkPtr));
    const U8* pubMapStartAddr = stRange.pubMapStartAddr;
    const U8* pubMapEndAddr = stRange.pubMapEndAddr;
    CMMMapWalker clWalker = MM_WalkMap(HEAPHANDLE, stRange, MM_At(ulBlkPtr));
    TMMBcptr stTempBlk;

    stTempBlk.pubyiscp = clWalker.Byte();
    MM_ASSERT(stTempBlk.pubyiscp >= pubMapStartAddr, EASSERT);
    MM_ASSERT(stTempBlk.pubyiscp < pubMapEndAddr, EASSERT);

    for (U32 ulBlk = 0; ulBlk < ulSize; ++ulBlk) {
        if (clWalker.NextByte()) {
            stTempBlk.pubyiscp = clWalker.Byte();
            MM_ASSERT(stTempBlk.pubyiscp <= pubMapEndAddr, EASSERT);
        }
        clWalker.NextEntry();
        const U8 ubBitMask = clWalker.EntryMask();
        MMP_Touch(stTempBlk.pubyiscp, 1);
        if (stSegTable[HEAPHANDLE].stInfoFromApp.ubMap > 1)
            MM_ASSERT(((*(stTempBlk.pubyiscp) & ubBitMask ) != 0) && "This bit is already freed!!", EASSERT);
        /* INTENDED(permanent-test): the mask is in position already and is shifted once more, uncut; exact for entries
         * of eight bits. */
        if ((*stTempBlk.pubyiscp & ubBitMask) != (static_cast<U32>(ubBitMask & 0xFE) << clWalker.BitPos()))
            return 0;
    }
    return 1;
}

/* Queries ------------------------------------------------------------------------------------------- */

U32 MM_GetTotBlk(U32 hulHandle)
{
    hulHandle = MM_RealHandle(hulHandle);
    MM_ASSERT((hulHandle < MAX_SEGTABLE_SIZE && hulHandle >= 0) && "The range of Handle is beyond MST range", EASSERT);
    return stSegTable[hulHandle].ulTotalBlkNum;
}

U32 MM_GetTotAvailBlk(U32 hulHandle)
{
    hulHandle = MM_RealHandle(hulHandle);
    MM_ASSERT((hulHandle < MAX_SEGTABLE_SIZE && hulHandle >= 0) && "The range of Handle is beyond MST range", EASSERT);
    return stSegTable[hulHandle].ulTotalFreeBlkNum;
}

U32 MM_GetLargestBlk(U32 hulHandle)
{
    hulHandle = MM_RealHandle(hulHandle);
    MM_ASSERT((hulHandle < MAX_SEGTABLE_SIZE && hulHandle >= 0) && "The range of Handle is beyond MST range", EASSERT);
    return stSegTable[hulHandle].ulLargestBlkSize;
}

U32 MM_GetInitTotBlk(U32 hulHandle)
{
    MM_ASSERT((hulHandle < MAX_SEGTABLE_SIZE) && "Handle value is invalid!!", EASSERT);
    return stSegTable[hulHandle].ulTotalBlkNum;
}

namespace {

/* End of the heap piece that starts at pstHEAPBiggestBlk; 0 when none does. */
U32 BiggestPieceEnd()
{
    for (U8 ubIdx = 0; MM_IsPiece(ubIdx); ++ubIdx)
        if (MM_PieceAddr(PIECE_START, ubIdx) == MM_Addr(pstHEAPBiggestBlk))
            return MM_PieceAddr(PIECE_END, ubIdx);
    return 0;
}

} // namespace

U8* MM_GetStartAddrOfSegment(U32 hulHandle)
{
    if (MM_RealHandle(hulHandle) == HEAPHANDLE)
        return reinterpret_cast<U8*>(pstHEAPBiggestBlk);
    MM_GUARD(MM_GuardHandle(hulHandle), nullptr);
    return stSegTable[hulHandle].pubStartAddr;
}

U32 MM_GetEndAddrOfSegment(U32 hulHandle)
{
    MM_GUARD(MM_GuardHandle(MM_RealHandle(hulHandle)), MM_FAILED);
    if (MM_RealHandle(hulHandle) != HEAPHANDLE)
        return MM_Addr(stSegTable[hulHandle].pubEndAddr);
    const U32 ulEnd = BiggestPieceEnd();
    MM_ASSERT_MESSAGE(ulEnd != 0, "can't find the end address of segment", MM_FAILED);
    return ulEnd;
}

U8* MM_GetRCBEnd(U32 hulHandle)
{
    MM_GUARD(MM_GuardHandle(hulHandle), nullptr);
    return stSegTable[hulHandle].pubEndAddr;
}

TMSTInfo* MM_ReadMST(U32 hulHandle)
{
    hulHandle = MM_RealHandle(hulHandle);
    MM_ASSERT_MESSAGE(hulHandle < MAX_SEGTABLE_SIZE, "The range of Handle is beyond MST range.", MM_At<TMSTInfo>(MM_FAILED));

    const TMMSegInfo& stSeg = stSegTable[hulHandle];
    stMSTInfo.pubEndSegAddr = nullptr;
    stMSTInfo.ulBlkSize = stSeg.stInfoFromApp.ulBlkSize;
    stMSTInfo.ulTotalSegsize = stSeg.ulRealAvailSize;
    if (hulHandle != HEAPHANDLE) {
        stMSTInfo.pubStartSegAddr = stSeg.pubStartAddr;
        stMSTInfo.pubEndSegAddr = stSeg.pubEndAddr;
        return &stMSTInfo;
    }
    stMSTInfo.pubEndSegAddr = MM_At(BiggestPieceEnd());
    MM_ASSERT_MESSAGE(stMSTInfo.pubEndSegAddr != nullptr, "can't find the end address of segment", MM_At<TMSTInfo>(MM_FAILED));
    stMSTInfo.pubStartSegAddr = reinterpret_cast<U8*>(pstHEAPBiggestBlk);
    return &stMSTInfo;
}

U8 MM_GetMST(U32 ulIndex, TMMSegInfo* pstSegInfo)
{
    if (ulIndex >= HEAPHANDLE)
        return 255;
    *pstSegInfo = stSegTable[ulIndex];
    return 0;
}

void MM_ReadMCT(U8* aubCFGID, U32* pubStartAddr, U32* pubSegSize)
{
    TSegRange stSegRange{};

    MM_ReadSegOnMCT(aubCFGID, &stSegRange);
    *pubStartAddr = MM_Addr(stSegRange.pubStartAddr);
    if (pubSegSize != nullptr)
        *pubSegSize = stSegRange.ulRetSegSize;
}

BOOL MM_CheckSegment(U32 hulHandle, U32 ulAddr)
{
    MM_GUARD(MM_GuardHandle(hulHandle), FALSE);
    /* INTENDED(end-is-inside): the end address itself counts. */
    return MM_Addr(stSegTable[hulHandle].pubStartAddr) <= ulAddr && ulAddr <= MM_Addr(stSegTable[hulHandle].pubEndAddr);
}

U32 MM_GetPhysAddr(U32, U32 ulStart)
{
    MM_ASSERT(ulStart, EASSERT);
    return MM_PhysAddr(ulStart);
}

void MM_GetTotalMemoryStatus(U32* pulTotal, U32* pulFree)
{
    U32 ulTotal = 0;
    U32 ulFree = 0;

    for (const TMMSegInfo& stSeg : stSegTable) {
        ulTotal += stSeg.ulRealAvailSize;
        ulFree += stSeg.ulTotalFreeBlkNum * stSeg.stInfoFromApp.ulBlkSize;
    }
    *pulTotal = ulTotal;
    *pulFree = ulFree;
}

void MM_GetCollationCopyMemoryStatus(U32* pulTotal, U32* pulFree)
{
    const TMMSegInfo& stHeap = stSegTable[HEAPHANDLE];
    const bool fReady = MM_CheckSegInitCompleted(HEAPHANDLE);

    *pulTotal = fReady ? stHeap.ulRealAvailSize : 0;
    *pulFree = fReady ? stHeap.ulTotalFreeBlkNum * stHeap.stInfoFromApp.ulBlkSize : 0;
}

void MM_RunningMultiJob_Notify(U32 ulValue)
{
    ulRunningMultiJob = ulValue;
}

/* Display ------------------------------------------------------------------------------------------- */

namespace {

/* A line of the display or the trace. */
struct TMMRow {
    const TSegInfoFromApp& stName;
    U32 ulSize, ulTotal, ulAlloc, ulFree, ulLargest, ulStart, ulEnd;
    U32 ulMapStart, ulMapEnd;
};

using TMMPrintRow = void (*)(const TMMRow& stRow);

/* The name, handle, block size and VM column come from the request record, the rest from the row. */
#define MM_ROW_ARGS(r)                                                                                               \
    (r).stName.aubSegID[0], (r).stName.aubSegID[1], (r).stName.aubSegID[2], (r).stName.aubSegID[3],                  \
        (r).stName.hulHandle, (r).ulSize, (r).stName.ulBlkSize, (r).ulTotal, (r).ulAlloc, (r).ulFree, (r).ulLargest, \
        (r).stName.ubVM, (r).ulStart, (r).ulEnd

void PrintDisplayRow(const TMMRow& stRow)
{
    MMP_Print(" %c%c%c%c%4d-%9x-%9x-%9x-%9x-%9x-%9x-%2x-%9x-%9x\n", MM_ROW_ARGS(stRow));
}

void PrintTraceRow(const TMMRow& stRow)
{
    MMP_Print("\r\n %c%c%c%c      %2d   0x%8x   %8d %8d    %8d    %8d   %8d   %d  0x%8x 0x%8x", MM_ROW_ARGS(stRow));
}

void PrintHeapTraceRow(const TMMRow& stRow)
{
    MMP_Print("\r\n %c%c%c%c      %2d   0x%8x   %8d %8d    %8d    %8d  %8d  %d  0x%8x 0x%8x 0x%x 0x%x",
              MM_ROW_ARGS(stRow), stRow.ulMapStart, stRow.ulMapEnd);
}

void PrintEntry(U32 hulHandle, TMMPrintRow pfnPrint)
{
    const TMMSegInfo& stSeg = stSegTable[hulHandle];
    pfnPrint({stSeg.stInfoFromApp, stSeg.stInfoFromApp.ulRetSegSize, stSeg.ulTotalBlkNum, stSeg.ulTotalAllocBlkNum,
              stSeg.ulTotalFreeBlkNum, stSeg.ulLargestBlkSize, MM_Addr(stSeg.pubStartAddr), MM_Addr(stSeg.pubEndAddr),
              0, 0});
}

/* Entry 0, and every other segment below the heap that has been given a handle. */
void PrintUsedEntries(TMMPrintRow pfnPrint)
{
    for (U32 hulHandle = 0; hulHandle < HEAPHANDLE; ++hulHandle)
        if (hulHandle == 0 || stSegTable[hulHandle].stInfoFromApp.hulHandle != 0)
            PrintEntry(hulHandle, pfnPrint);
}

/* Free blocks of the heap whose run starts in [ulStart, ulEnd). */
U32 FreeBlocksIn(U32 ulStart, U32 ulEnd)
{
    U32 ulFree = 0;
    if constexpr (MM_Guarded)
        return MM_GuardFreeInPiece(ulStart);
    for (const TMMBlkStr* pstRun = astBlkHead[HEAPHANDLE].pstBlk; pstRun != nullptr; pstRun = MM_Next(pstRun))
        if (MM_Addr(pstRun) >= ulStart && MM_Addr(pstRun) < ulEnd)
            ulFree += MM_Size(pstRun);
    return ulFree;
}

void PrintPieces(TMMPrintRow pfnPrint)
{
    const TMMSegInfo& stHeap = stSegTable[HEAPHANDLE];
    for (U8 ubIdx = 0; MM_IsPiece(ubIdx); ++ubIdx) {
        const U32 ulStart = MM_PieceAddr(PIECE_START, ubIdx);
        const U32 ulEnd = MM_PieceAddr(PIECE_END, ubIdx);
        const U32 ulTotal = (ulEnd - ulStart) / stHeap.stInfoFromApp.ulBlkSize;
        const U32 ulFree = FreeBlocksIn(ulStart, ulEnd);
        pfnPrint({stHeap.stInfoFromApp, ulEnd - ulStart, ulTotal, ulTotal - ulFree, ulFree, stHeap.ulLargestBlkSize,
                  ulStart, ulEnd, MM_PieceAddr(PIECE_MAP_START, ubIdx), MM_PieceAddr(PIECE_MAP_END, ubIdx)});
    }
}

} // namespace

void MM_DisplayMST(U32 ulSelector)
{
    MM_GUARD(MM_GuardSelector(ulSelector));
    MMP_Print("==============================================================================================\n");
    MMP_Print("                             Display MST                                                     =\n");
    MMP_Print("[S_ID][Hd][Seg Size][BlkSize][TotBNO][TAllocBNO][TFreeBNO][TLargeBNO][VM][StartAdd][EndAddre]=\n");
    if (ulSelector == MM_DISPLAY_ALL)
        PrintUsedEntries(PrintDisplayRow);
    else if (ulSelector != HEAPHANDLE)
        PrintEntry(ulSelector, PrintDisplayRow);
    if (ulSelector == MM_DISPLAY_ALL || ulSelector == HEAPHANDLE)
        PrintPieces(PrintDisplayRow);
    MMP_Print("==========================================================================\n");
}

void MM_TraceMST(U32 ulSelector)
{
    if (ulSelector == MM_DISPLAY_ALL) {
        PrintUsedEntries(PrintTraceRow);
        PrintPieces(PrintTraceRow);
    } else if (ulSelector == HEAPHANDLE) {
        PrintPieces(PrintHeapTraceRow);
    }
}

/* Printer job language ------------------------------------------------------------------------------ */

namespace {

struct TPJLCommand {
    const char* pcWord;
    U32 ulLength; /* INTENDED(word-begins): any command that begins with the word matches */
    void (*pfnRun)(U8* aubCFGID, U32 ulSize, U8* pubAddr);
};

constexpr TPJLCommand astPJLCommand[] = {
    {"FIXEDADD", 8, [](U8* aubCFGID, U32 ulSize, U8* pubAddr) { MM_AddSegment(aubCFGID, ulSize, pubAddr); }},
    {"FIXEDDELETE", 11, [](U8* aubCFGID, U32, U8*) { MM_DeleteSegment(aubCFGID); }},
    {"CLEARSEGMENT", 12, [](U8* aubCFGID, U32, U8*) { MM_ClearSegment(aubCFGID); }},
};

} // namespace

U32 MM_ExecPJL(U8* pubCommand, U8* aubCFGID, U32 ulSize, U8* pubAddr)
{
    MM_ASSERT(pubCommand != NULL && "pubCommand is NULL. Can't execute function", EASSERT);
    MM_ASSERT(strncmp(aubCFGID, (U8*)"$MCT", 4) && "MCT can't be modified", EASSERT);

    for (const TPJLCommand& stCommand : astPJLCommand) {
        if (strncmp(pubCommand, reinterpret_cast<const U8*>(stCommand.pcWord), stCommand.ulLength) == 0) {
            stCommand.pfnRun(aubCFGID, ulSize, pubAddr);
            break;
        }
    }
    return ENOERR;
}
