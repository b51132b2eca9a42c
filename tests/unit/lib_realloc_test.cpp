// Claims at an address of the caller's choice.
#include "support/allocator_fixture.h"

namespace velmora::test {
namespace {

class Realloc : public AllocatorTest
{
protected:
    Realloc()
    {
        start();
        seg = createBlocks("BLKS", 16 * 4096, 4096, 0, YES);
    }

    // Starts over with these runs free.
    void only(const Runs& free)
    {
        powerOn();
        start();
        seg = createBlocks("BLKS", 16 * 4096, 4096, 0, YES);
        leaveFree(seg, free);
    }
    U32 claim(U32 number, U32 blocks) const { return MM_ReallocBlock(seg, at(block(seg, number)), blocks); }
    U32 address(U32 number) const { return block(seg, number); }
    U32 head() const { return MM_Addr(astBlkHead[seg].pstBlk); }
    U32 tail() const { return MM_Addr(astBlkTail[seg].pstBlk); }

    void expectNode(U32 where, U32 next, U32 back, U32 blocks) const
    {
        EXPECT_EQ(MM_Addr(node(where)->pstNext), next) << "next";
        EXPECT_EQ(MM_Addr(node(where)->pstBack), back) << "back";
        EXPECT_EQ(U32(node(where)->ulSize), blocks) << "size";
    }

    static Lines failed(const std::string& text) { return {check(text, "mm/MM_Lib", "MM_ReallocBlock")}; }

