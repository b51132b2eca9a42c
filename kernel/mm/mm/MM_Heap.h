/*
 * MM_Heap.h - the heap's pieces. The addresses in the heap's MST entry do not hold memory addresses but
 * refer to arrays with one element for each piece; a start of 0xFFFFFFFF, or the fifth piece, ends them.
 */
#ifndef MM_HEAP_H
#define MM_HEAP_H

#include "MM_Core.h"

enum EMMPieceField { PIECE_START, PIECE_END, PIECE_MAP_START, PIECE_MAP_END };

/* An element of one of the heap's arrays. ubIdx may be 5, the answer of MM_GetHeapBlkID for an address in
 * no piece of a full heap: an element past the array counts as unused. */
inline U32 MM_PieceAddr(EMMPieceField enField, U8 ubIdx)
{
    const TMMSegInfo& stHeap = stSegTable[HEAPHANDLE];
    const U8* const apubArray[] = {stHeap.pubStartAddr, stHeap.pubEndAddr, stHeap.pubMapStartAddr,
                                   stHeap.pubMapEndAddr};
    const auto* pstRange = reinterpret_cast<const THeapAddrRange*>(apubArray[enField]);
    return pstRange == nullptr || ubIdx >= MAX_PIECE_NUM ? MM_UNUSED_PIECE : pstRange->aulHeapAddr[ubIdx];
}

/* TRUE while ubIdx is a piece of the heap; never before the heap exists. */
inline bool MM_IsPiece(U8 ubIdx)
{
    return MM_PieceAddr(PIECE_START, ubIdx) != MM_UNUSED_PIECE;
}

inline bool MM_IsInPiece(U8 ubIdx, U32 ulAddr)
{
    return MM_PieceAddr(PIECE_START, ubIdx) <= ulAddr && ulAddr < MM_PieceAddr(PIECE_END, ubIdx);
}

/* Where a segment's blocks and map end, for the part of it that holds an address. */
struct TMMRange {
    U8* pubEndAddr;
    U8* pubMapStartAddr;
    U8* pubMapEndAddr;
};

inline TMMRange MM_PieceRange(U8 ubIdx)
{
    return {MM_At(MM_PieceAddr(PIECE_END, ubIdx)), MM_At(MM_PieceAddr(PIECE_MAP_START, ubIdx)),
            MM_At(MM_PieceAddr(PIECE_MAP_END, ubIdx))};
}

inline TMMRange MM_RangeOf(U32 hulHandle, U8* pubAddr)
{
    if (hulHandle == HEAPHANDLE)
        return MM_PieceRange(MM_GetHeapBlkID(pubAddr));
    const TMMSegInfo& stSeg = stSegTable[hulHandle];
    return {stSeg.pubEndAddr, stSeg.pubMapStartAddr, stSeg.pubMapEndAddr};
}

#endif
