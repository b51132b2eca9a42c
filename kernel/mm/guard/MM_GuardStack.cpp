/*
 * MM_GuardStack - stacks in the guarded build. Their truth is in kernel memory in any case: the two ends and the counts. What is added
 * is that both agree, that a refusal changes nothing, and the lock of all blocks.
 */
#include "../mm/MM_Stack.h"
#include "MM_Guard.h"

namespace {

U32 Pushed(U32 hulHandle)
{
    return MM_Addr(stSegTable[hulHandle].pubEndAddr) - MM_Addr(astStackStr[hulHandle].pubStackHead);
}

bool IsStack(U32 hulHandle)
{
    return stSegTable[hulHandle].pfnFree == MM_Pop && hulHandle != HEAPHANDLE;
}

/* Moves the stack's end, and counts. */
void Move(U32 hulHandle, U32 ulHead, U32 ulTaken, U32 ulGiven)
{
    TMMSegInfo& stSeg = stSegTable[hulHandle];
    astStackStr[hulHandle].pubStackHead = MM_At(ulHead);
    stSeg.ulTotalFreeBlkNum = stSeg.ulTotalFreeBlkNum - ulTaken + ulGiven;
    stSeg.ulTotalAllocBlkNum = stSeg.ulTotalAllocBlkNum + ulTaken - ulGiven;
    stSeg.ulLargestBlkSize = MM_StackFree(hulHandle);
}

/* Where the stack's end is after a push; 0 when it does not fit. */
U32 Push(U32 hulHandle, U32 ulReqBlkNum, U32 ulRounded)
{
    const TStackStr& stStack = astStackStr[hulHandle];
    const TMMSegInfo& stSeg = stSegTable[hulHandle];
    if (!IsStack(hulHandle) || ulReqBlkNum == 0 || ulReqBlkNum > stSeg.ulLargestBlkSize ||
        ulReqBlkNum > stSeg.ulTotalFreeBlkNum ||
        ulRounded > MM_Addr(stStack.pubStackHead) - MM_Addr(stStack.pubStackTail))
        return 0;
    const U32 ulHead = MM_Addr(stStack.pubStackHead) - ulRounded;
    Move(hulHandle, ulHead, ulReqBlkNum, 0);
    return ulHead;
}

/* False when the blocks are not the last ones that were pushed. Blocks below four bytes were rounded up when they
 * were pushed: what stays must hold what is still counted, and nothing may stay when nothing is. */
bool Pop(U32 hulHandle, U32 ulAddr, U32 ulBlkNo)
{
    const TMMSegInfo& stSeg = stSegTable[hulHandle];
    if (!IsStack(hulHandle) || ulAddr != MM_Addr(astStackStr[hulHandle].pubStackHead) || ulBlkNo == 0 ||
        ulBlkNo > stSeg.ulTotalAllocBlkNum)
        return false;
    const U32 ulBytes = MM_StackBytes(MM_BlkToBytes(ulBlkNo, stSeg.ubBlkBit));
    const U32 ulLeft = stSeg.ulTotalAllocBlkNum - ulBlkNo;
    if (ulBytes > Pushed(hulHandle) || Pushed(hulHandle) - ulBytes < MM_BlkToBytes(ulLeft, stSeg.ubBlkBit))
        return false;
    Move(hulHandle, ulLeft == 0 ? MM_Addr(stSeg.pubEndAddr) : ulAddr + ulBytes, 0, ulBlkNo);
    return true;
}

} // namespace

U8* MM_GuardedPush(U32 hulHandle, U32 ulReqBlkNum)
{
    const U32 ulBytes = MM_BlkToBytes(ulReqBlkNum, stSegTable[hulHandle].ubBlkBit);
    const U32 ulRounded = MM_StackBytes(ulBytes);
    if (ulRounded != ulBytes)
        MMP_Print("\r\n[MM] H(%d) Push Bef (%d) after(%d)", static_cast<S32>(hulHandle), static_cast<S32>(ulBytes),
                  static_cast<S32>(ulRounded));
    MMP_LockIrq(search_lock);
    const U32 ulHead = Push(hulHandle, ulReqBlkNum, ulRounded);
    MMP_UnlockIrq(search_lock);
    return MM_At(ulHead);
}

U32 MM_GuardedPop(U32 hulHandle, U8* pubRlsAddr, U32 ulBlkNo)
{
    MMP_LockIrq(search_lock);
    const bool fPopped = Pop(hulHandle, MM_Addr(pubRlsAddr), ulBlkNo);
    MMP_UnlockIrq(search_lock);
    if (fPopped)
        return ENOERR;
    MM_GuardReport(NOT_LAST_PUSHED, hulHandle, MM_Addr(pubRlsAddr), ulBlkNo);
    return EASSERT;
}

bool MM_GuardPushed(U32 ulAddr, U32 ulBytes)
{
    for (U32 hulHandle = 0; hulHandle < HEAPHANDLE; ++hulHandle) {
        const U32 ulHead = MM_Addr(astStackStr[hulHandle].pubStackHead);
        if (IsStack(hulHandle) && ulAddr >= ulHead && ulAddr - ulHead < Pushed(hulHandle) &&
            ulBytes <= Pushed(hulHandle) - (ulAddr - ulHead))
            return true;
    }
    return false;
}
