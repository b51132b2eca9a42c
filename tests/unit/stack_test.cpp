// Stack segments: push from the end downwards, pop of the piece pushed last, the push and pop locks.
#include "support/allocator_fixture.h"

namespace velmora::test {
namespace {

class Stack : public AllocatorTest
{
protected:
    Stack() { start(); }

    // 16 blocks of 64 bytes.
    static U32 stackOfSixteen(U8 semaphore = NO) { return createStack("STCK", 16 * 64, 64, semaphore); }
    static U32 top(U32 stack) { return MM_Addr(astStackStr[stack].pubStackHead); }

    static std::string failed(const std::string& text) { return check(text, "mm/MM_FreeBlk", "MM_Pop"); }
    const std::string noBlocks = failed("(ulBlkNo > 0) && \"Requested Block Size is invalid\"");
    const std::string notTheTop = failed("(pubRlsAddr == astStackStr[hulHandle].pubStackHead) && "
                                         "\"Already Freed Address is requested!\"");
    const std::string pastTheEnd =
        failed("((astStackStr[hulHandle].pubStackHead) <= (stSegTable[hulHandle].pubEndAddr)) && "
               "\"Interrupt an another Segment\"");
    const std::string largestTooLarge =
        failed("(stSegTable[hulHandle].ulLargestBlkSize >= 0) && "
               "(stSegTable[hulHandle].ulLargestBlkSize <= stSegTable[hulHandle].ulTotalFreeBlkNum)");
    const std::string wrongTotal =
        failed("((stSegTable[hulHandle].ulTotalFreeBlkNum + stSegTable[hulHandle].ulTotalAllocBlkNum) == "
               "stSegTable[hulHandle].ulTotalBlkNum) && \"Total Blk Number is Wrong!!\"");
};

TEST_F(Stack, GrowsDownFromTheSegmentsEnd)
{
    const U32 stack = stackOfSixteen();
    EXPECT_EQ(top(stack), kFloatStart + 16 * 64);
    EXPECT_EQ(push(stack, 3), kFloatStart + 13 * 64);
    EXPECT_EQ(push(stack, 2), kFloatStart + 11 * 64);
    EXPECT_EQ(top(stack), kFloatStart + 11 * 64);
    EXPECT_EQ(counts(stack), (std::vector<U32>{16, 5, 11, 11}));
    expectSilence();
}

TEST_F(Stack, FiveOneByteBlocksAreRoundedToEightBytesAndCountedAsFive)
{
    const U32 stack = createStack("BYTE", 64, 1);
    EXPECT_EQ(push(stack, 5), kFloatStart + 56);
    EXPECT_EQ(log(), (Lines{"\r\n[MM] H(5) Push Bef (5) after(8)"}));
    EXPECT_EQ(counts(stack), (std::vector<U32>{64, 5, 59, 56}));

    EXPECT_EQ(pop(stack, kFloatStart + 56, 5), U32(ENOERR));
    EXPECT_EQ(top(stack), kFloatStart + 64);
    EXPECT_EQ(counts(stack), (std::vector<U32>{64, 0, 64, 64}));
    expectSilence(); // a pop rounds without a message
}

TEST_F(Stack, BytesAreRoundedUpToAMultipleOfFour)
{
    const struct {
        U32 blockBytes, blocks, bytes;
        Lines message;
    } cases[] = {
        {1, 1, 4, {"\r\n[MM] H(5) Push Bef (1) after(4)"}},
        {1, 3, 4, {"\r\n[MM] H(5) Push Bef (3) after(4)"}},
        {1, 4, 4, {}},
        {1, 7, 8, {"\r\n[MM] H(5) Push Bef (7) after(8)"}},
        {2, 1, 4, {"\r\n[MM] H(5) Push Bef (2) after(4)"}},
        {2, 2, 4, {}},
        {3, 3, 8, {"\r\n[MM] H(5) Push Bef (6) after(8)"}}, // counts as two bytes
        {4, 1, 4, {}},
        {4, 3, 12, {}},
        {8, 1, 8, {}},
        {64, 1, 64, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.blocks << " of " << c.blockBytes);
        powerOn();
        start();
        const U32 stack = createStack("STCK", 64, c.blockBytes);
        EXPECT_EQ(push(stack, c.blocks), kFloatStart + 64 - c.bytes);
        EXPECT_EQ(log(), c.message);
        EXPECT_EQ(pop(stack, top(stack), c.blocks), U32(ENOERR));
        EXPECT_EQ(top(stack), kFloatStart + 64);
        expectSilence();
    }
}

TEST_F(Stack, PushOfExactlyTheFreeSpaceSucceeds)
{
    const U32 stack = stackOfSixteen();
    EXPECT_EQ(push(stack, 16), kFloatStart);
    EXPECT_EQ(counts(stack), (std::vector<U32>{16, 16, 0, 0}));
}

TEST_F(Stack, PushOfOneBlockMoreGivesNullAndChangesNothing)
{
    const U32 stack = stackOfSixteen();
    push(stack, 6);
    EXPECT_EQ(push(stack, 11), 0U);
    EXPECT_EQ(counts(stack), (std::vector<U32>{16, 6, 10, 10}));
    EXPECT_EQ(top(stack), kFloatStart + 10 * 64);
    expectSilence();
}

TEST_F(Stack, RoundingIsReportedEvenWhenThePushDoesNotFit)
{
    const U32 stack = createStack("BYTE", 64, 1);
    EXPECT_EQ(push(stack, 65), 0U);
    EXPECT_EQ(log(), (Lines{"\r\n[MM] H(5) Push Bef (65) after(68)"}));
}

TEST_F(Stack, RoundingThatReachesBelowTheSegmentLeavesAWrappedLargest)
{
    // 63 blocks of one byte, which only an aligned segment can have: they fit by their count, but their 64 bytes
    // begin one byte below the segment.
    TSegInfoFromApp info = request("BYTE", 63, 1);
    info.ubType = FLOATALIGN;
    info.ubSegDSType = STACK;
    ASSERT_EQ(MM_CreateSegment(&info), U32(ENOERR));
    const U32 stack = info.hulHandle;
    ASSERT_EQ(counts(stack), (std::vector<U32>{63, 0, 63, 63}));
    const U32 bottom = startOf(stack);
    EXPECT_EQ(push(stack, 63), bottom - 1);
    EXPECT_EQ(log(), (Lines{"\r\n[MM] H(5) Push Bef (63) after(64)"}));
    EXPECT_EQ(counts(stack), (std::vector<U32>{63, 63, 0, 0xFFFFFFFF}));

    EXPECT_EQ(pop(stack, bottom - 1, 63), U32(ENOERR));
    EXPECT_EQ(top(stack), bottom + 63);
    EXPECT_EQ(counts(stack), (std::vector<U32>{63, 0, 63, 63}));
    expectSilence();
}

TEST_F(Stack, OwnerIsIgnored)
{
    const U32 stack = stackOfSixteen();
    EXPECT_EQ(MM_Addr(MM_Push(stack, 1, 200)), kFloatStart + 15 * 64);
    expectSilence();
}

TEST_F(Stack, OnlyThePiecePushedLastCanBePopped)
{
    const U32 stack = stackOfSixteen();
    const U32 first = push(stack, 3);
    const U32 second = push(stack, 2);
    EXPECT_EQ(pop(stack, first, 3), U32(EASSERT));
    EXPECT_EQ(log(), (Lines{notTheTop}));
    EXPECT_EQ(top(stack), second);
    EXPECT_EQ(counts(stack), (std::vector<U32>{16, 5, 11, 11}));

    EXPECT_EQ(pop(stack, second, 2), U32(ENOERR));
    EXPECT_EQ(pop(stack, first, 3), U32(ENOERR));
    EXPECT_EQ(top(stack), kFloatStart + 16 * 64);
    EXPECT_EQ(counts(stack), (std::vector<U32>{16, 0, 16, 16}));
    expectSilence();
}

TEST_F(Stack, PopOfNoBlocksIsRefusedBeforeTheAddressIsLookedAt)
{
    const U32 stack = stackOfSixteen();
    const U32 address = push(stack, 3);
    EXPECT_EQ(pop(stack, address, 0), U32(EASSERT));
    EXPECT_EQ(pop(stack, address + 64, 0), U32(EASSERT));
    EXPECT_EQ(log(), (Lines{noBlocks, noBlocks}));
    EXPECT_EQ(counts(stack), (std::vector<U32>{16, 3, 13, 13}));
}

TEST_F(Stack, PopOfMoreThanThePushPassesUpToTheSegmentsEnd)
{
    const U32 stack = stackOfSixteen();
    push(stack, 3);
    EXPECT_EQ(pop(stack, push(stack, 2), 4), U32(ENOERR));
    EXPECT_EQ(top(stack), kFloatStart + 15 * 64);
    EXPECT_EQ(counts(stack), (std::vector<U32>{16, 1, 15, 15}));
    expectSilence();
}

TEST_F(Stack, PopPastTheSegmentsEndIsReportedWithTheTopMoved)
{
    const U32 stack = stackOfSixteen();
    EXPECT_EQ(pop(stack, push(stack, 2), 3), U32(EASSERT));
    EXPECT_EQ(log(), (Lines{pastTheEnd}));
    EXPECT_EQ(top(stack), kFloatStart + 17 * 64);
    EXPECT_EQ(counts(stack), (std::vector<U32>{16, 2, 14, 14}));
}

TEST_F(Stack, LargestAboveTheFreeCountIsReportedWithEverythingCounted)
{
    const U32 stack = stackOfSixteen();
    const U32 address = push(stack, 2);
    stSegTable[stack].ulTotalFreeBlkNum = 13;
    EXPECT_EQ(pop(stack, address, 2), U32(EASSERT));
    EXPECT_EQ(log(), (Lines{largestTooLarge}));
    EXPECT_EQ(counts(stack), (std::vector<U32>{16, 0, 15, 16}));
    EXPECT_EQ(top(stack), kFloatStart + 16 * 64);
}

TEST_F(Stack, BrokenTotalIsReportedByAPopUnderTheLockOnly)
{
    for (const U8 semaphore : {YES, NO}) {
        SCOPED_TRACE(int(semaphore));
        powerOn();
        start();
        const U32 stack = stackOfSixteen(semaphore);
        const U32 address = push(stack, 2);
        stSegTable[stack].ulTotalBlkNum = 17;
        EXPECT_EQ(pop(stack, address, 2), U32(semaphore == YES ? EASSERT : ENOERR));
        EXPECT_EQ(log(), semaphore == YES ? (Lines{wrongTotal}) : Lines{});
        EXPECT_EQ(counts(stack), (std::vector<U32>{17, 0, 16, 16}));
        EXPECT_EQ(machine().lockHeld(pop_lock), semaphore == YES);
    }
}

TEST_F(Stack, BrokenTotalDoesNotStopAPush)
{
    const U32 stack = stackOfSixteen(YES);
    stSegTable[stack].ulTotalBlkNum = 17;
    EXPECT_EQ(push(stack, 2), kFloatStart + 14 * 64);
    expectSilence();
    EXPECT_FALSE(anyLockHeld());
}

// Locks -------------------------------------------------------------------------------------------------

TEST_F(Stack, PushTakesThePushLockAndReleasesIt)
{
    const U32 stack = stackOfSixteen(YES);
    expectTakes(push_lock, [=] { return push(stack, 2); });
    EXPECT_EQ(counts(stack), (std::vector<U32>{16, 2, 14, 14}));
}

TEST_F(Stack, PushThatDoesNotFitReleasesThePushLock)
{
    const U32 stack = stackOfSixteen(YES);
    expectTakes(push_lock, [=] { return push(stack, 17); });
    EXPECT_EQ(push(stack, 17), 0U);
}

TEST_F(Stack, PopTakesThePopLockAndReleasesIt)
{
    const U32 stack = stackOfSixteen(YES);
    const U32 address = push(stack, 2);
    expectTakes(pop_lock, [=] { return pop(stack, address, 2); });
    EXPECT_EQ(counts(stack), (std::vector<U32>{16, 0, 16, 16}));
}

TEST_F(Stack, SegmentWithoutSemaphoreTakesNoLock)
{
    const U32 stack = stackOfSixteen(NO);
    expectTakesNoLock([=] { return push(stack, 2); });
    expectTakesNoLock([=] { return pop(stack, top(stack), 2); });
}

TEST_F(Stack, EveryFailedPopLeavesThePopLockHeldAndTheNextPopHangs)
{
    const struct {
        const char* name;
        std::function<void(U32 stack)> fail;
    } cases[] = {
        {"no blocks", [](U32 stack) { pop(stack, top(stack), 0); }},
        {"not the top", [](U32 stack) { pop(stack, top(stack) + 64, 1); }},
        {"past the end", [](U32 stack) { pop(stack, top(stack), 17); }},
        {"largest above free",
         [](U32 stack) {
             stSegTable[stack].ulTotalFreeBlkNum = 0;
             pop(stack, top(stack), 1);
         }},
        {"broken total",
         [](U32 stack) {
             stSegTable[stack].ulTotalBlkNum = 0;
             pop(stack, top(stack), 1);
         }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        powerOn();
        start();
        const U32 stack = stackOfSixteen(YES);
        push(stack, 4);
        c.fail(stack);
        EXPECT_EQ(log().size(), 1U);
        expectLeftHeld(pop_lock, [=] { return pop(stack, top(stack), 1); });
        EXPECT_TRUE(machine().run([=] { return push(stack, 1); }).returned()); // its own lock
    }
}

// Stack as the heap ---------------------------------------------------------------------------------------

TEST_F(Stack, HeapThatIsAStackHasBlocksButNoRoom)
{
    setFreeMemory({{0x95400000, 0x1000}, {0x95500000, 0x2000}});
    EXPECT_EQ(createStack("HEAP", 0, 64), U32(HEAPHANDLE));
    EXPECT_EQ(counts(HEAPHANDLE), (std::vector<U32>{128, 0, 128, 0}));
    EXPECT_EQ(push(HEAPHANDLE, 1), 0U);
    expectSilence();
}

TEST_F(Stack, BrokenTotalOfAHeapThatIsAStackPrintsItsPieceOnAPush)
{
    setFreeMemory({{0x95400000, 0x1000}, {0x95500000, 0x2000}});
    createStack("HEAP", 0, 64, YES);
    stSegTable[HEAPHANDLE].ulTotalBlkNum += 1;
    EXPECT_EQ(push(HEAPHANDLE, 0), 0x95500000U); // no blocks are all that fits
    EXPECT_EQ(log(), (Lines{"\r\n HEAP      49   0x    2000         64      128         128           0         0  0"
                            "  0x95500000 0x95502000 0xffffffff 0xffffffff"}));
    EXPECT_FALSE(anyLockHeld());
}

TEST_F(Stack, PieceOfABrokenTotalIsPrintedUnderThePushLock)
{
    setFreeMemory({{0x95400000, 0x1000}});
    createStack("HEAP", 0, 64, YES);
    stSegTable[HEAPHANDLE].ulTotalBlkNum += 1;
    astBlkHead[HEAPHANDLE].pstBlk = node(0x10); // the first thing that printing a piece reads
    EXPECT_EQ(machine().run([] { return push(HEAPHANDLE, 0); }).kind, Outcome::Kind::Oops);
    EXPECT_TRUE(machine().lockHeld(push_lock));
}

} // namespace
} // namespace velmora::test
