/*
 * MM_List.h - the free lists: doubly linked, in address order, each node in the first 12 bytes of the
 * free stretch that it describes.
 *
 * Two lists share the node: the free-memory list (memory that no segment holds, sizes in bytes) and
 * each segment's list of free runs (sizes in blocks). They differ in how they know that a node stands at an
 * end: the free-memory list by comparing it with its head and tail, a run list by a null link. The two agree
 * wherever a list is whole.
 *
 * In the guarded build these are the operations of the free-memory list, whose nodes the guard keeps; runs are its own affair.
 */
#ifndef MM_LIST_H
#define MM_LIST_H

#include "../guard/MM_Guard.h"
#include "MM_Core.h"

/* Node fields, each access announced to the platform ------------------------------------------------ */

inline void MM_TouchField(const TMMBlkStr* pstBlk, U32 ulOffset)
{
    MMP_Touch(MM_At(MM_Addr(pstBlk) + ulOffset), 4);
}

inline TMMBlkStr* MM_Next(const TMMBlkStr* pstBlk)
{
    if constexpr (MM_Guarded)
        return MM_GuardNext(pstBlk);
    MM_TouchField(pstBlk, 0);
    return pstBlk->pstNext;
}

inline TMMBlkStr* MM_Back(const TMMBlkStr* pstBlk)
{
    if constexpr (MM_Guarded)
        return MM_GuardBack(pstBlk);
    MM_TouchField(pstBlk, 4);
    return pstBlk->pstBack;
}

inline U32 MM_Size(const TMMBlkStr* pstBlk)
{
    if constexpr (MM_Guarded)
        return MM_GuardSize(pstBlk);
    MM_TouchField(pstBlk, 8);
    return pstBlk->ulSize;
}

inline void MM_SetNext(TMMBlkStr* pstBlk, TMMBlkStr* pstNext)
{
    if constexpr (MM_Guarded)
        return MM_GuardSetNode(pstBlk, 0, MM_Addr(pstNext));
    MM_TouchField(pstBlk, 0);
    pstBlk->pstNext = pstNext;
}

inline void MM_SetBack(TMMBlkStr* pstBlk, TMMBlkStr* pstBack)
{
    if constexpr (MM_Guarded)
        return MM_GuardSetNode(pstBlk, 4, MM_Addr(pstBack));
    MM_TouchField(pstBlk, 4);
    pstBlk->pstBack = pstBack;
}

inline void MM_SetSize(TMMBlkStr* pstBlk, U32 ulSize)
{
    if constexpr (MM_Guarded)
        return MM_GuardSetNode(pstBlk, 8, ulSize);
    MM_TouchField(pstBlk, 8);
    pstBlk->ulSize = ulSize;
}

/* A node's three fields, away from the memory that it describes. */
struct TMMNode {
    TMMBlkStr* pstNext;
    TMMBlkStr* pstBack;
    U32 ulSize;
};

inline TMMNode MM_ReadNode(const TMMBlkStr* pstBlk)
{
    TMMBlkStr* pstNext = MM_Next(pstBlk);
    TMMBlkStr* pstBack = MM_Back(pstBlk);
    return {pstNext, pstBack, MM_Size(pstBlk)};
}

inline void MM_WriteNode(TMMBlkStr* pstBlk, const TMMNode& stNode)
{
    MM_SetNext(pstBlk, stNode.pstNext);
    MM_SetBack(pstBlk, stNode.pstBack);
    MM_SetSize(pstBlk, stNode.ulSize);
}

/* First address past a run of blocks. */
inline U32 MM_RunEnd(const TMMBlkStr* pstBlk, U8 ubBlkBit)
{
    return MM_Addr(pstBlk) + MM_BlkToBytes(MM_Size(pstBlk), ubBlkBit);
}

/* The two kinds of list ----------------------------------------------------------------------------- */

struct TMMFreeMemoryList {
    TMMBlkStr*& Head() const { return pstSegBlkHead; }
    TMMBlkStr*& Tail() const { return pstSegBlkTail; }
    bool IsFirst(const TMMBlkStr* pstBlk, const TMMNode&) const { return pstBlk == pstSegBlkHead; }
    bool IsLast(const TMMBlkStr* pstBlk, const TMMNode&) const { return pstBlk == pstSegBlkTail; }
};

/* The free-memory list by its links alone, for the heap's take-over: the node in front of an aligned segment can
 * have been written over by that segment (the gap may be smaller than a header), so it need not be an end where
 * its links say so. */
