/*
 * MM_GuardBlocks - allocation and release in the guarded build. Every decision is made from the bits of a segment; the headers of
 * its free runs and its owner map are written as in the default build, for those who read them.
 *
 * What managed memory says is read once, compared, and not used. A word that is otherwise than the bits have it is somebody's
 * stray write: the list and the map are then made again, a slice at a time, each under the lock.
 */
#include "../mm/MM_Map.h"
#include "MM_FreeRuns.h"
#include "MM_Guard.h"

namespace {

/* A stretch of a segment's blocks: all of them, or a piece of the heap. */
struct TMMStretch {
    U32 ulStart; /* address */
    U32 ulZero;  /* where block 0 would lie, so that a block's address is one step away; wraps */
    U32 ulFirst; /* number of its first block; stretches begin at whole words of bits, with a taken block before */
    U32 ulBlkNum;
    U8* pubMapEndAddr;

    U32 PastNumber() const { return ulFirst + ulBlkNum; }
};

struct TMMGuarded {
    U32* pulMemory; /* bits and tables; null: the segment was not opened */
    CMMFreeRuns clRuns;
    U32 ulNumbers; /* block numbers, those that are no blocks included */
    U8 ubBlkBit;
    U8 ubMap;        /* width of an owner's entry, 0 to 8 */
    U8 ubEntriesBit; /* log2 of the entries of a byte */
    U8 ubStretches;
    TMMStretch* pstLast; /* stretch */
    TMMStretch astStretch[MAX_PIECE_NUM];
};

TMMGuarded astGuarded[MAX_SEGTABLE_SIZE];

/* A segment's entry by an address that the compiler does not see through: it would work it out again, with a multiplication, at
 * each of the many accesses of an allocation. */
inline TMMGuarded& GuardedOf(U32 hulHandle)
{
    TMMGuarded* pstGuarded = astGuarded + hulHandle;
    __asm__("" : "+r"(pstGuarded));
    return *pstGuarded;
}

constexpr U32 SLICE_WORDS = 128; /* of bits that are mended without a break: 4096 blocks */

/* The lock of all blocks. */
class CMMBlocksLock
{
public:
    CMMBlocksLock() { MMP_LockIrq(search_lock); }
    ~CMMBlocksLock() { MMP_UnlockIrq(search_lock); }
    CMMBlocksLock(const CMMBlocksLock&) = delete;
    CMMBlocksLock& operator=(const CMMBlocksLock&) = delete;
};

inline TMMStretch* StretchOfNumber(TMMGuarded& stGuarded, U32 ulNumber)
{
    TMMStretch* pstStretch = stGuarded.pstLast;
    while (ulNumber < pstStretch->ulFirst)
        --pstStretch;
    return pstStretch;
}

inline U32 AddrIn(const TMMGuarded& stGuarded, const TMMStretch& stStretch, U32 ulNumber)
{
    return stStretch.ulZero + MM_BlkToBytes(ulNumber, stGuarded.ubBlkBit);
}

inline U32 AddrOf(TMMGuarded& stGuarded, U32 ulNumber)
{
    return AddrIn(stGuarded, *StretchOfNumber(stGuarded, ulNumber), ulNumber);
}

/* How far one number is above another; more than anything has where it is below. */
inline U32 StepsUp(U32 ulFrom, U32 ulTo)
{
    return ulTo - ulFrom;
}

/* The header of the run that starts at a block; null for none. */
[[gnu::noinline]] TMMBlkStr* HeaderOf(TMMGuarded& stGuarded, U32 ulStart)
{
    return ulStart != MM_NO_BLOCK ? MM_At<TMMBlkStr>(AddrOf(stGuarded, ulStart)) : nullptr;
}

/* The same for one that lies in the stretch, most probably. */
[[gnu::always_inline]] inline TMMBlkStr* HeaderNear(TMMGuarded& stGuarded, const TMMStretch& stStretch, U32 ulStart)
{
    return StepsUp(stStretch.ulFirst, ulStart) < stStretch.ulBlkNum
               ? MM_At<TMMBlkStr>(AddrIn(stGuarded, stStretch, ulStart))
               : HeaderOf(stGuarded, ulStart);
}

/* The stretch that has all the blocks at an address of a block; null when none has. */
inline TMMStretch* FindBlocks(TMMGuarded& stGuarded, U32 ulAddr, U32 ulBlkNum, U32* pulNumber)
{
    if (stGuarded.pulMemory == nullptr)
        return nullptr;
    TMMStretch* pstStretch = stGuarded.pstLast;
    for (; StepsUp(pstStretch->ulStart, ulAddr) >> stGuarded.ubBlkBit >= pstStretch->ulBlkNum; --pstStretch)
        if (pstStretch == stGuarded.astStretch)
            return nullptr;

    const U32 ulOffset = ulAddr - pstStretch->ulStart;
    const U32 ulIdx = ulOffset >> stGuarded.ubBlkBit;
    if (MM_BlkToBytes(ulIdx, stGuarded.ubBlkBit) != ulOffset || StepsUp(1, ulBlkNum) >= pstStretch->ulBlkNum - ulIdx)
        return nullptr; /* 0 blocks included */
    *pulNumber = pstStretch->ulFirst + ulIdx;
    return pstStretch;
}

/* The same where all blocks are allocated. */
inline TMMStretch* FindAllocated(TMMGuarded& stGuarded, U32 ulAddr, U32 ulBlkNum, U32* pulNumber)
{
    TMMStretch* const pstStretch = FindBlocks(stGuarded, ulAddr, ulBlkNum, pulNumber);
    return pstStretch != nullptr && stGuarded.clRuns.Bits().AllTaken(*pulNumber, ulBlkNum) ? pstStretch : nullptr;
}

/* Headers: written, and compared with what was written before -------------------------------------------- */

/* Notes whether managed memory says what the bits say. */
class CMMWitness
{
public:
    void Next(const TMMBlkStr* pstRun, const TMMBlkStr* pstNext) { Note(MM_Addr(pstRun), MM_Addr(pstNext)); }
    void Back(const TMMBlkStr* pstRun, const TMMBlkStr* pstBack) { Note(MM_Addr(pstRun) + 4, MM_Addr(pstBack)); }
    void Size(const TMMBlkStr* pstRun, U32 ulSize) { Note(MM_Addr(pstRun) + 8, ulSize); }
    void Node(const TMMBlkStr* pstRun, const TMMBlkStr* pstNext, const TMMBlkStr* pstBack, U32 ulSize)
    {
        Next(pstRun, pstNext);
        Back(pstRun, pstBack);
        Size(pstRun, ulSize);
    }
    void Free(U32 ulEntries) { ulMarked |= ulEntries; }
    bool Disagrees() const { return (ulDifference | ulMarked) != 0; }
    bool MapDisagrees() const { return ulMarked != 0; }

private:
    struct TMMWord {
        volatile U32 ulWord;
    } __attribute__((packed, may_alias));

