// The index over free runs: the same results as the plain walk, and when it gives up.
#include <random>

#include "controller/manager_state.h"
#include "kernel/mm/mm/MM_RunIndex.h"
#include "support/manager_fixture.h"

namespace velmora::test {
namespace {

class RunIndex : public ManagerTest
{
protected:
    ~RunIndex() override { MM_UseRunIndex(TRUE); }

    // A segment whose top 64 blocks are a comb of 32 single free blocks: enough runs to wake its index. Below them
    // lies one long run from the segment's first address.
    static U32 createComb(const char* name, U32 bytes, U32 blockBytes)
    {
        const U32 handle = createBlocks(name, bytes, blockBytes);
        EXPECT_NE(MM_AllocBlock(handle, 64, 0), 0u);
        const U32 end = MM_Addr(stSegTable[handle].pubEndAddr);
        for (U32 i = 1; i <= 64; i += 2)
            MM_FreeBlock(handle, at(end - i * blockBytes), 1);
        EXPECT_TRUE(MM_IsRunIndexAwake(handle));
        return handle;
    }

    // Accesses to list nodes by an allocation and a release in a segment that is all comb: only its first two blocks make a
    // run of two.
    unsigned long touchesInAComb(U32 combBlocks)
    {
        powerOn();
        start();
        const U32 handle = createBlocks("COMB", combBlocks * 16, 16);
        const U32 first = MM_Addr(stSegTable[handle].pubStartAddr);
        const U32 blocks = MM_GetTotBlk(handle);
        EXPECT_EQ(MM_AllocBlock(handle, blocks, 0), first);
        for (U32 block = 3; block < blocks; block += 2)
            EXPECT_EQ(MM_FreeBlock(handle, at(first + block * 16), 1), U32(ENOERR));
        EXPECT_EQ(MM_FreeBlock(handle, at(first), 2), U32(ENOERR));
        EXPECT_TRUE(MM_HasRunIndex(handle));

        const unsigned long before = machine().touches();
        EXPECT_EQ(MM_AllocBlock(handle, 2, 0), first);
        EXPECT_EQ(MM_FreeBlock(handle, at(first), 2), U32(ENOERR));
        return machine().touches() - before;
    }
};

struct Shape {
    U32 bytes, blockBytes;
    U8 mapBits;
};

// What a sequence of operations answered and left behind.
struct Trace {
    std::vector<U32> answers;
    std::vector<std::string> messages;
    std::string state;
    bool operator==(const Trace&) const = default;
};

// Random allocations and releases, a few of them wrong, in one segment.
class Sequence : public RunIndex
{
protected:
    struct Allocation {
        U32 address, blocks;
        U8 owner;
    };

    Trace play(bool useIndex, const Shape& shape, unsigned seed, unsigned steps, bool wrongReleases)
    {
        powerOn();
        MM_UseRunIndex(useIndex);
        start();
        const U32 handle = createBlocks("BLK0", shape.bytes, shape.blockBytes, shape.mapBits);
        indexed = MM_HasRunIndex(handle);

        std::mt19937 random(seed);
        Trace trace;
        std::vector<Allocation> live;
        for (unsigned step = 0; step < steps; ++step) {
            const U32 bits = shape.mapBits;
            const U8 owner = static_cast<U8>(bits == 0 ? 0 : 1 + random() % ((1u << bits) - 1));
            const unsigned what = random() % 100;
            if (what < 50 || live.empty()) {
                const U32 blocks = random() % 8 == 0 ? 1 + random() % 200 : 1 + random() % 8;
                const U32 address = MM_AllocBlock(handle, blocks, owner);
                trace.answers.push_back(address);
                if (address != 0)
                    live.push_back({address, blocks, owner});
            } else if (what < 96) {
                const std::size_t which = random() % live.size();
                Allocation& a = live[which];
                // Sometimes only the first or the last part.
                const U32 part = random() % 4 == 0 ? 1 + random() % a.blocks : a.blocks;
                const bool fromTheEnd = random() % 2 == 0;
                const U32 address = fromTheEnd ? a.address + (a.blocks - part) * shape.blockBytes : a.address;
                trace.answers.push_back(MM_FreeBlock(handle, at(address), part));
                if (!fromTheEnd)
                    a.address += part * shape.blockBytes;
                a.blocks -= part;
                if (a.blocks == 0) {
                    live[which] = live.back();
                    live.pop_back();
                }
            } else if (what == 96 && wrongReleases) {
                const U32 start = MM_Addr(astBlkHead[handle].pstBlk); // released before
                trace.answers.push_back(MM_FreeBlk(handle, at(start), 1));
            } else if (what == 97 && wrongReleases && random() % 20 == 0) {
                const U32 inside = MM_Addr(astBlkTail[handle].pstBlk) + shape.blockBytes; // overlaps a free run
                trace.answers.push_back(MM_FreeBlk(handle, at(inside), 1));
            }
            trace.answers.push_back(MM_GetLargestBlk(handle));
            if (step % 64 == 0) {
                EXPECT_TRUE(MM_RunIndexAgrees(handle)) << "seed " << seed << " step " << step;
                trace.state += sim::dumpManagerState();
            }
        }
        stillIndexed = MM_HasRunIndex(handle);
        trace.messages = log();
        trace.state += sim::dumpManagerState();
        return trace;
    }