struct TMMFreeMemoryLinks {
    TMMBlkStr*& Head() const { return pstSegBlkHead; }
    TMMBlkStr*& Tail() const { return pstSegBlkTail; }
    bool IsFirst(const TMMBlkStr*, const TMMNode& stNode) const { return stNode.pstBack == nullptr; }
    bool IsLast(const TMMBlkStr*, const TMMNode& stNode) const { return stNode.pstNext == nullptr; }
};

struct TMMRunList {
    U32 hulHandle;

    TMMBlkStr*& Head() const { return astBlkHead[hulHandle].pstBlk; }
    TMMBlkStr*& Tail() const { return astBlkTail[hulHandle].pstBlk; }
    bool IsFirst(const TMMBlkStr*, const TMMNode& stNode) const { return stNode.pstBack == nullptr; }
    bool IsLast(const TMMBlkStr*, const TMMNode& stNode) const { return stNode.pstNext == nullptr; }
};

/* Operations ---------------------------------------------------------------------------------------- */

/* Takes a node out; its own fields stay as they are. */
template <class TList> inline void MM_Unlink(TList stList, TMMBlkStr* pstBlk)
{
    const TMMNode stNode = MM_ReadNode(pstBlk);
    const bool fFirst = stList.IsFirst(pstBlk, stNode);
    const bool fLast = stList.IsLast(pstBlk, stNode);

    if (fLast)
        stList.Tail() = fFirst ? nullptr : stNode.pstBack;
    else
        MM_SetBack(stNode.pstNext, fFirst ? nullptr : stNode.pstBack);
    if (fFirst)
        stList.Head() = fLast ? nullptr : stNode.pstNext;
    else
        MM_SetNext(stNode.pstBack, fLast ? nullptr : stNode.pstNext);
}

/* Makes the neighbours (or the list's ends) of the node at pstOld, whose fields are stNode, point to pstNew. */
template <class TList>
inline void MM_Repoint(TList stList, const TMMBlkStr* pstOld, const TMMNode& stNode, TMMBlkStr* pstNew)
{
    const bool fFirst = stList.IsFirst(pstOld, stNode);
    const bool fLast = stList.IsLast(pstOld, stNode);

    if (fFirst)
        stList.Head() = pstNew;
    else
        MM_SetNext(stNode.pstBack, pstNew);
    if (fLast)
        stList.Tail() = pstNew;
    else
        MM_SetBack(stNode.pstNext, pstNew);
}

/* Puts a new node of ulSize right after pstBlk. */
template <class TList> inline void MM_InsertAfter(TList stList, TMMBlkStr* pstBlk, TMMBlkStr* pstNew, U32 ulSize)
{
    TMMBlkStr* const pstNext = MM_Next(pstBlk);

    MM_WriteNode(pstNew, {pstNext, pstBlk, ulSize});
    if (pstNext != nullptr)
        MM_SetBack(pstNext, pstNew);
    if (stList.Tail() == pstBlk)
        stList.Tail() = pstNew;
    MM_SetNext(pstBlk, pstNew);
}

/* The node with the largest size, the first of equals; null for an empty list. */
inline TMMBlkStr* MM_LargestNode(TMMBlkStr* pstHead)
{
    TMMBlkStr* pstLargest = nullptr;
    U32 ulLargest = 0;
    for (TMMBlkStr* pstBlk = pstHead; pstBlk != nullptr; pstBlk = MM_Next(pstBlk)) {
        const U32 ulSize = MM_Size(pstBlk);
        if (pstLargest == nullptr || ulSize > ulLargest) {
            pstLargest = pstBlk;
            ulLargest = ulSize;
        }
    }
    return pstLargest;
}

/* The largest size in a list; 0 for an empty one. */
inline U32 MM_LargestSize(TMMBlkStr* pstHead)
{
    U32 ulLargest = 0;
    for (TMMBlkStr* pstBlk = pstHead; pstBlk != nullptr; pstBlk = MM_Next(pstBlk)) {
        const U32 ulSize = MM_Size(pstBlk);
        ulLargest = ulSize > ulLargest ? ulSize : ulLargest;
    }
    return ulLargest;
}

/* The smallest node that pfnFits accepts, the first of equals; null when there is none. */
template <class TFits> inline TMMBlkStr* MM_BestFit(TMMBlkStr* pstHead, TFits pfnFits)
{
    TMMBlkStr* pstBestFit = nullptr;
    for (TMMBlkStr* pstBlk = pstHead; pstBlk != nullptr; pstBlk = MM_Next(pstBlk))
        if (pfnFits(pstBlk) && (pstBestFit == nullptr || MM_Size(pstBlk) < MM_Size(pstBestFit)))
            pstBestFit = pstBlk;
    return pstBestFit;
}

#endif