    void Note(U32 ulAddr, U32 ulExpected)
    {
        MMP_Touch(MM_At(ulAddr), 4);
        ulDifference |= MM_At<const TMMWord>(ulAddr)->ulWord ^ ulExpected;
    }

    U32 ulDifference = 0; /* of the words of headers */
    U32 ulMarked = 0;     /* entries of free blocks */
};

void WriteNext(TMMBlkStr* pstRun, TMMBlkStr* pstNext)
{
    MMP_Touch(&pstRun->pstNext, 4);
    pstRun->pstNext = pstNext;
}

void WriteBack(TMMBlkStr* pstRun, TMMBlkStr* pstBack)
{
    MMP_Touch(MM_At(MM_Addr(pstRun) + 4), 4);
    pstRun->pstBack = pstBack;
}

void WriteSize(TMMBlkStr* pstRun, U32 ulSize)
{
    MMP_Touch(MM_At(MM_Addr(pstRun) + 8), 4);
    pstRun->ulSize = ulSize;
}

/* Links two runs, of which either may be none. */
void Link(U32 hulHandle, TMMBlkStr* pstLower, TMMBlkStr* pstUpper)
{
    if (pstLower == nullptr)
        astBlkHead[hulHandle].pstBlk = pstUpper;
    else
        WriteNext(pstLower, pstUpper);
    if (pstUpper == nullptr)
        astBlkTail[hulHandle].pstBlk = pstLower;
    else
        WriteBack(pstUpper, pstLower);
}

/* Owner map ---------------------------------------------------------------------------------------------- */

/* Entries of a run of blocks, as bytes of the map: the block at the highest address has the lowest entry of the last byte. */
struct TMMEntries {
    U8* pubFirst; /* byte of the run's first block */
    U8* pubLast;
    U8 ubFirstMask, ubLastMask; /* the run's entries in the two; the masks of one byte are to be joined */
};

TMMEntries EntriesOf(const TMMGuarded& stGuarded, const TMMStretch& stStretch, TMMRun stRun)
{
    const U32 ulHigh =
        stStretch.PastNumber() - stRun.ulFirst - 1; /* entry of the first block, counted from the map's end */
    const U32 ulLow = stStretch.PastNumber() - stRun.End();
    const U32 ulInByte = (1u << stGuarded.ubEntriesBit) - 1;
    const U32 ulAbove = (ulHigh & ulInByte) * stGuarded.ubMap + stGuarded.ubMap;
    const U32 ulBelow = (ulLow & ulInByte) * stGuarded.ubMap;
    return {stStretch.pubMapEndAddr - 1 - (ulHigh >> stGuarded.ubEntriesBit),
            stStretch.pubMapEndAddr - 1 - (ulLow >> stGuarded.ubEntriesBit), static_cast<U8>((1u << ulAbove) - 1),
            static_cast<U8>(0xFF << ulBelow)};
}

/* Replaces a byte's entries under the mask; what they were. */
U8 Exchange(U8* pubByte, U8 ubMask, U8 ubValue)
{
    MMP_Touch(pubByte, 1);
    const U8 ubOld = *const_cast<volatile U8*>(pubByte);
    *pubByte = static_cast<U8>((ubOld & ~ubMask) | (ubValue & ubMask));
    return ubOld & ubMask;
}

/* Visits entries from the first block on: by bytes, each with the mask of its entries, and by whole words. */
template <class TByte, class TWord>
[[gnu::always_inline]] inline void EachEntry(const TMMEntries& stEntries, TByte fnByte, TWord fnWord)
{
    U8* pubByte = stEntries.pubFirst;
    if (pubByte == stEntries.pubLast)
        return fnByte(pubByte, stEntries.ubFirstMask & stEntries.ubLastMask);
    if (stEntries.ubFirstMask != 0xFF)
        fnByte(pubByte++, stEntries.ubFirstMask);
    U8* const pubPast = stEntries.pubLast + (stEntries.ubLastMask == 0xFF);
    for (; MM_Addr(pubByte) % MAP_WORD_BYTES != 0 && pubByte < pubPast; ++pubByte)
        fnByte(pubByte, 0xFF);
#pragma GCC unroll 4
    for (; pubPast - pubByte >= S32(MAP_WORD_BYTES); pubByte += MAP_WORD_BYTES)
        fnWord(pubByte);
    for (; pubByte < pubPast; ++pubByte)
        fnByte(pubByte, 0xFF);
    if (stEntries.ubLastMask != 0xFF)
        fnByte(pubByte, stEntries.ubLastMask);
}

inline U32 ReadWord(const U8* pubWord)
{
    MMP_Touch(pubWord, MAP_WORD_BYTES);
    return *reinterpret_cast<const volatile TMMMapWord*>(pubWord);
}

/* Gives a run's blocks an owner, 0 for none. What the entries held goes to the visitor. */
template <class TVisitor>
[[gnu::always_inline]] inline void SetOwner(const TMMGuarded& stGuarded, const TMMStretch& stStretch, TMMRun stRun,
                                            U8 ubMapID, TVisitor& clVisitor)
{
    const U8 ubValue = MM_ByteOf(ubMapID, stGuarded.ubMap);
    const U32 ulValue = ubValue * 0x01010101u;
    EachEntry(
        EntriesOf(stGuarded, stStretch, stRun),
        [&](U8* pubByte, U8 ubMask) { clVisitor.Byte(pubByte, ubMask, Exchange(pubByte, ubMask, ubValue)); },
        [&](U8* pubWord) {
            const U32 ulOld = ReadWord(pubWord);
            *MM_MapWord(pubWord) = ulValue;
            clVisitor.Word(pubWord, ulOld);
        });
}

/* The free blocks of a run are nobody's. */
void ClearFree(const TMMGuarded& stGuarded, const TMMStretch& stStretch, TMMRun stRun)
{
    const TMMEntries stEntries = EntriesOf(stGuarded, stStretch, stRun);
    if (stEntries.pubFirst == stEntries.pubLast) {
        Exchange(stEntries.pubFirst, stEntries.ubFirstMask & stEntries.ubLastMask, 0);
        return;
    }
    Exchange(stEntries.pubFirst, stEntries.ubFirstMask, 0);
    MMP_MemSet(stEntries.pubFirst + 1, 0, static_cast<U32>(stEntries.pubLast - stEntries.pubFirst) - 1);
    Exchange(stEntries.pubLast, stEntries.ubLastMask, 0);
}

bool CanHold(const TMMGuarded& stGuarded, U8 ubMapID)
{
    return ubMapID >> stGuarded.ubMap == 0;
}

/* Finds the first byte with a block that was nobody's. One-bit entries count as owned whatever they hold. */
struct TMMUnowned {
    U8 ubMap;
    U32 ulOwned; /* a word without any: most of a run's are the same */
    const U8* pubFound;
    U8 ubEntries;