    bool indexed = false;
    bool stillIndexed = false;
};

TEST_F(Sequence, AnswersMessagesAndListsAreThoseOfTheWalk)
{
    const Shape shapes[] = {{0x4000, 16, 0},     {0x100000, 64, 0},   {0x100000, 64, 1}, {0x80000, 32, 2},
                            {0x200000, 1024, 4}, {0x800000, 4096, 8}, {0, 4096, 0},      {0, 64, 0}};
    for (const Shape& shape : shapes)
        for (unsigned seed = 1; seed <= 3; ++seed) {
            const Trace indexedTrace = play(true, shape, seed, 4000, false);
            EXPECT_TRUE(indexed);
            EXPECT_TRUE(stillIndexed);
            const Trace walkTrace = play(false, shape, seed, 4000, false);
            EXPECT_FALSE(indexed);
            ASSERT_EQ(indexedTrace, walkTrace) << shape.bytes << "/" << shape.blockBytes << " seed " << seed;
        }
}

TEST_F(Sequence, WrongReleasesAnswerAsWithTheWalk)
{
    for (unsigned seed = 1; seed <= 10; ++seed) {
        const Shape shape{0x80000, 64, static_cast<U8>(seed % 2 == 0 ? 0 : 8)};
        ASSERT_EQ(play(true, shape, seed, 3000, true), play(false, shape, seed, 3000, true)) << seed;
    }
}

TEST_F(RunIndex, SegmentsHaveAnIndexUnlessTheirBlocksCannotHoldAHeader)
{
    start();
    EXPECT_TRUE(MM_HasRunIndex(createBlocks("B16", 0x1000, 16)));
    EXPECT_FALSE(MM_HasRunIndex(createBlocks("B15", 0x1000, 15)));
    EXPECT_FALSE(MM_HasRunIndex(createStack("STK", 0x1000, 64)));
    createHeap(4096);
    EXPECT_TRUE(MM_HasRunIndex(HEAPHANDLE));
}

TEST_F(RunIndex, ManySegmentsShareTheTables)
{
    start();
    for (U32 i = 0; i < 44; ++i) {
        char name[5];
        std::snprintf(name, sizeof name, "S%03u", i);
        const U32 handle = createBlocks(name, 0x200000, 16);
        EXPECT_TRUE(MM_HasRunIndex(handle)) << i;
        const U32 address = MM_AllocBlock(handle, 3, 0);
        EXPECT_EQ(address, MM_Addr(stSegTable[handle].pubEndAddr) - 48);
        EXPECT_TRUE(MM_RunIndexAgrees(handle));
    }
    createHeap(64);
    EXPECT_TRUE(MM_HasRunIndex(HEAPHANDLE));
}

TEST_F(RunIndex, AnIndexSleepsWhileThereAreFewRuns)
{
    start();
    const U32 handle = createBlocks("BLK0", 0x10000, 64);
    const U32 end = MM_Addr(stSegTable[handle].pubEndAddr);
    ASSERT_NE(MM_AllocBlock(handle, 200, 0), 0u);
    const auto block = [=](U32 i) { return at(end - (2 * i + 1) * 64); };
    for (U32 i = 0; i < WAKE_RUNS - 1; ++i)
        ASSERT_EQ(MM_FreeBlock(handle, block(i), 1), U32(ENOERR));
    EXPECT_FALSE(MM_IsRunIndexAwake(handle)); // with the long run: WAKE_RUNS
    ASSERT_EQ(MM_FreeBlock(handle, block(WAKE_RUNS - 1), 1), U32(ENOERR));
    EXPECT_TRUE(MM_IsRunIndexAwake(handle));
    for (U32 i = 0; i < WAKE_RUNS - SLEEP_RUNS + 1; ++i)
        ASSERT_NE(MM_AllocBlock(handle, 1, 0), 0u);
    EXPECT_TRUE(MM_IsRunIndexAwake(handle));
    ASSERT_NE(MM_AllocBlock(handle, 1, 0), 0u);
    EXPECT_FALSE(MM_IsRunIndexAwake(handle));
    EXPECT_TRUE(MM_HasRunIndex(handle));
}

TEST_F(RunIndex, AStartOfTheLibraryGivesTheTablesBack)
{
    start();
    const U32 handle = createBlocks("BLK0", 0x100000, 64);
    EXPECT_EQ(MM_LibEntry(SM_BKUP_OK, nullptr), U32(ENOERR));
    EXPECT_FALSE(MM_HasRunIndex(handle));
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(MM_LibEntry(SM_BKUP_OK, nullptr), U32(ENOERR));
        EXPECT_TRUE(MM_HasRunIndex(createBlocks("BLK0", 0x8000000, 64)));
    }
}

TEST_F(RunIndex, AReleaseThatOverlapsAFreeRunDropsTheIndex)
{
    start();
    const U32 handle = createComb("BLK0", 0x10000, 64);
    ASSERT_NE(MM_AllocBlock(handle, 10, 0), 0u);
    const U32 start = MM_Addr(stSegTable[handle].pubStartAddr);
    EXPECT_EQ(MM_FreeBlk(handle, at(start + 640), 1), U32(ENOERR)); // free already, but not at a run's first address
    EXPECT_FALSE(MM_HasRunIndex(handle));
}

TEST_F(RunIndex, AReleasePastTheSegmentsEndDropsTheIndex)
{
    start();
    const U32 handle = createComb("BLK0", 0x10000, 64);
    const U32 end = MM_Addr(stSegTable[handle].pubEndAddr);
    EXPECT_EQ(MM_FreeBlk(handle, at(end - 128), 3),
              U32(ENOERR)); // an allocated block, a free one, one that is not there
    EXPECT_FALSE(MM_HasRunIndex(handle));
}

TEST_F(RunIndex, ARequestThatIsNegativeDropsTheIndex)
{
    start();
    const U32 handle = createBlocks("BLK0", 0x10000, 64);
    const U32 end = MM_Addr(stSegTable[handle].pubEndAddr);
    ASSERT_NE(MM_AllocBlock(handle, 400, 0), 0u);
    for (U32 i = 0; i < 40; ++i) // from the end: a free block, one that stays, two free ones, four that stay
        for (U32 blocks = 1; blocks <= 2; ++blocks)
            MM_FreeBlock(handle, at(end - (8 * i + blocks * blocks) * 64), blocks);
    ASSERT_TRUE(MM_IsRunIndexAwake(handle));

    const U32 tail = MM_Addr(astBlkTail[handle].pstBlk);
    EXPECT_EQ(MM_AllocBlock(handle, 0xFFFFFFFB, 0), tail + 6 * 64); // five blocks less than none: the run has six now
    EXPECT_FALSE(MM_HasRunIndex(handle));
    EXPECT_EQ(MM_AllocBlock(handle, 5, 0), tail + 64);
}

TEST_F(RunIndex, ADoubleReleaseKeepsTheIndex)
{
    start();
    const U32 handle = createComb("BLK0", 0x10000, 64);
    EXPECT_EQ(MM_FreeBlk(handle, stSegTable[handle].pubStartAddr, 1), U32(EASSERT));
    EXPECT_TRUE(MM_HasRunIndex(handle));
    EXPECT_TRUE(MM_RunIndexAgrees(handle));
}

TEST_F(RunIndex, AClaimThatLeavesAWholeListKeepsTheIndexAnotherDropsIt)
{
    start();
    const U32 kept = createComb("BLK0", 0x10000, 64);
    const U32 start = MM_Addr(stSegTable[kept].pubStartAddr);
    EXPECT_EQ(MM_ReallocBlock(kept, at(start + 64 * (960 - 5)), 5), U32(ENOERR)); // the end of the long run
    EXPECT_TRUE(MM_HasRunIndex(kept));
    EXPECT_TRUE(MM_RunIndexAgrees(kept));
    EXPECT_EQ(MM_GetLargestBlk(kept), 955u);

    // The run above keeps its link to the run that is split: links that do not agree.
    EXPECT_EQ(MM_ReallocBlock(kept, at(start + 64 * 100), 5), U32(ENOERR));
    EXPECT_FALSE(MM_HasRunIndex(kept));
}

TEST_F(RunIndex, MemoryThatIsWrittenWhereAHeaderLiesDropsTheIndex)
{
    start();
    const U32 handle = createComb("BLK0", 0x10000, 64);
    const U32 first = MM_AllocBlock(handle, 100, 0);
    const U32 run = MM_Addr(stSegTable[handle].pubStartAddr);
    const struct {
        U32 address, bytes;
        bool kept;
    } cases[] = {
        {first, 6400, true},   {run + 12, 1000, true}, {run - 10, 10, true},        {run - 10, 11, false},
        {run + 11, 1, false},  {run, 0x10000, false},  {0, 0xFFFFFFFF, false},      {run, 0, true},
        {0xFFFFFFFF, 1, true}, {run - 1, 1, true},     {run - 4, 0xFFFFFFFF, false}}; // the last one wraps: to the end of all addresses
    for (const auto& c : cases) {
        MM_BuildRunIndex(handle);
        ASSERT_TRUE(MM_IsRunIndexAwake(handle));
        MM_MemoryWritten(c.address, c.bytes);
        EXPECT_EQ(MM_HasRunIndex(handle), c.kept) << c.address << "+" << c.bytes;
    }
}

TEST_F(RunIndex, AFillByCommandIsNoticed)
{
    start();
    const U32 handle = createComb("BLK0", 0x10000, 64);
    const TMemsetInfo info{MM_Addr(stSegTable[handle].pubStartAddr), 0, 4};
    std::memcpy(at(sim::kScratch), &info, sizeof info);
    EXPECT_EQ(Velmora_MM_ioctl(MM_CMD_MEMSET, sim::kScratch), 0);
    EXPECT_FALSE(MM_HasRunIndex(handle));
}

TEST_F(RunIndex, SegmentsThatShareMemoryWalk)
{
    start();
    U8 name[4] = {'S', 'A', 'M', 'E'};
    U8 rjl[4] = {'$', 'R', 'J', 'L'};
    ASSERT_EQ(MM_DeleteSegment(rjl), U32(ENOERR));
    ASSERT_EQ(MM_AddSegment(name, 0x10000, at(kAreaStart + 8192)), U32(ENOERR)); // where "$JCB" lies
    TSegInfoFromApp info = request("$JCB", 0, 64);
    info.ubType = FIXED;
    ASSERT_EQ(MM_CreateSegment(&info), U32(ENOERR));
    EXPECT_TRUE(MM_HasRunIndex(0));
    info = request("SAME", 0, 64);
    info.ubType = FIXED;
    ASSERT_EQ(MM_CreateSegment(&info), U32(ENOERR));
    EXPECT_FALSE(MM_HasRunIndex(0));
    EXPECT_FALSE(MM_HasRunIndex(1));
}

// Free memory of two stretches, of which the second begins where a fixed segment lies: the heap's second piece.
TEST_F(RunIndex, AHeapAndASegmentThatLiesInOneOfItsPiecesWalk)
{
    for (const U32 start : {0x95400000u, 0x95500000u}) { // the first piece, the second one
        powerOn();
        this->start();
        U8 name[4] = {'S', 'A', 'M', 'E'};
        U8 rjl[4] = {'$', 'R', 'J', 'L'};
        ASSERT_EQ(MM_DeleteSegment(rjl), U32(ENOERR));
        ASSERT_EQ(MM_AddSegment(name, 0x8000, at(start)), U32(ENOERR));
        TSegInfoFromApp info = request("SAME", 0, 64);
        info.ubType = FIXED;
        ASSERT_EQ(MM_CreateSegment(&info), U32(ENOERR));
        ASSERT_TRUE(MM_HasRunIndex(0));
        setFreeMemory({{0x95400000, 0x10000}, {0x95500000, 0x10000}});
        createHeap(64);
        EXPECT_FALSE(MM_HasRunIndex(0)) << start;
        EXPECT_FALSE(MM_HasRunIndex(HEAPHANDLE)) << start;
    }
}

TEST_F(RunIndex, AHeapBesideASegmentKeepsBothIndexes)
{
    for (const U8 mapBits : {U8(0), U8(8)}) {
        powerOn();
        start();
        TSegInfoFromApp info = request("$JCB", 0, 64);
        info.ubType = FIXED;
        info.ubMap = mapBits;
        ASSERT_EQ(MM_CreateSegment(&info), U32(ENOERR));
        setFreeMemory({{0x95400000, 0x10000}, {0x95500000, 0x10000}});
        createHeap(64, mapBits);
        EXPECT_TRUE(MM_HasRunIndex(0)) << int(mapBits);
        EXPECT_TRUE(MM_HasRunIndex(HEAPHANDLE)) << int(mapBits);
    }
}

TEST_F(RunIndex, OneLargeSegmentLeavesTablesForTheOthers)
{
    start();
    const U32 large = createBlocks("HUGE", 0x7000000, 16);
    ASSERT_TRUE(MM_HasRunIndex(large));
    for (U32 i = 0; i < 43; ++i) {
        char name[5];
        std::snprintf(name, sizeof name, "S%03u", i);
        const U32 handle = createBlocks(name, 0x10000, 16);
        ASSERT_TRUE(MM_HasRunIndex(handle)) << i;
        ASSERT_NE(MM_AllocBlock(handle, 100, 0), 0u);
        for (U32 block = 1; block <= 60; block += 2)
            ASSERT_EQ(MM_FreeBlock(handle, at(MM_Addr(stSegTable[handle].pubEndAddr) - block * 16), 1), U32(ENOERR));
        EXPECT_TRUE(MM_IsRunIndexAwake(handle));
        EXPECT_TRUE(MM_RunIndexAgrees(handle));
    }
    EXPECT_EQ(MM_AllocBlock(large, 1, 0), MM_Addr(stSegTable[large].pubEndAddr) - 16);
}

TEST_F(RunIndex, TablesAreTakenWhereTheyJustFit)
{
    CMMRunTables tables;
    std::vector<U32> storage(10000);
    const TMMSpan span{0x95400000, 0x95420000}; // 8192 blocks of 16 bytes, 256 chunks
    const U32 taken = tables.Place(span, 4, storage.data(), U32(storage.size()));
    // A word for each chunk; of the short tree 8 nodes and one above them, of 10 words; of the long one, with an element for
    // eight chunks, 2 and one, of 18.
    ASSERT_EQ(taken, 256u + 9 * 10 + 3 * 18);
    EXPECT_EQ(tables.Place(span, 4, storage.data(), taken), taken);
    EXPECT_LT(tables.Place(span, 4, storage.data(), taken - 1), taken); // larger chunks, fewer of them
    EXPECT_GT(tables.Place(span, 4, storage.data(), taken - 1), 0u);
    EXPECT_EQ(tables.Place(span, 4, storage.data(), 1), 0u);
}

TEST_F(RunIndex, AClaimOfTheOnlyRunOfTheFirstChunkLeavesNothingInTheTables)
{
    start();
    const U32 handle = createBlocks("BLK0", 0x10000, 64);
    const U32 first = MM_Addr(stSegTable[handle].pubStartAddr);
    ASSERT_EQ(MM_AllocBlock(handle, 1024, 0), first);
    for (U32 block = 600; block < 680; block += 2)
        ASSERT_EQ(MM_FreeBlock(handle, at(first + block * 64), 1), U32(ENOERR));
    ASSERT_EQ(MM_FreeBlock(handle, at(first + 2 * 64), 5), U32(ENOERR));
    ASSERT_TRUE(MM_IsRunIndexAwake(handle));
    EXPECT_EQ(MM_ReallocBlock(handle, at(first + 2 * 64), 5), U32(ENOERR));
    EXPECT_TRUE(MM_IsRunIndexAwake(handle));
    EXPECT_TRUE(MM_RunIndexAgrees(handle));
    EXPECT_EQ(MM_AllocBlock(handle, 2, 0), 0u);
}

TEST_F(RunIndex, ALongRunThatIsOneBlockLongerThanAnotherIsTheLongest)
{
    start();
    const U32 handle = createBlocks("BLK0", 0x10000, 64);
    const U32 first = MM_Addr(stSegTable[handle].pubStartAddr);
    ASSERT_EQ(MM_AllocBlock(handle, 1024, 0), first);
    for (U32 block = 600; block < 680; block += 2)
        ASSERT_EQ(MM_FreeBlock(handle, at(first + block * 64), 1), U32(ENOERR));
    ASSERT_EQ(MM_FreeBlock(handle, at(first), 200), U32(ENOERR));            // both begin in the
    ASSERT_EQ(MM_FreeBlock(handle, at(first + 201 * 64), 300), U32(ENOERR)); // first 256 blocks
    ASSERT_TRUE(MM_IsRunIndexAwake(handle));
    ASSERT_EQ(MM_AllocBlock(handle, 101, 0), first + 400 * 64); // 199 are left of the second
    EXPECT_EQ(MM_GetLargestBlk(handle), 200u);
    EXPECT_TRUE(MM_RunIndexAgrees(handle));
}

TEST_F(RunIndex, TheLargestRequestThatIsNotNegativeKeepsTheIndex)
{
    start();
    const U32 handle = createComb("BLK0", 0x10000, 64);
    EXPECT_EQ(MM_AllocBlock(handle, 0x7FFFFFFF, 0), 0u);
    EXPECT_TRUE(MM_IsRunIndexAwake(handle));
    // 2^31 blocks: by the walk, size less request is negative for every run, and for none is it 0 or more.
    EXPECT_EQ(MM_AllocBlock(handle, 0x80000000, 0), 0u);
    EXPECT_FALSE(MM_HasRunIndex(handle));
}

TEST_F(RunIndex, AListIsNotIndexedWhenASizeIsNoneOrPassesTheEnd)
{
    start();
    const U32 handle = createComb("BLK0", 0x10000, 64);
    TMMBlkStr* const tail = astBlkTail[handle].pstBlk;
    for (const U32 size : {0u, 2u, 0x80000000u}) {
        tail->ulSize = size;
        MM_BuildRunIndex(handle);
        EXPECT_FALSE(MM_HasRunIndex(handle)) << size;
    }
    tail->ulSize = 1;
    MM_BuildRunIndex(handle);
    EXPECT_TRUE(MM_IsRunIndexAwake(handle));
}

TEST_F(RunIndex, AChunkThatDoesNotHoldWhatTheIndexSaysDropsIt)
{
    start();
    const U32 handle = createComb("BLK0", 0x10000, 64);
    const U32 run = MM_Addr(stSegTable[handle].pubStartAddr);
    const U32 size = 3;
    std::memcpy(at(run + 8), &size, sizeof size); // behind the manager's back
    EXPECT_EQ(MM_AllocBlock(handle, 10, 0), 0u);  // what the walk answers
    EXPECT_FALSE(MM_HasRunIndex(handle));
    EXPECT_EQ(MM_AllocBlock(handle, 3, 0), run);
}

TEST_F(RunIndex, AListWithOtherEndsDropsIt)
{
    start();
    const U32 handle = createComb("BLK0", 0x10000, 64);
    astBlkTail[handle].pstBlk = nullptr;
    EXPECT_EQ(MM_AllocBlock(handle, 1, 0), 0u); // the list, from its tail, is empty
    EXPECT_FALSE(MM_HasRunIndex(handle));
}

TEST_F(RunIndex, AListWithAnotherHeadIsWalkedWhereItIsAskedForItsLongestRun)
{
    start();
    const U32 handle = createComb("BLK0", 0x10000, 64);
    EXPECT_EQ(MM_FindNewLargestBlk(handle), 960u); // the long run below the comb
    astBlkHead[handle].pstBlk = astBlkHead[handle].pstBlk->pstNext;
    EXPECT_EQ(MM_FindNewLargestBlk(handle), 1u);
    EXPECT_TRUE(MM_IsRunIndexAwake(handle)); // a question changes no state
    EXPECT_NE(MM_AllocBlock(handle, 1, 0), 0u);
    EXPECT_FALSE(MM_HasRunIndex(handle));
}

TEST_F(RunIndex, ARequestForNoBlocksIsAnsweredAsByTheWalk)
{
    start();
    const U32 handle = createComb("BLK0", 0x10000, 64);
    const U32 tail = MM_Addr(astBlkTail[handle].pstBlk);
    EXPECT_EQ(MM_AllocBlock(handle, 0, 0), tail + 64); // past the highest run, of which nothing is taken
    EXPECT_TRUE(MM_IsRunIndexAwake(handle));
    EXPECT_TRUE(MM_RunIndexAgrees(handle));
}

TEST_F(RunIndex, AGroupWithoutTheLongRunThatTheIndexSaysDropsIt)
{
    start();
    const U32 handle = createComb("BLK0", 0x10000, 64);
    const U32 run = MM_Addr(stSegTable[handle].pubStartAddr);
    const U32 size = 200; // not the 960 of the tables, and long all the same
    std::memcpy(at(run + 8), &size, sizeof size);
    EXPECT_EQ(MM_AllocBlock(handle, 300, 0), 0u);
    EXPECT_FALSE(MM_HasRunIndex(handle));
    EXPECT_EQ(MM_AllocBlock(handle, 200, 0), run);
}

TEST_F(RunIndex, TheIndexDisagreesWithAListInWhichAnythingIsOtherwise)
{
    start();
    const U32 handle = createComb("BLK0", 0x10000, 64);
    TMMBlkStr* const longRun = astBlkHead[handle].pstBlk;
    TMMBlkStr* const tooth = longRun->pstNext; // the lowest single block
    ASSERT_TRUE(MM_RunIndexAgrees(handle));
    const struct {
        TMMBlkStr *TMMBlkStr::*link, *run, *other;
    } links[] = {{&TMMBlkStr::pstBack, tooth, nullptr},          // the list is not linked both ways
                 {&TMMBlkStr::pstNext, longRun, tooth->pstNext}, // it jumps over a run
                 {&TMMBlkStr::pstNext, tooth, longRun}};         // it goes back
    for (const auto& [link, run, other] : links) {
        TMMBlkStr* const before = run->*link;
        run->*link = other;
        EXPECT_FALSE(MM_RunIndexAgrees(handle));
        run->*link = before;
        EXPECT_TRUE(MM_RunIndexAgrees(handle));
    }
    TMMBlkStr* const tail = astBlkTail[handle].pstBlk; // without it the list is ordinary, and its chunk has another top
    tail->pstBack->pstNext = nullptr;
    astBlkTail[handle].pstBlk = tail->pstBack;
    EXPECT_FALSE(MM_RunIndexAgrees(handle));
    tail->pstBack->pstNext = tail;
    astBlkTail[handle].pstBlk = tail;
    const struct {
        TMMBlkStr* run;
        U32 size;
    } sizes[] = {{longRun, 959}, // the group's longest run is another
                 {longRun, 100}, // it is none of the long ones
                 {longRun, 961}, // it reaches over the tooth
                 {tooth, 2},     // the chunk's longest run is another
                 {tooth, 0}};
    for (const auto& [run, size] : sizes) {
        const U32 before = run->ulSize;
        run->ulSize = size;
        EXPECT_FALSE(MM_RunIndexAgrees(handle)) << size;
        run->ulSize = before;
        EXPECT_TRUE(MM_RunIndexAgrees(handle));
    }
}

TEST_F(RunIndex, AListWhoseLastHeaderWouldPassTheSegmentsEndIsNotOrdinary)
{
    start();
    const U32 handle = createComb("BLK0", 0x10000, 64);
    ASSERT_EQ(MM_AllocBlock(handle, 1, 0), MM_Addr(stSegTable[handle].pubEndAddr) - 64); // nothing is free at the end
    ASSERT_TRUE(MM_RunIndexAgrees(handle));
    TMMBlkStr* const tail = astBlkTail[handle].pstBlk;
    TMMBlkStr* const beyond = MM_At<TMMBlkStr>(MM_Addr(stSegTable[handle].pubEndAddr) - 11); // of 12 bytes
    *beyond = {nullptr, tail, 1, {}};
    tail->pstNext = beyond;
    astBlkTail[handle].pstBlk = beyond;
    EXPECT_FALSE(MM_RunIndexAgrees(handle));
}

// Owner entries that lie outside of the map are other memory: there a run may have its header.
class EntriesOutsideOfTheMap : public RunIndex
{
protected:
    // 8-bit entries: of a block that is so many blocks from the segment's end, the byte so many below the map's end.
    EntriesOutsideOfTheMap()
    {
        start();
        below = createComb("BELO", 0x10000, 64);
        mapped = createBlocks("MAPD", 0x10000, 64, 8);
        lowest = MM_Addr(stSegTable[mapped].pubStartAddr);
        EXPECT_EQ(MM_AllocBlock(mapped, MM_GetTotBlk(mapped), 0xAA), lowest);
        for (U32 block = 0; block < 64; block += 2)
            EXPECT_EQ(MM_FreeBlock(mapped, at(lowest + block * 64), 1), U32(ENOERR));
        EXPECT_TRUE(MM_IsRunIndexAwake(mapped));
    }

