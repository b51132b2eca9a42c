/*
 * MM_MCT - rows of the memory configuration table: look up, fill, empty, clear.
 * The table in use is always reached through pstMCTTable. Names are compared as strncmp does over 4 bytes.
 */
#include "MM_Memory.h"

TMCTInfo* pstMCTTable[MAX_MCT_NUM];
TMCTInfo MCTTable[MAX_MCT_NUM];
U32 ulCheckSumField;

namespace {

constexpr U8 aubEmptyID[4] = {' ', 0, 0, 0};

bool IsNamed(const TMCTInfo* pstRow, const U8* aubID)
{
    return strncmp(pstRow->aubCFGID, aubID, 4) == 0;
}

void SetName(TMCTInfo* pstRow, const U8* aubID)
{
    for (U8 ubIdx = 0; ubIdx < 4; ++ubIdx)
        pstRow->aubCFGID[ubIdx] = aubID[ubIdx];
}

void ZeroMemory(const TMCTInfo* pstRow)
{
    if (pstRow->ulSize != 0)
        MM_FillMemory(pstRow->pubStartAddr, 0, pstRow->ulSize);
}

bool IsClearable(const TMCTInfo* pstRow)
{
    return !MM_SameName(pstRow->aubCFGID, "$MCT") && !MM_SameName(pstRow->aubCFGID, "$UEV") &&
           !MM_SameName(pstRow->aubCFGID, "$RJL") && !IsNamed(pstRow, aubEmptyID);
}

} // namespace

U32 MM_ReadSegOnMCT(U8* aubSegID, TSegRange* pstSegRange)
{
    MM_GUARD(MM_GuardHasMCT(), EASSERT);
    MM_ASSERT((aubSegID != NULL) && "Such MCT ID doesn't exist in MCT", EASSERT);

    for (U32 ulIdx = 0; ulIdx < MAX_MCT_NUM; ++ulIdx) {
        const TMCTInfo* pstRow = pstMCTTable[ulIdx];
        if (!IsNamed(pstRow, aubSegID))
            continue;
        pstSegRange->ulMCTIDX = ulIdx;
        pstSegRange->ulRetSegSize = pstRow->ulSize;
        pstSegRange->pubStartAddr = pstRow->pubStartAddr;
        pstSegRange->pubEndAddr = MM_At(MM_Addr(pstRow->pubStartAddr) + pstRow->ulSize);
        return ENOERR;
    }
    MM_ASSERT(0 && "Can't find such ID in MCT", EASSERT);
}

U32 MM_AddSegment(U8* aubCFGID, U32 ulSize, U8* pubAddr)
{
    TSegRange stEmptyRow;

    MM_GUARD(MM_GuardRow(MM_Addr(pubAddr), ulSize), EASSERT);
    if (MM_ReadSegOnMCT(const_cast<U8*>(aubEmptyID), &stEmptyRow) != ENOERR)
        MM_ASSERT(0 && "There is no more space to add segment", EASSERT);

    TMCTInfo* pstRow = pstMCTTable[stEmptyRow.ulMCTIDX];
    pstRow->ulSize = ulSize;
    pstRow->pubStartAddr = pubAddr;
    SetName(pstRow, aubCFGID);
    return ENOERR;
}

U32 MM_DeleteSegment(U8* aubCFGID)
{
    TMCTInfo* pstRow = nullptr;
    BOOL ubResult = FALSE;

    MM_GUARD(MM_GuardHasMCT(), EASSERT);
    for (U8 ubIdx = 0; ubIdx < MAX_MCT_NUM && ubResult == FALSE; ++ubIdx) {
        pstRow = pstMCTTable[ubIdx];
        ubResult = IsNamed(pstRow, aubCFGID) ? TRUE : FALSE;
    }
    MM_ASSERT((ubResult == TRUE) && "Can't find such SegmentID", EASSERT);

    ZeroMemory(pstRow);
    pstRow->ulSize = 0;
    pstRow->pubStartAddr = nullptr;
    SetName(pstRow, aubEmptyID);
    return ENOERR;
}

U32 MM_ClearSegment(U8* pubSegID)
{
    const bool fAll = MM_SameName(pubSegID, "$ALL");

    MM_GUARD(MM_GuardHasMCT(), EASSERT);
    for (const TMCTInfo* pstRow : pstMCTTable) {
        if (fAll) {
            if (IsClearable(pstRow))
                ZeroMemory(pstRow);
        } else if (IsNamed(pstRow, pubSegID)) {
            ZeroMemory(pstRow);
            break;
        }
    }
    return ENOERR;
}

U32 MM_RestoreMCT(void)
{
    MM_GUARD(MM_GuardHasMCT(), EASSERT);
    for (U8 iubMCTTableIDX = 0; iubMCTTableIDX < MAX_MCT_NUM; ++iubMCTTableIDX) {
        if (!MM_SameName(pstMCTTable[iubMCTTableIDX]->aubCFGID, "$UEV"))
            continue;
        MM_ASSERT(pstMCTTable[iubMCTTableIDX]->pubStartAddr <= (U8*)((U32)*pubSegMemEndAddr - pstMCTTable[iubMCTTableIDX]->ulSize),
                  EASSERT);
        ZeroMemory(pstMCTTable[iubMCTTableIDX]);
    }
    return ENOERR;
}

U8 MM_GetMCT(U32 cfgid, TMCTInfo* SegInfo)
{
    if (cfgid >= MAX_MCT_NUM)
        return 255;
    *SegInfo = stDefaultMCTTable[cfgid];
    return 0;
}

U32 MM_RearrangeMCT(TMCTInfo** pstTempMCT)
{
    for (U8 ubIdx = 1; ubIdx < MAX_MCT_NUM; ++ubIdx)
        pstTempMCT[ubIdx] = pstTempMCT[ubIdx - 1] + 1;
    return ENOERR;
}

BOOL MM_CheckSumMCT(void)
{
    return TRUE;
}