    [[gnu::noinline]] void Byte(const U8* pubByte, U8 ubMask, U8 ubOld)
    {
        const U8 ubOwned = static_cast<U8>(ubOld | ~ubMask);
        if (pubFound != nullptr || MM_AllMarked(ubOwned, ubMap))
            return;
        pubFound = pubByte;
        ubEntries = ubOwned;
    }
    void Word(const U8* pubWord, U32 ulOld)
    {
        if (ulOld != ulOwned)
            OtherWord(pubWord, ulOld);
    }
    [[gnu::noinline]] void OtherWord(const U8* pubWord, U32 ulOld)
    {
        for (U32 ulByte = 0; ulByte < MAP_WORD_BYTES; ++ulByte)
            Byte(pubWord + ulByte, 0xFF, static_cast<U8>(ulOld >> ulByte * 8));
        if (pubFound == nullptr)
            ulOwned = ulOld;
    }
};

/* Gives blocks that were free an owner; what their entries held, all together. */
[[gnu::noinline]] U32 TakeOwner(const TMMGuarded& stGuarded, const TMMStretch& stStretch, TMMRun stRun, U8 ubMapID)
{
    struct TMMHeld {
        U32 ulHeld;
        void Byte(const U8*, U8, U8 ubOld) { ulHeld |= ubOld; }
        void Word(const U8*, U32 ulOld) { ulHeld |= ulOld; }
    } clHeld{0};
    SetOwner(stGuarded, stStretch, stRun, ubMapID, clHeld);
    return clHeld.ulHeld;
}

/* Erases the owners of a run of blocks. As in the default build a block that was nobody's is reported, once. */
[[gnu::noinline]] void ClearOwners(U32 hulHandle, const TMMGuarded& stGuarded, const TMMStretch& stStretch,
                                   TMMRun stRun)
{
    TMMUnowned clUnowned{stGuarded.ubMap, 0xFFFFFFFF, nullptr, 0};
    SetOwner(stGuarded, stStretch, stRun, 0, clUnowned);
    const U8* const pubUnowned = clUnowned.pubFound;
    const U8 ubUnownedEntries = clUnowned.ubEntries;
    if (pubUnowned == nullptr)
        return;
    /* Which block it was: the highest entry of the byte that is zero. The core's own check says it. */
    const U32 ulByte = static_cast<U32>(stStretch.pubMapEndAddr - 1 - pubUnowned);
    U32 ulInByte = (1u << stGuarded.ubEntriesBit) - 1;
    const U32 ulEntry = (1u << stGuarded.ubMap) - 1;
    while ((ubUnownedEntries >> (ulInByte * stGuarded.ubMap) & ulEntry) != 0)
        --ulInByte;
    const U32 ulNumber = stStretch.PastNumber() - 1 - ((ulByte << stGuarded.ubEntriesBit) + ulInByte);
    MM_ClearMap(hulHandle, MM_At(stStretch.ulStart + MM_BlkToBytes(ulNumber - stStretch.ulFirst, stGuarded.ubBlkBit)),
                1);
}

/* Mending ------------------------------------------------------------------------------------------------ */

enum EMMMend { MEND_LIST, MEND_LIST_AND_MAP };

/* Writes the headers of the runs that start among these words of bits; clears the owners of their free blocks. */
void MendSlice(U32 hulHandle, TMMGuarded& stGuarded, U32 ulWord, EMMMend enMend)
{
    const CMMFreeRuns& clRuns = stGuarded.clRuns;
    const bool fMap = enMend == MEND_LIST_AND_MAP && stGuarded.ubMap != 0;
    const U32 ulStart = ulWord * 32;
    const U32 ulPast = MM_Smaller(ulStart + SLICE_WORDS * 32, stGuarded.ulNumbers);
    TMMRun stRun = clRuns.RunAt(clRuns.StartBelow(ulStart));

    for (;;) { /* the first run began below the slice, and may reach into it */
        const U32 ulFirst = MM_Larger(stRun.ulFirst, ulStart);
        if (fMap && stRun.Is() && stRun.End() > ulStart)
            ClearFree(stGuarded, *StretchOfNumber(stGuarded, ulFirst),
                      {ulFirst, MM_Smaller(stRun.End(), ulPast) - ulFirst});
        TMMBlkStr* const pstRun = HeaderOf(stGuarded, stRun.ulFirst);
        stRun = clRuns.RunAt(clRuns.StartFrom(stRun.Is() ? stRun.End() : ulStart));
        if (stRun.ulFirst >= ulPast) {
            if (ulPast == stGuarded.ulNumbers)
                Link(hulHandle, pstRun, nullptr);
            return;
        }
        TMMBlkStr* const pstUpper = HeaderOf(stGuarded, stRun.ulFirst);
        WriteSize(pstUpper, stRun.ulSize);
        Link(hulHandle, pstRun, pstUpper);
    }
}

/* Makes the list and the map of a segment again, in slices. A segment that changes in between writes what it changes. */
void MendSegment(U32 hulHandle, EMMMend enMend)
{
    TMMGuarded& stGuarded = astGuarded[hulHandle];
    const U32 ulWords = CMMBlockBits::Words(stGuarded.ulNumbers);
    for (U32 ulWord = CMMFreeRuns::FIRST_BLOCK / 32; ulWord < ulWords; ulWord += SLICE_WORDS) {
        const CMMBlocksLock clLock;
        if (stGuarded.pulMemory == nullptr)
            return;
        MendSlice(hulHandle, stGuarded, ulWord, enMend);
    }
}

[[gnu::noinline, gnu::cold]] void Mend(U32 hulHandle, EMMMend enMend)
{
    MM_GuardReport(REBUILT, hulHandle, 0, stSegTable[hulHandle].ulTotalFreeBlkNum);
    MendSegment(hulHandle, enMend);
}

inline void MendIf(U32 hulHandle, const CMMWitness& clWitness)
{
    if (clWitness.Disagrees())
        Mend(hulHandle, clWitness.MapDisagrees() ? MEND_LIST_AND_MAP : MEND_LIST);
}

/* Free blocks of words of bits. */
U32 FreeInSlice(const TMMGuarded& stGuarded, U32 ulWord, U32 ulWords)
{
    const CMMBlocksLock clLock;
    U32 ulFree = 0;
    for (; stGuarded.pulMemory != nullptr && ulWords > 0; ++ulWord, --ulWords)
        for (U32 ulBits = stGuarded.clRuns.Bits().FreeOf(ulWord); ulBits != 0; ulBits &= ulBits - 1)
            ++ulFree;
    return ulFree;
}

/* What an allocation and a release change in the segment's entry. */
inline void Count(U32 hulHandle, const TMMGuarded& stGuarded, U32 ulTaken, U32 ulGiven)
{
    TMMSegInfo& stSeg = stSegTable[hulHandle];
    stSeg.ulTotalFreeBlkNum = stSeg.ulTotalFreeBlkNum - ulTaken + ulGiven;
    stSeg.ulTotalAllocBlkNum = stSeg.ulTotalAllocBlkNum + ulTaken - ulGiven;
    stSeg.ulLargestBlkSize = stGuarded.clRuns.Largest();
#ifdef MM_CHECK_RUN_INDEX
    if (!MM_GuardAgrees(hulHandle))
        __builtin_trap();
#endif
}

/* Allocation --------------------------------------------------------------------------------------------- */

/* Takes a whole run out of the list, where it has its place. */
[[gnu::always_inline]] inline void Unlink(U32 hulHandle, TMMGuarded& stGuarded, const TMMStretch& stStretch,
                                          TMMRun stRun, const CMMFreeRuns::TMMPlace& stPlace, CMMWitness& clWitness)
{
    TMMBlkStr* const pstLower = HeaderNear(stGuarded, stStretch, stPlace.ulLower);
    TMMBlkStr* const pstUpper = HeaderNear(stGuarded, stStretch, stPlace.ulUpper);
    TMMBlkStr* const pstRun = MM_At<TMMBlkStr>(AddrIn(stGuarded, stStretch, stRun.ulFirst));
    clWitness.Node(pstRun, pstUpper, pstLower, stRun.ulSize);
    if (pstLower != nullptr)
        clWitness.Next(pstLower, pstRun);
    if (pstUpper != nullptr)
        clWitness.Back(pstUpper, pstRun);
    Link(hulHandle, pstLower, pstUpper);
}

/* The caller has the lock. */
[[gnu::always_inline]] inline U8* Allocate(U32 hulHandle, U32 ulBlkNum, U8 ubMapID, CMMWitness& clWitness)
{
    TMMGuarded& stGuarded = GuardedOf(hulHandle);
    if (stGuarded.pulMemory == nullptr) /* being opened, or closed: its runs are not to be looked at */
        return nullptr;
    const CMMFreeRuns::TMMFound stRun = stGuarded.clRuns.Find(ulBlkNum);
    if (!stRun.Is())
        return nullptr;

    TMMStretch* const pstStretch = StretchOfNumber(stGuarded, stRun.ulFirst);
    const U32 ulRest = stRun.ulSize - ulBlkNum;
    const TMMRun stTaken = {stRun.ulFirst + ulRest, ulBlkNum};
    if (ulRest == 0) {
        Unlink(hulHandle, stGuarded, *pstStretch, stRun, stGuarded.clRuns.PlaceOf(stRun), clWitness);
    } else {
        TMMBlkStr* const pstRun = MM_At<TMMBlkStr>(AddrIn(stGuarded, *pstStretch, stRun.ulFirst));
        clWitness.Size(pstRun, stRun.ulSize);
        WriteSize(pstRun, ulRest);
    }
    stGuarded.clRuns.CutEnd(stRun, ulBlkNum);
    if (stGuarded.ubMap != 0 && ubMapID != 0)
        clWitness.Free(TakeOwner(stGuarded, *pstStretch, stTaken, ubMapID));
    Count(hulHandle, stGuarded, ulBlkNum, 0);
    return MM_At(AddrIn(stGuarded, *pstStretch, stTaken.ulFirst));
}

/* Release ------------------------------------------------------------------------------------------------ */

/* Puts blocks that were given back into the list. The order and extent of the writes are the default build's, whose traces in
 * free memory some read. */
[[gnu::always_inline]] inline void Insert(U32 hulHandle, TMMGuarded& stGuarded, const TMMStretch& stStretch,
                                          TMMRun stBlocks, const CMMFreeRuns::TMMGiven& stGiven, CMMWitness& clWitness)
{
    TMMBlkStr* const pstNew = MM_At<TMMBlkStr>(AddrIn(stGuarded, stStretch, stBlocks.ulFirst));
    TMMBlkStr* const pstLower = HeaderNear(stGuarded, stStretch, stGiven.ulLower);
    TMMBlkStr* const pstUpper = HeaderNear(stGuarded, stStretch, stGiven.ulUpper);
    TMMBlkStr* pstNext = pstUpper;
    const U32 ulSize = stBlocks.ulSize + stGiven.ulUpperSize;

    if (pstLower != nullptr)
        clWitness.Next(pstLower, pstUpper);
    if (stGiven.ulUpperSize != 0) {
        pstNext = HeaderNear(stGuarded, stStretch, stGiven.ulPastUpper);
        clWitness.Node(pstUpper, pstNext, pstLower, stGiven.ulUpperSize);
    } else if (pstUpper != nullptr) {
        clWitness.Back(pstUpper, pstLower);
    }

    WriteNext(pstNew, pstNext);
    WriteBack(pstNew, pstLower);
    WriteSize(pstNew, ulSize);
    if (stGiven.ulLowerSize != 0) {
        clWitness.Size(pstLower, stGiven.ulLowerSize);
        WriteSize(pstLower, stGiven.ulLowerSize + ulSize);
        Link(hulHandle, pstLower, pstNext);
    } else {
        Link(hulHandle, pstLower, pstNew);
        Link(hulHandle, pstNew, pstNext);
    }
}

/* Releases blocks, the caller has the lock: false with nothing changed unless all of them are allocated. */
[[gnu::always_inline]] inline bool Release(U32 hulHandle, TMMGuarded& stGuarded, const TMMStretch& stStretch,
                                           TMMRun stBlocks, CMMWitness& clWitness)
{
    const bool fReleased = stGuarded.clRuns.Give(stBlocks, [&](const CMMFreeRuns::TMMGiven& stGiven) {
        if (stGuarded.ubMap != 0)
            ClearOwners(hulHandle, stGuarded, stStretch, stBlocks);
        Insert(hulHandle, stGuarded, stStretch, stBlocks, stGiven, clWitness);
    });
    if (!fReleased)
        return false;
    Count(hulHandle, stGuarded, 0, stBlocks.ulSize);
    return true;
}

/* Claim -------------------------------------------------------------------------------------------------- */

/* Takes blocks out of a run, the caller has the lock: false when the run does not hold them. */
bool Claim(U32 hulHandle, TMMGuarded& stGuarded, TMMRun stBlocks, CMMWitness& clWitness)
{
    CMMFreeRuns& clRuns = stGuarded.clRuns;
    if (!clRuns.Bits().AllFree(stBlocks.ulFirst, stBlocks.ulSize))
        return false;
    const TMMRun stRun = clRuns.RunAt(clRuns.StartBelow(stBlocks.ulFirst + 1));
    const CMMFreeRuns::TMMPlace stPlace = {clRuns.StartBelow(stRun.ulFirst), clRuns.StartFrom(stRun.End())};
    if (stRun.ulSize == stBlocks.ulSize) {
        Unlink(hulHandle, stGuarded, *StretchOfNumber(stGuarded, stRun.ulFirst), stRun, stPlace, clWitness);
    } else {
        TMMBlkStr* const pstBelow = HeaderOf(stGuarded, stPlace.ulLower);
        TMMBlkStr* const pstAbove = HeaderOf(stGuarded, stPlace.ulUpper);
        const U32 ulRest = stRun.End() - stBlocks.End();
        TMMBlkStr* pstFront = HeaderOf(stGuarded, stRun.ulFirst);
        clWitness.Node(pstFront, pstAbove, pstBelow, stRun.ulSize);
        if (stBlocks.ulFirst == stRun.ulFirst)
            pstFront = pstBelow;
        else
            WriteSize(pstFront, stBlocks.ulFirst - stRun.ulFirst);
        if (ulRest != 0) {
            TMMBlkStr* const pstRest = HeaderOf(stGuarded, stBlocks.End());
            WriteSize(pstRest, ulRest);
            Link(hulHandle, pstFront, pstRest);
            pstFront = pstRest;
        }
        Link(hulHandle, pstFront, pstAbove);
    }
    clRuns.CutInside(stRun, stBlocks);
    return true;
}

/* Owners ------------------------------------------------------------------------------------------------- */

/* True when the entry of a block, as it is now, holds all bits of the ID. */
bool IsOwned(const TMMGuarded& stGuarded, const TMMStretch& stStretch, U32 ulNumber, U8 ubMapID)
{
    const U32 ulEntry = stStretch.PastNumber() - 1 - ulNumber;
    const U8* const pubByte = stStretch.pubMapEndAddr - 1 - (ulEntry >> stGuarded.ubEntriesBit);
    MMP_Touch(pubByte, 1);
    const U32 ulWanted = static_cast<U32>(ubMapID)
                         << (ulEntry & ((1u << stGuarded.ubEntriesBit) - 1)) * stGuarded.ubMap;
    return (*const_cast<const volatile U8*>(pubByte) & ulWanted) == ulWanted;
}

/* True when the entries of all blocks of a run hold all bits of the ID, as they are now. */
bool AllOwned(const TMMGuarded& stGuarded, const TMMStretch& stStretch, TMMRun stRun, U8 ubMapID)
{
    const U8 ubOwned = MM_ByteOf(ubMapID, stGuarded.ubMap);
    U32 ulLacking = 0; /* bits of the ID that an entry does not hold */
    EachEntry(
        EntriesOf(stGuarded, stStretch, stRun),
        [&](const U8* pubByte, U8 ubMask) {
            MMP_Touch(pubByte, 1);
            ulLacking |= static_cast<U8>(~*const_cast<const volatile U8*>(pubByte) & ubOwned & ubMask);
        },
        [&](const U8* pubWord) { ulLacking |= ~ReadWord(pubWord) & ubOwned * 0x01010101u; });
    return ulLacking == 0;
}

/* How far the blocks of a run are allocated and the owner's: past its last block when all are. */
U32 PastOwned(const TMMGuarded& stGuarded, const TMMStretch& stStretch, TMMRun stRun, U8 ubMapID)
{
    const CMMBlockBits& clBits = stGuarded.clRuns.Bits();
    if (clBits.AllTaken(stRun.ulFirst, stRun.ulSize) && AllOwned(stGuarded, stStretch, stRun, ubMapID))
        return stRun.End();
    U32 ulPast = stRun.ulFirst;
    while (ulPast < stRun.End() && clBits.IsTaken(ulPast) && IsOwned(stGuarded, stStretch, ulPast, ubMapID))
        ++ulPast;
    return ulPast;
}

/* Releases what is allocated and still the owner's of a run of blocks that the map gave him. The map is looked at again
 * under the lock: in between the blocks may have become somebody else's. */
void CollectRun(U32 hulHandle, TMMStretch& stStretch, TMMRun stFound, U8 ubMapID)
{
    TMMGuarded& stGuarded = astGuarded[hulHandle];
    CMMWitness clWitness;
    {
        const CMMBlocksLock clLock;
        if (stGuarded.pulMemory == nullptr || stFound.End() > stStretch.PastNumber())
            return; /* the library was started afresh */
        for (U32 ulNumber = stFound.ulFirst; ulNumber < stFound.End();) {
            const U32 ulPast = PastOwned(stGuarded, stStretch, {ulNumber, stFound.End() - ulNumber}, ubMapID);
            if (ulPast > ulNumber)
                Release(hulHandle, stGuarded, stStretch, {ulNumber, ulPast - ulNumber}, clWitness);
            else
                clWitness.Free(!stGuarded.clRuns.Bits().IsTaken(ulPast)); /* a free block that somebody owns */
            ulNumber = ulPast > ulNumber ? ulPast : ulPast + 1;
        }
    }
    MendIf(hulHandle, clWitness);
}

/* Entries of a map that are an owner's, as they are met from its end on. */
struct TMMOwnedRun {
    U32 hulHandle;
    TMMStretch& stStretch;
    U8 ubMapID;
    U32 ulPast; /* entries looked at */
    U32 ulRun;  /* the last of them, the owner's */

