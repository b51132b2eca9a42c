/*
 * MM_Layout.h - how a segment's blocks and map are laid out, as numbers: alignment and the size of the map.
 */
#ifndef MM_LAYOUT_H
#define MM_LAYOUT_H

#include "MM_Core.h"

/* Alignment unit of a segment's blocks. */
inline U32 MM_AlignUnit(U32 ulBlkSize)
{
    return ulBlkSize % 4 == 0 ? ulBlkSize : 4;
}

/* Moves an address that is no true multiple of the unit up; the mask is applied as it stands also for units
 * that are no power of two. */
inline U32 MM_AlignUp(U32 ulAddr, U32 ulUnit)
{
    return ulUnit == 0 || ulAddr % ulUnit == 0 ? ulAddr : (ulAddr + ulUnit) & (0 - ulUnit);
}

/* Bytes of the map of ulBlkNum blocks. INTENDED(map-extra-byte): it goes by the count modulo 8 for every width. */
inline U32 MM_MapBytes(U32 ulBlkNum, U8 ubMap)
{
    const U8 ubWidthBit = MM_GetBlkBit(ubMap);
    const U32 ulBytes = ubWidthBit <= 3 ? ulBlkNum >> (3 - ubWidthBit) : 0;
    return ulBlkNum % 8 == 0 ? ulBytes : ulBytes + 1;
}

#endif