    U32 below = 0, mapped = 0, lowest = 0;
};

TEST_F(EntriesOutsideOfTheMap, AboveTheMapDropTheIndexOfTheSegmentItself)
{
    // The last block and one behind it: the second entry is the byte at the map's end, in the first block's header.
    MM_SetMap(mapped, at(MM_Addr(stSegTable[mapped].pubEndAddr) - 64), 1, 0);
    EXPECT_TRUE(MM_HasRunIndex(mapped));
    MM_SetMap(mapped, at(MM_Addr(stSegTable[mapped].pubEndAddr) - 64), 2, 0);
    EXPECT_FALSE(MM_HasRunIndex(mapped));
    EXPECT_TRUE(MM_HasRunIndex(below));
}

TEST_F(EntriesOutsideOfTheMap, ThatAReleaseErasesDropTheIndexAsWell)
{
    U8* const end = stSegTable[mapped].pubMapEndAddr;
    end[-1] = 0xAA; // the last block is owned
    *end = 0xAA;    // and, by its first byte, the first one's header seems to be
    EXPECT_EQ(MM_ClearMap(mapped, at(MM_Addr(stSegTable[mapped].pubEndAddr) - 64), 1), U32(ENOERR));
    EXPECT_TRUE(MM_HasRunIndex(mapped));
    end[-1] = 0xAA;
    EXPECT_EQ(MM_ClearMap(mapped, at(MM_Addr(stSegTable[mapped].pubEndAddr) - 64), 2), U32(ENOERR));
    EXPECT_EQ(*end, 0);
    EXPECT_FALSE(MM_HasRunIndex(mapped));
}

TEST_F(EntriesOutsideOfTheMap, BelowTheMapDropTheIndexOfTheSegmentThere)
{
    const U32 header = MM_Addr(astBlkTail[below].pstBlk);
    const U32 distance = MM_Addr(stSegTable[mapped].pubMapEndAddr) - header;
    MM_SetMap(mapped, at(MM_Addr(stSegTable[mapped].pubEndAddr) - distance * 64), 1, 0);
    EXPECT_FALSE(MM_HasRunIndex(below));
    EXPECT_TRUE(MM_HasRunIndex(mapped));
}

TEST_F(RunIndex, TheNextControlOperationFindsAHeaderThatOthersChangedInTheFirstSegmentOfAll)
{
    start();
    TSegInfoFromApp info = request("$JCB", 0, 64);
    info.ubType = FIXED;
    ASSERT_EQ(MM_CreateSegment(&info), U32(ENOERR));
    ASSERT_EQ(info.hulHandle, 0u);
    const U32 end = MM_Addr(stSegTable[0].pubEndAddr);
    ASSERT_NE(MM_AllocBlock(0, 64, 0), 0u);
    for (U32 i = 1; i <= 64; i += 2)
        ASSERT_EQ(MM_FreeBlock(0, at(end - i * 64), 1), U32(ENOERR));
    ASSERT_TRUE(MM_IsRunIndexAwake(0));
    astBlkHead[0].pstBlk->ulSize = 3;
    createBlocks("BLK1", 0x1000, 64);
    EXPECT_FALSE(MM_HasRunIndex(0));
}

TEST_F(RunIndex, TheNextControlOperationFindsAHeaderThatOthersChanged)
{
    start();
    const U32 handle = createComb("BLK0", 0x10000, 64);
    const U32 size = 3;
    std::memcpy(at(MM_Addr(stSegTable[handle].pubStartAddr) + 8), &size, sizeof size);
    createBlocks("BLK1", 0x1000, 64);
    EXPECT_FALSE(MM_HasRunIndex(handle));
}

TEST_F(RunIndex, ASegmentForWhichNoTablesAreLeftWalks)
{
    start();
    const U32 handle = createBlocks("BLK0", 0x100000, 64);
    unsigned builds = 0;
    while (MM_HasRunIndex(handle) && builds < 10000) {
        MM_BuildRunIndex(handle); // takes new tables each time, as every initialisation does
        ++builds;
    }
    EXPECT_LT(builds, 10000u);
    EXPECT_EQ(MM_AllocBlock(handle, 1, 0), MM_Addr(stSegTable[handle].pubEndAddr) - 64);
}

TEST_F(RunIndex, TheCostOfACallDoesNotGrowWithTheRuns)
{
#ifdef MM_CHECK_RUN_INDEX
    GTEST_SKIP() << "the check after each operation walks the list";
#endif
    const unsigned long few = touchesInAComb(200); // walking: 300
    EXPECT_LT(few, 100u);
    for (const U32 combBlocks : {2000u, 20000u, 200000u}) // walking: 300,000 in the end
        EXPECT_LE(touchesInAComb(combBlocks), few) << combBlocks;
}

} // namespace
} // namespace velmora::test