    void Owned(U32 ulEntries)
    {
        ulPast += ulEntries;
        ulRun += ulEntries;
    }
    void Others(U32 ulEntries)
    {
        if (ulRun != 0)
            Collect();
        ulPast += ulEntries;
        ulRun = 0;
    }

private:
    void Collect() const
    {
        const U32 ulBlkNum = MM_Smaller(ulPast, stStretch.ulBlkNum); /* the map may have more entries */
        if (ulPast - ulRun < ulBlkNum)
            CollectRun(hulHandle, stStretch, {stStretch.PastNumber() - ulBlkNum, ulBlkNum - (ulPast - ulRun)}, ubMapID);
    }
};

/* Whether an entry of a word is zero: the carry of a subtraction finds it. ulLowest: the lowest bit of each entry. */
inline bool HasZeroEntry(U32 ulWord, U32 ulLowest, U8 ubMap)
{
    return ((ulWord - ulLowest) & ~ulWord & ulLowest << (ubMap - 1)) != 0;
}

/* As in the default build a run that reaches the map's start stays. */
void CleanUpStretch(U32 hulHandle, TMMStretch& stStretch, U8 ubMapID)
{
    const TMMGuarded& stGuarded = astGuarded[hulHandle];
    const U8* const pubMap = MM_RangeOf(hulHandle, MM_At(stStretch.ulStart)).pubMapStartAddr;
    const U32 ulByteEntries = 1u << stGuarded.ubEntriesBit;
    const U32 ulOwned = MM_ByteOf(ubMapID, stGuarded.ubMap) * 0x01010101u;
    const U32 ulLowest = MM_ByteOf(1, stGuarded.ubMap) * 0x01010101u;
    TMMOwnedRun clRun{hulHandle, stStretch, ubMapID, 0, 0};

    for (const U8* pubByte = stStretch.pubMapEndAddr; pubByte > pubMap;) {
        if (MM_Addr(pubByte) % MAP_WORD_BYTES == 0 && pubByte - pubMap >= S32(MAP_WORD_BYTES)) {
            const U32 ulLacking = ~ReadWord(pubByte - MAP_WORD_BYTES) & ulOwned; /* an entry of 0 is the owner's */
            const bool fNone = !HasZeroEntry(ulLacking, ulLowest, stGuarded.ubMap);
            if (ulLacking == 0 || fNone) {
                pubByte -= MAP_WORD_BYTES;
                fNone ? clRun.Others(ulByteEntries * MAP_WORD_BYTES) : clRun.Owned(ulByteEntries * MAP_WORD_BYTES);
                continue;
            }
        }
        MMP_Touch(--pubByte, 1);
        const U8 ubByte = *const_cast<const volatile U8*>(pubByte);
        for (U32 ulBitPos = 0; ulBitPos < 8; ulBitPos += stGuarded.ubMap) {
            const U32 ulWanted = static_cast<U32>(ubMapID) << ulBitPos;
            (ubByte & ulWanted) == ulWanted ? clRun.Owned(1) : clRun.Others(1);
        }
    }
}

/* Opening ------------------------------------------------------------------------------------------------ */

void AddStretch(TMMGuarded& stGuarded, U32 ulStart, U32 ulBlkNum, U8* pubMapEndAddr)
{
    TMMStretch& stStretch = stGuarded.astStretch[stGuarded.ubStretches++];
    stStretch = {ulStart, ulStart - MM_BlkToBytes(stGuarded.ulNumbers, stGuarded.ubBlkBit), stGuarded.ulNumbers,
                 ulBlkNum, pubMapEndAddr};
    stGuarded.ulNumbers = (stStretch.PastNumber() + 32) & ~31u; /* with one that is none at the least */
}

/* Refusals ----------------------------------------------------------------------------------------------- */

[[gnu::noinline, gnu::cold]] U8* RefuseAllocation(U32 hulHandle, U32 ulReqBlkNum, U8 ubMapID)
{
    MM_GuardReport(ulReqBlkNum == 0 ? NOTHING_ASKED : WIDE_OWNER, hulHandle, 0, ubMapID);
    return nullptr;
}

/* The caller has the lock. */
[[gnu::noinline, gnu::cold]] U32 RefuseRelease(U32 hulHandle, const U8* pubRlsAddr, U32 ulBlkNum)
{
    MMP_UnlockIrq(search_lock);
    MM_GuardReport(NOT_ALLOCATED, hulHandle, MM_Addr(pubRlsAddr), ulBlkNum);
    return EASSERT;
}

} // namespace

