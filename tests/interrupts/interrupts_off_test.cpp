// Interrupts stay off for a bounded time: a number of instructions that does not grow with the number of free runs, and grows only
// with the blocks that a command names. docs/security.md states the bounds that are held here.
#include <cstdio>
#include <gtest/gtest.h>

#include "guard/commands.h"
#include "interrupts/step_counter.h"
#include "kernel/mm/guard/MM_Guard.h"

namespace velmora::interrupts {
namespace {

using namespace velmora::guard;

// A segment whose every second block is free: as many free runs as half of its blocks.
class Comb
{
public:
    Comb(U32 runs, U32 blockBytes, U8 map) : blockBytes_(blockBytes), owner_(map != 0)
    {
        sim::bootController();
        EXPECT_EQ(enter(), ENOERR);
        EXPECT_EQ(startLibrary(), ENOERR);
        EXPECT_EQ(create({"COMB", 2 * (runs + 80) * (blockBytes + 1), blockBytes, map}, &handle_), ENOERR);
        const U32 blocks = stSegTable[handle_].ulTotalBlkNum;
        first_ = allocate(handle_, blocks * blockBytes, owner_);
        EXPECT_EQ(release(handle_, block(2 * runs + 1), (blocks - 2 * runs - 1) * blockBytes), ENOERR);
        for (U32 run = 0; run < runs; ++run)
            EXPECT_EQ(release(handle_, block(2 * run + 1), blockBytes), ENOERR);
        machine().takeLog();
    }

    U32 handle() const { return handle_; }
    U8 owner() const { return owner_; }
    U32 block(U32 number) const { return first_ + number * blockBytes_; }
    U32 blockBytes() const { return blockBytes_; }

private:
    U32 blockBytes_, handle_ = 0, first_ = 0;
    U8 owner_;
};

void show(const char* what, U32 count, std::uint64_t steps)
{
    std::printf("%s build, %s, %u: %llu instructions\n", MM_Guarded ? "guarded" : "default", what, count,
                static_cast<unsigned long long>(steps));
}

// Allocations and releases of single blocks: the lowest, the highest, one in the middle, one between two free ones.
std::uint64_t oneBlock(U32 runs)
{
    const Comb comb(runs, 64, 8);
    const StepCounter counter;
    for (const U32 number : {0U, 2U * (runs / 2), 2 * runs - 2, 2 * runs}) {
        EXPECT_EQ(release(comb.handle(), comb.block(number), 64), ENOERR);
        const U32 address = allocate(comb.handle(), 64, 1);
        EXPECT_NE(address, 0U);
        EXPECT_EQ(release(comb.handle(), address, 64), ENOERR);
    }
    EXPECT_GE(counter.times(), 12U);
    show("one block among as many free runs", runs, counter.longest());
    return counter.longest();
}

TEST(InterruptsOff, OneBlockAmongAThousandFreeRunsOrTwentyThousandIsABoundedNumberOfInstructions)
{
    for (const U32 runs : {10U, 1000U, 20000U})
        EXPECT_LE(oneBlock(runs), 5000U) << runs;
}

// The whole of a segment at once: words of bits and of the owner map.
std::uint64_t manyBlocks(U32 blocks, U8 map)
{
    Comb comb(blocks / 2, 64, map);
    for (U32 number = 0; number < blocks; number += 2)
        EXPECT_EQ(release(comb.handle(), comb.block(number), 64), ENOERR);
    const StepCounter counter;
    const U32 address = allocate(comb.handle(), blocks * 64, comb.owner());
    EXPECT_NE(address, 0U);
    EXPECT_EQ(release(comb.handle(), address, blocks * 64), ENOERR);
    show(map != 0 ? "blocks at once, eight bits of owner each" : "blocks at once, without owners", blocks,
         counter.longest());
    return counter.longest();
}

TEST(InterruptsOff, ManyBlocksAtOnceTakeTwelveInstructionsABlockWithOwnersAndTwoWithout)
{
    for (const U32 blocks : {256U, 2048U}) {
        EXPECT_LE(manyBlocks(blocks, 8), 2500 + 12 * blocks) << blocks;
        EXPECT_LE(manyBlocks(blocks, 0), 2500 + 2 * blocks) << blocks;
    }
}

TEST(InterruptsOff, ACleanUpHoldsTheLockForARunOfTheOwnersBlocksAtATime)
{
    const U32 runs = 20;
    const Comb comb(runs, 64, 8);
    const StepCounter counter;
    EXPECT_EQ(collect(comb.handle(), 1), ENOERR);
    show("clean-up of as many runs", runs, counter.longest());
    EXPECT_LE(counter.longest(), 5000U);
}

// Overwrites the headers of all free runs and lets the manager meet one.
void overwriteAndRelease(const Comb& comb, U32 runs)
{
    for (U32 run = 0; run < runs; ++run)
        std::memset(MM_At(comb.block(2 * run + 1)), 0x77, 12);
    EXPECT_EQ(release(comb.handle(), comb.block(2 * (runs / 2)), 64), ENOERR);
}

TEST(InterruptsOff, MendingTakesABoundedNumberOfInstructionsForEachRunOfASlice)
{
    if constexpr (!MM_Guarded)
        GTEST_SKIP() << "the default build mends nothing";
    const U32 runs = 100;
    const Comb comb(runs, 64, 8);
    const StepCounter counter;
    overwriteAndRelease(comb, runs);
    show("mending of as many runs", runs, counter.longest());
    EXPECT_LE(counter.longest(), 2500 + 170 * runs);
}

TEST(InterruptsOff, MendingLetsTheLockGoAfterASliceOfBlocks)
{
    if constexpr (!MM_Guarded)
        GTEST_SKIP() << "the default build mends nothing";
    const U32 runs = 5000, sliceBlocks = 4096;
    const Comb comb(runs, 64, 8);
    const unsigned long before = machine().lockTakes();
    overwriteAndRelease(comb, runs);
    EXPECT_GE(machine().lockTakes() - before, 1 + 2 * runs / sliceBlocks);
}

} // namespace
} // namespace velmora::interrupts
