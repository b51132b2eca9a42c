// What the allocators' tests share: a segment's free runs and counters, the memory and map of its blocks, a heap in
// pieces, and which lock a call takes.
#pragma once

#include <functional>
#include <ostream>

#include "manager_fixture.h"

namespace velmora::test {

class AllocatorTest : public ManagerTest
{
protected:
    // Free blocks or a request: first block or address, blocks.
    struct Run {
        U32 first;
        U32 blocks;
        bool operator==(const Run&) const = default;
        friend void PrintTo(const Run& run, std::ostream* out)
        {
            *out << "0x" << std::hex << run.first << std::dec << " x " << run.blocks;
        }
    };
    using Runs = std::vector<Run>;

    // Free runs of a segment, by address, from head to tail; that the links back and the tail agree is expected.
    static Runs runs(U32 handle)
    {
        Runs found;
        const TMMBlkStr* last = nullptr;
        for (const TMMBlkStr* run = astBlkHead[handle].pstBlk; run != nullptr && found.size() < 1000;
             run = run->pstNext) {
            EXPECT_EQ(MM_Addr(run->pstBack), MM_Addr(last)) << "link back of the run at 0x" << std::hex << MM_Addr(run);
            found.push_back({MM_Addr(run), run->ulSize});
            last = run;
        }
        EXPECT_EQ(MM_Addr(astBlkTail[handle].pstBlk), MM_Addr(last)) << "tail";
        return found;
    }
    // The same by number of the first block.
    static Runs blockRuns(U32 handle)
    {
        Runs found = runs(handle);
        for (Run& run : found)
            run.first = (run.first - startOf(handle)) >> stSegTable[handle].ubBlkBit;
        return found;
    }

    static U32 startOf(U32 handle) { return MM_Addr(stSegTable[handle].pubStartAddr); }
    static U32 endOf(U32 handle) { return MM_Addr(stSegTable[handle].pubEndAddr); }
    static U32 block(U32 handle, U32 number) { return startOf(handle) + (number << stSegTable[handle].ubBlkBit); }
    // The map byte that many bytes below the map's end; 1 is the last one.
    static U8& mapByte(U32 handle, U32 fromEnd) { return *(stSegTable[handle].pubMapEndAddr - fromEnd); }

    // Counts of blocks: all, allocated, free, longest free run.
    static std::vector<U32> counts(U32 handle)
    {
        const TMMSegInfo& seg = stSegTable[handle];
        return {seg.ulTotalBlkNum, seg.ulTotalAllocBlkNum, seg.ulTotalFreeBlkNum, seg.ulLargestBlkSize};
    }

    // The allocators themselves, on addresses.
    static U32 alloc(U32 handle, U32 blocks, U8 owner = 0) { return MM_Addr(MM_AllocBlk(handle, blocks, owner)); }
    static U32 release(U32 handle, U32 address, U32 blocks) { return MM_FreeBlk(handle, at(address), blocks); }
    static U32 push(U32 handle, U32 blocks) { return MM_Addr(MM_Push(handle, blocks, 0)); }
    static U32 pop(U32 handle, U32 address, U32 blocks) { return MM_Pop(handle, at(address), blocks); }

    // Leaves exactly these runs (numbers of first blocks) of a fresh segment free, everything else allocated.
    static void leaveFree(U32 handle, const Runs& free)
    {
        ASSERT_NE(alloc(handle, stSegTable[handle].ulTotalBlkNum), 0U);
        for (const Run& run : free)
            ASSERT_EQ(release(handle, block(handle, run.first), run.blocks), U32(ENOERR));
        ASSERT_EQ(blockRuns(handle), free);
    }

    // 16 blocks of 64 bytes from kFloatStart, no map.
    static U32 sixteenBlocks(U8 semaphore = NO) { return createBlocks("BLKS", 16 * 64, 64, 0, semaphore); }
    // 63 blocks of 64 bytes behind 64 bytes of map.
    static U32 mapped(U8 mapBits, U8 semaphore = NO) { return createBlocks("MAPD", 4096, 64, mapBits, semaphore); }
    // A heap made of exactly these stretches.
    static void createHeapOf(const std::vector<FreeNode>& stretches, U32 blockBytes, U8 mapBits = 0, U8 semaphore = NO)
    {
        setFreeMemory(stretches);
        createHeap(blockBytes, mapBits, semaphore);
    }

    // The call takes this lock first of all, takes it this often, and leaves no lock held.
    static void expectTakes(TMMLock lock, const std::function<U32()>& call, unsigned times = 1)
    {
        machine().lock(lock);
        const Outcome blocked = machine().run(call);
        EXPECT_EQ(blocked.kind, Outcome::Kind::Hang);
        EXPECT_EQ(blocked.lock, lock);
        machine().unlock(lock);

        const unsigned long takes = machine().lockTakes();
        EXPECT_TRUE(machine().run(call).returned());
        EXPECT_EQ(machine().lockTakes(), takes + times);
        EXPECT_FALSE(anyLockHeld());
        EXPECT_FALSE(machine().interruptsOff());
    }
    static void expectTakesNoLock(const std::function<U32()>& call)
    {
        const unsigned long takes = machine().lockTakes();
        EXPECT_TRUE(machine().run(call).returned());
        EXPECT_EQ(machine().lockTakes(), takes);
        EXPECT_FALSE(machine().interruptsOff());
    }
    // A check failed under this lock: it stays held, interrupts stay off, the next such call waits for ever.
    static void expectLeftHeld(TMMLock lock, const std::function<U32()>& nextCall)
    {
        EXPECT_TRUE(machine().lockHeld(lock));
        EXPECT_TRUE(machine().interruptsOff());
        const Outcome next = machine().run(nextCall);
        EXPECT_EQ(next.kind, Outcome::Kind::Hang);
        EXPECT_EQ(next.lock, lock);
    }
};

} // namespace velmora::test