/* Entries ------------------------------------------------------------------------------------------------ */

[[gnu::flatten]] U8* MM_GuardedAllocBlk(U32 hulHandle, U32 ulReqBlkNum, U8 ubMapID)
{
    if (ulReqBlkNum == 0 || (ubMapID != 0 && !CanHold(astGuarded[hulHandle], ubMapID)))
        return RefuseAllocation(hulHandle, ulReqBlkNum, ubMapID);
    if (stSegTable[hulHandle].ulTotalFreeBlkNum == 0)
        return nullptr;
    CMMWitness clWitness;
    MMP_LockIrq(search_lock);
    U8* const pubResult = Allocate(hulHandle, ulReqBlkNum, ubMapID, clWitness);
    MMP_UnlockIrq(search_lock);
    MendIf(hulHandle, clWitness);
    return pubResult;
}

[[gnu::flatten]] U32 MM_GuardedFreeBlk(U32 hulHandle, U8* pubRlsAddr, U32 ulBlkNum)
{
    CMMWitness clWitness;
    U32 ulNumber = 0;
    MMP_LockIrq(search_lock);
    TMMGuarded& stGuarded = GuardedOf(hulHandle);
    TMMStretch* const pstStretch = FindBlocks(stGuarded, MM_Addr(pubRlsAddr), ulBlkNum, &ulNumber);
    if (pstStretch == nullptr || !Release(hulHandle, stGuarded, *pstStretch, {ulNumber, ulBlkNum}, clWitness))
        return RefuseRelease(hulHandle, pubRlsAddr, ulBlkNum);
    MMP_UnlockIrq(search_lock);
    MendIf(hulHandle, clWitness);
    return ENOERR;
}

