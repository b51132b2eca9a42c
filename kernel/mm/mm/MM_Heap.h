/*
 * MM_Heap.h - the heap's pieces. The address fields of the heap's MST entry hold no addresses of memory but
 * refer to arrays with one element for each piece; a start of 0xFFFFFFFF, or the fifth piece, ends them.
 */
#ifndef MM_HEAP_H
#define MM_HEAP_H

#include "MM_Core.h"

enum EMMPieceField { PIECE_START, PIECE_END, PIECE_MAP_START, PIECE_MAP_END };

/* An element of one of the heap's arrays; ubIdx may lie beyond the last piece. An array that is missing, and what lies
 * beyond an array, counts as unused. */
inline U32 MM_PieceAddr(EMMPieceField enField, U8 ubIdx)
{
    const TMMSegInfo& stHeap = stSegTable[HEAPHANDLE];
    const U8* const apubArray[] = {stHeap.pubStartAddr, stHeap.pubEndAddr, stHeap.pubMapStartAddr,
                                   stHeap.pubMapEndAddr};
    const auto* pstRange = reinterpret_cast<const THeapAddrRange*>(apubArray[enField]);
    return pstRange == nullptr || ubIdx >= MAX_PIECE_NUM ? MM_UNUSED_PIECE : pstRange->aulHeapAddr[ubIdx];
}

/* TRUE while ubIdx is a piece of the heap; never before the heap has both arrays, of starts and of ends. */
inline bool MM_IsPiece(U8 ubIdx)
{
    return stSegTable[HEAPHANDLE].pubEndAddr != nullptr && MM_PieceAddr(PIECE_START, ubIdx) != MM_UNUSED_PIECE;
}

/* The piece that holds an address. No piece (MM_IsPiece) but the number of pieces, up to 5, when none does. */
inline U8 MM_FindPiece(U32 ulAddr)
{
    U8 ubIdx = 0;
    while (MM_IsPiece(ubIdx) && (ulAddr < MM_PieceAddr(PIECE_START, ubIdx) || ulAddr >= MM_PieceAddr(PIECE_END, ubIdx)))
        ++ubIdx;
    return ubIdx;
}

/* Where a segment's blocks and map end, for the part of it that holds an address. Of the heap for an address in none of
 * its pieces: MM_UNUSED_PIECE, all of them. */
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
        return MM_PieceRange(MM_FindPiece(MM_Addr(pubAddr)));
    const TMMSegInfo& stSeg = stSegTable[hulHandle];
    return {stSeg.pubEndAddr, stSeg.pubMapStartAddr, stSeg.pubMapEndAddr};
}

#endif