    U32 seg;
};

// The claim starts where a run starts ---------------------------------------------------------------------

TEST_F(Realloc, WholeRunLeavesTheList)
{
    const struct {
        const char* name;
        Runs free;
        Run claimed;
        Runs left;
    } cases[] = {
        {"the only one", {{4, 5}}, {4, 5}, {}},
        {"the head", {{2, 3}, {8, 4}}, {2, 3}, {{8, 4}}},
        {"the tail", {{2, 3}, {8, 4}}, {8, 4}, {{2, 3}}},
        {"in the middle", {{0, 1}, {2, 3}, {8, 4}}, {2, 3}, {{0, 1}, {8, 4}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        only(c.free);
        const std::vector<U32> before = counts(seg);
        EXPECT_EQ(claim(c.claimed.first, c.claimed.blocks), U32(ENOERR));
        EXPECT_EQ(blockRuns(seg), c.left);
        EXPECT_EQ(counts(seg)[1], before[1] + c.claimed.blocks);
        EXPECT_EQ(counts(seg)[2], before[2] - c.claimed.blocks);
        expectSilence();
    }
    EXPECT_EQ(counts(seg), (std::vector<U32>{16, 11, 5, 4}));
}

TEST_F(Realloc, ClaimOfTheOnlyRunLeavesHeadAndTailNull)
{
    only({{4, 5}});
    EXPECT_EQ(claim(4, 5), U32(ENOERR));
    EXPECT_EQ(head(), 0U);
    EXPECT_EQ(tail(), 0U);
    EXPECT_EQ(counts(seg), (std::vector<U32>{16, 16, 0, 0}));
}

TEST_F(Realloc, RestOfARunIsKeptSixtyFourTimesTheClaimedBytesAboveItsStart)
{
    only({{2, 10}});
    const U32 rest = address(2) + 64 * 8192;
    EXPECT_EQ(claim(2, 2), U32(ENOERR));
    EXPECT_EQ(head(), rest);
    EXPECT_EQ(tail(), rest);
    expectNode(rest, 0, 0, 8);
    EXPECT_EQ(counts(seg), (std::vector<U32>{16, 8, 8, 8}));
    expectSilence();
}

TEST_F(Realloc, RestOfARunTakesItsPlaceInTheListButNotTheNextRunsLinkBack)
{
    only({{0, 1}, {2, 6}, {10, 3}});
    const U32 rest = address(2) + 64 * 4096;
    EXPECT_EQ(claim(2, 1), U32(ENOERR));
    EXPECT_EQ(head(), address(0));
    EXPECT_EQ(tail(), address(10));
    expectNode(address(0), rest, 0, 1);
    expectNode(rest, address(10), address(0), 5);
    expectNode(address(10), 0, address(2), 3); // still the match
    EXPECT_EQ(counts(seg), (std::vector<U32>{16, 7, 9, 5}));
}

TEST_F(Realloc, RestOfTheHeadBecomesTheHead)
{
    only({{2, 6}, {10, 3}});
    const U32 rest = address(2) + 64 * 4096;
    EXPECT_EQ(claim(2, 1), U32(ENOERR));
    EXPECT_EQ(head(), rest);
    EXPECT_EQ(tail(), address(10));
    expectNode(rest, address(10), 0, 5);
    expectNode(address(10), 0, address(2), 3);
}

TEST_F(Realloc, RestOfTheTailBecomesTheTail)
{
    only({{0, 1}, {2, 6}});
    const U32 rest = address(2) + 64 * 4096;
    EXPECT_EQ(claim(2, 1), U32(ENOERR));
    EXPECT_EQ(head(), address(0));
    EXPECT_EQ(tail(), rest);
    expectNode(address(0), rest, 0, 1);
    expectNode(rest, 0, address(0), 5);
}

TEST_F(Realloc, RunTooShortForAClaimAtItsStartIsReported)
{
    only({{2, 3}, {10, 3}});
    EXPECT_EQ(claim(2, 4), U32(EASSERT));
    EXPECT_EQ(log(), failed("0"));
    EXPECT_EQ(blockRuns(seg), (Runs{{2, 3}, {10, 3}}));
    EXPECT_EQ(counts(seg), (std::vector<U32>{16, 10, 6, 3}));
}

// The claim starts inside a run ---------------------------------------------------------------------------

TEST_F(Realloc, ClaimOfARunsLastBlocksOnlyShrinksIt)
{
    only({{2, 10}, {13, 2}});
    EXPECT_EQ(claim(9, 3), U32(ENOERR));
    EXPECT_EQ(blockRuns(seg), (Runs{{2, 7}, {13, 2}}));
    EXPECT_EQ(counts(seg), (std::vector<U32>{16, 7, 9, 7}));
    expectSilence();
}

TEST_F(Realloc, ClaimInTheMiddleLeavesARunOnEitherSide)
{
    only({{2, 10}});
    EXPECT_EQ(claim(5, 3), U32(ENOERR));
    EXPECT_EQ(blockRuns(seg), (Runs{{2, 3}, {8, 4}}));
    EXPECT_EQ(counts(seg), (std::vector<U32>{16, 9, 7, 4}));
    expectSilence();
}

TEST_F(Realloc, ClaimInTheMiddleLeavesTheFollowingRunsLinkBack)
{
    only({{2, 8}, {12, 1}});
    EXPECT_EQ(claim(5, 3), U32(ENOERR));
    EXPECT_EQ(head(), address(2));
    EXPECT_EQ(tail(), address(12));
    expectNode(address(2), address(8), 0, 3);
    expectNode(address(8), address(12), address(2), 2);
    expectNode(address(12), 0, address(2), 1); // not the new run
}

TEST_F(Realloc, ClaimThatRunsPastItsRunLeavesAWrappedSize)
{
    only({{2, 3}});
    EXPECT_EQ(claim(3, 5), U32(ENOERR)); // the free count wraps as well, and further
    expectNode(address(2), address(8), 0, 1);
    expectNode(address(8), 0, address(2), 0xFFFFD); // minus three blocks, shifted as 32 bits
    EXPECT_EQ(tail(), address(8));
    EXPECT_EQ(counts(seg), (std::vector<U32>{16, 18, U32(-2), 0xFFFFD}));
    expectSilence();
}

TEST_F(Realloc, WrappedSizeAboveTheFreeCountIsReportedWithTheBlocksBooked)
{
    only({{2, 3}, {10, 4}});
    EXPECT_EQ(claim(3, 5), U32(EASSERT));
    EXPECT_EQ(log(), failed("(stSegTable[hulHandle].ulLargestBlkSize >= 0) && "
                            "(stSegTable[hulHandle].ulLargestBlkSize <= stSegTable[hulHandle].ulTotalFreeBlkNum)"));
    expectNode(address(8), address(10), address(2), 0xFFFFD);
    EXPECT_EQ(counts(seg), (std::vector<U32>{16, 14, 2, 0xFFFFD}));
}

TEST_F(Realloc, ClaimBetweenBlockBoundariesRoundsTheSizesDown)
{
    only({{2, 10}});
    EXPECT_EQ(MM_ReallocBlock(seg, at(address(5) + 100), 2), U32(ENOERR));
    EXPECT_EQ(head(), address(2));
    EXPECT_EQ(tail(), address(7) + 100);
    expectNode(address(2), address(7) + 100, 0, 3); // three blocks and 100 bytes
    expectNode(address(7) + 100, 0, address(2), 4); // five blocks less 100 bytes
    EXPECT_EQ(counts(seg), (std::vector<U32>{16, 8, 8, 4}));
    expectSilence();
}

TEST_F(Realloc, ClaimOfNoBlocksInsideARunSplitsIt)
{
    only({{2, 10}});
    EXPECT_EQ(claim(5, 0), U32(ENOERR));
    EXPECT_EQ(blockRuns(seg), (Runs{{2, 3}, {5, 7}}));
    EXPECT_EQ(counts(seg), (std::vector<U32>{16, 6, 10, 7}));
    EXPECT_EQ(claim(2, 0), U32(ENOERR)); // at a run's start nothing changes
    EXPECT_EQ(blockRuns(seg), (Runs{{2, 3}, {5, 7}}));
    EXPECT_EQ(counts(seg), (std::vector<U32>{16, 6, 10, 7}));
    expectSilence();
}

// Checks ----------------------------------------------------------------------------------------------------

TEST_F(Realloc, SegmentsFirstAddressIsRefusedEvenWhenItIsFree)
{
    const Lines isStart = failed("((U8*)pubReallocAddr != stSegTable[hulHandle].pubStartAddr) && "
                                 "\"Allocating address is the same as the start address\"");
    EXPECT_EQ(claim(0, 1), U32(EASSERT));
    EXPECT_EQ(log(), isStart);
    EXPECT_EQ(claim(0, 17), U32(EASSERT)); // before the size is looked at
    EXPECT_EQ(log(), isStart);
    EXPECT_EQ(counts(seg), (std::vector<U32>{16, 0, 16, 16}));
}

TEST_F(Realloc, AddressBelowTheSegmentIsRefused)
{
    for (const U32 blocks : {1U, 18U}) {
        EXPECT_EQ(MM_ReallocBlock(seg, at(startOf(seg) - 4096), blocks), U32(EASSERT));
        EXPECT_EQ(log(), failed("(pubReallocAddr >= stSegTable[hulHandle].pubStartAddr) && \"Invalid Realloc Addr\""));
    }
}

TEST_F(Realloc, ClaimPastTheSegmentsEndIsRefusedAndUpToItAllowed)
{
    EXPECT_EQ(claim(12, 5), U32(EASSERT));
    EXPECT_EQ(log(), failed("(pubBlkEndAddr <= stSegTable[hulHandle].pubEndAddr) && \"Invalid Size\""));
    EXPECT_EQ(claim(12, 4), U32(ENOERR));
    EXPECT_EQ(blockRuns(seg), (Runs{{0, 12}}));
    expectSilence();
}

TEST_F(Realloc, AddressBelowEveryFreeRunHasNoFreeSpace)
{
    only({{6, 2}, {10, 2}});
    EXPECT_EQ(claim(3, 1), U32(EASSERT));
    EXPECT_EQ(log(), failed("(stMatchBlk.pstBlk) && \"There is no free space\""));
    EXPECT_EQ(blockRuns(seg), (Runs{{6, 2}, {10, 2}}));
    EXPECT_EQ(counts(seg), (std::vector<U32>{16, 12, 4, 2}));
}

TEST_F(Realloc, FullSegmentHasNoFreeSpace)
{
    only({});
    EXPECT_EQ(claim(3, 1), U32(EASSERT));
    EXPECT_EQ(log(), failed("(stMatchBlk.pstBlk) && \"There is no free space\""));
}

TEST_F(Realloc, BrokenFreeCountIsReportedAfterTheClaim)
{
    stSegTable[seg].ulTotalFreeBlkNum = 5;
    EXPECT_EQ(claim(14, 2), U32(EASSERT));
    EXPECT_EQ(log(), failed("(stSegTable[hulHandle].ulLargestBlkSize >= 0) && "
                            "(stSegTable[hulHandle].ulLargestBlkSize <= stSegTable[hulHandle].ulTotalFreeBlkNum)"));
    EXPECT_EQ(counts(seg), (std::vector<U32>{16, 2, 3, 14}));
    EXPECT_EQ(blockRuns(seg), (Runs{{0, 14}}));
}

TEST_F(Realloc, NoLockIsTaken)
{
    expectTakesNoLock([this] { return claim(12, 4); });
    EXPECT_EQ(counts(seg)[1], 4U);
}

TEST_F(Realloc, ClaimedBlocksAreReleasedLikeAnyOthers)
{
    claim(5, 3);
    EXPECT_EQ(release(seg, address(5), 3), U32(ENOERR));
    EXPECT_EQ(blockRuns(seg), (Runs{{0, 16}}));
    expectSilence();
}

} // namespace
} // namespace velmora::test