U32 MM_GuardedClaim(U32 hulHandle, U8* pubAddr, U32 ulBlkNum)
{
    TMMGuarded& stGuarded = astGuarded[hulHandle];
    CMMWitness clWitness;
    U32 ulNumber = 0;
    MMP_LockIrq(search_lock);
    TMMStretch* const pstStretch = FindBlocks(stGuarded, MM_Addr(pubAddr), ulBlkNum, &ulNumber);
    const bool fClaimed = pstStretch != nullptr && Claim(hulHandle, stGuarded, {ulNumber, ulBlkNum}, clWitness);
    if (fClaimed)
        Count(hulHandle, stGuarded, ulBlkNum, 0);
    MMP_UnlockIrq(search_lock);
    if (!fClaimed) {
        MM_GuardReport(CLAIM_OUTSIDE, hulHandle, MM_Addr(pubAddr), ulBlkNum);
        return EASSERT;
    }
    MendIf(hulHandle, clWitness);
    return ENOERR;
}

void MM_GuardedCleanUp(U32 hulHandle, U8 ubMapID)
{
    TMMGuarded& stGuarded = astGuarded[hulHandle];
    if (stGuarded.pulMemory == nullptr || stGuarded.ubMap == 0 || ubMapID == 0)
        return;
    if (!CanHold(stGuarded, ubMapID)) {
        MM_GuardReport(WIDE_OWNER, hulHandle, 0, ubMapID);
        return;
    }
    for (U8 ubIdx = 0; ubIdx < stGuarded.ubStretches; ++ubIdx)
        CleanUpStretch(hulHandle, stGuarded.astStretch[ubIdx], ubMapID);
}

bool MM_GuardedMark(U32 hulHandle, U32 ulAddr, U32 ulBlkNum, U8 ubMapID)
{
    TMMGuarded& stGuarded = astGuarded[hulHandle];
    U32 ulNumber = 0;
    MMP_LockIrq(search_lock);
    TMMStretch* const pstStretch = FindAllocated(stGuarded, ulAddr, ulBlkNum, &ulNumber);
    const bool fMarked = pstStretch != nullptr && stGuarded.ubMap != 0 && CanHold(stGuarded, ubMapID);
    if (fMarked) {
        ClearOwners(hulHandle, stGuarded, *pstStretch, {ulNumber, ulBlkNum});
        TakeOwner(stGuarded, *pstStretch, {ulNumber, ulBlkNum}, ubMapID);
    }
    MMP_UnlockIrq(search_lock);
    if (!fMarked)
        MM_GuardReport(pstStretch == nullptr ? NOT_ALLOCATED : WIDE_OWNER, hulHandle, ulAddr, ulBlkNum);
    return fMarked;
}

bool MM_GuardAllocated(U32 hulHandle, U32 ulAddr, U32 ulBlkNum)
{
    U32 ulNumber = 0;
    MMP_LockIrq(search_lock);
    const bool fAllocated = FindAllocated(astGuarded[hulHandle], ulAddr, ulBlkNum, &ulNumber) != nullptr;
    MMP_UnlockIrq(search_lock);
    if (!fAllocated)
        MM_GuardReport(NOT_ALLOCATED, hulHandle, ulAddr, ulBlkNum);
    return fAllocated;
}

U32 MM_GuardLargestRun(U32 hulHandle)
{
    const TMMGuarded& stGuarded = astGuarded[hulHandle];
    return stGuarded.pulMemory != nullptr ? stGuarded.clRuns.Largest() : 0;
}

U32 MM_GuardFreeInPiece(U32 ulStart)
{
    TMMGuarded& stHeap = astGuarded[HEAPHANDLE];
    U32 ulFree = 0;
    for (U8 ubIdx = 0; stHeap.pulMemory != nullptr && ubIdx < stHeap.ubStretches; ++ubIdx) {
        const TMMStretch& stStretch = stHeap.astStretch[ubIdx];
        const U32 ulWords = CMMBlockBits::Words(stStretch.ulBlkNum);
        for (U32 ulWord = 0; stStretch.ulStart == ulStart && ulWord < ulWords; ulWord += SLICE_WORDS)
            ulFree += FreeInSlice(stHeap, stStretch.ulFirst / 32 + ulWord, MM_Smaller(SLICE_WORDS, ulWords - ulWord));
    }
    return ulFree;
}

void MM_GuardMend(U32 ulAddr, U32 ulBytes)
{
    if (ulBytes == 0 || MM_GuardHeld(ulAddr, ulBytes))
        return;
    for (U32 hulHandle = 0; hulHandle < MAX_SEGTABLE_SIZE; ++hulHandle) {
        TMMGuarded& stGuarded = astGuarded[hulHandle];
        for (U8 ubIdx = 0; stGuarded.pulMemory != nullptr && ubIdx < stGuarded.ubStretches; ++ubIdx) {
            const TMMStretch& stStretch = stGuarded.astStretch[ubIdx];
            const U8* const pubMap = MM_RangeOf(hulHandle, MM_At(stStretch.ulStart)).pubMapStartAddr;
            const U32 ulStart = stGuarded.ubMap != 0 ? MM_Addr(pubMap) : stStretch.ulStart;
            const U32 ulEnd = stStretch.ulStart + MM_BlkToBytes(stStretch.ulBlkNum, stGuarded.ubBlkBit);
            if (ulAddr < ulEnd && ulStart <= ulAddr + (ulBytes - 1)) {
                MendSegment(hulHandle, MEND_LIST_AND_MAP);
                break;
            }
        }
    }
}

bool MM_GuardHeld(U32 ulAddr, U32 ulBytes)
{
    for (TMMGuarded& stGuarded : astGuarded) {
        for (U8 ubIdx = 0; stGuarded.pulMemory != nullptr && ubIdx < stGuarded.ubStretches; ++ubIdx) {
            const TMMStretch& stStretch = stGuarded.astStretch[ubIdx];
            const U32 ulSpan = MM_BlkToBytes(stStretch.ulBlkNum, stGuarded.ubBlkBit);
            if (ulAddr < stStretch.ulStart)
                continue;
            const U32 ulOffset = ulAddr - stStretch.ulStart;
            if (ulOffset >= ulSpan || ulBytes > ulSpan - ulOffset)
                continue;
            const U32 ulFirst = ulOffset >> stGuarded.ubBlkBit;
            const U32 ulLast = (ulOffset + ulBytes - 1) >> stGuarded.ubBlkBit;
            const CMMBlocksLock clLock;
            return stGuarded.clRuns.Bits().AllTaken(stStretch.ulFirst + ulFirst, ulLast - ulFirst + 1);
        }
    }
    return false;
}

bool MM_GuardAnyAllocated(void)
{
    for (const TMMSegInfo& stSeg : stSegTable)
        if (MM_CheckSegInitCompleted(static_cast<U32>(&stSeg - stSegTable)) && stSeg.ulTotalAllocBlkNum != 0)
            return true;
    return false;
}

bool MM_GuardOpen(U32 hulHandle)
{
    const TMMSegInfo& stSeg = stSegTable[hulHandle];
    TMMGuarded& stGuarded = astGuarded[hulHandle]; /* nobody looks at it as long as it has no memory */

    MM_GuardClose(hulHandle);
    if (stSeg.stInfoFromApp.ubSegDSType == STACK)
        return true;
    stGuarded.ulNumbers = CMMFreeRuns::FIRST_BLOCK;
    stGuarded.ubStretches = 0;
    stGuarded.ubBlkBit = stSeg.ubBlkBit;
    stGuarded.ubMap = stSeg.stInfoFromApp.ubMap;
    stGuarded.ubEntriesBit = stGuarded.ubMap == 0 ? 0 : static_cast<U8>(3 - MM_Log2(stGuarded.ubMap));
    if (hulHandle != HEAPHANDLE)
        AddStretch(stGuarded, MM_Addr(stSeg.pubStartAddr), stSeg.ulTotalBlkNum, stSeg.pubMapEndAddr);
    for (U8 ubIdx = 0; hulHandle == HEAPHANDLE && MM_IsPiece(ubIdx); ++ubIdx)
        AddStretch(stGuarded, MM_PieceAddr(PIECE_START, ubIdx),
                   (MM_PieceAddr(PIECE_END, ubIdx) - MM_PieceAddr(PIECE_START, ubIdx)) >> stGuarded.ubBlkBit,
                   MM_At(MM_PieceAddr(PIECE_MAP_END, ubIdx)));

    U32* const pulMemory =
        static_cast<U32*>(MMP_TakeMemory(CMMFreeRuns::StorageWords(stGuarded.ulNumbers) * U32(sizeof(U32))));
    if (pulMemory == nullptr)
        return false;
    stGuarded.clRuns.Init(pulMemory, stGuarded.ulNumbers);
    for (U8 ubIdx = 0; ubIdx < stGuarded.ubStretches; ++ubIdx)
        stGuarded.clRuns.Give({stGuarded.astStretch[ubIdx].ulFirst, stGuarded.astStretch[ubIdx].ulBlkNum},
                              [](const CMMFreeRuns::TMMGiven&) {});
    {
        const CMMBlocksLock clLock;
        stGuarded.pstLast = stGuarded.astStretch + stGuarded.ubStretches - 1;
        stGuarded.pulMemory = pulMemory;
    }
    MendSegment(hulHandle, MEND_LIST);
    return true;
}

void MM_GuardClose(U32 hulHandle)
{
    U32* pulMemory = nullptr;
    {
        const CMMBlocksLock clLock;
        pulMemory = astGuarded[hulHandle].pulMemory;
        astGuarded[hulHandle].pulMemory = nullptr;
        astGuarded[hulHandle].clRuns.Forget();
    }
    if (pulMemory != nullptr)
        MMP_GiveMemory(pulMemory);
}

void MM_GuardCloseAll(void)
{
    for (U32 hulHandle = 0; hulHandle < MAX_SEGTABLE_SIZE; ++hulHandle)
        MM_GuardClose(hulHandle);
}

BOOL MM_GuardAgrees(U32 hulHandle)
{
    return astGuarded[hulHandle].pulMemory == nullptr || astGuarded[hulHandle].clRuns.Agree();
}
