// Where fixed segments and free memory may lie in the guarded build, and what stacks and the core's own entries refuse.
#include "guard_fixture.h"

namespace velmora::guard {
namespace {

const std::string kLayout = "the segment cannot be laid out";
const std::string kNotStarted = "a command that comes first";
const std::string kInUse = "another descriptor is open";
const std::string kNoArea = "the area is no stretch";

constexpr U32 kFilStart = kAreaStart + 0x112000; // "$FIL", the last row

class GuardLimits : public GuardTest
{
protected:
    // The last row becomes another one: a fixed segment "NEWR".
    static void setRow(U32 address, U32 bytes)
    {
        MM_DeleteSegment(MM_At(MM_Addr("NEWR")));
        MM_DeleteSegment(MM_At(MM_Addr("$FIL")));
        ASSERT_EQ(MM_AddSegment(MM_At(MM_Addr("NEWR")), bytes, MM_At(address)), U32(ENOERR));
        machine().takeLog();
    }
    static int createFixed(const char* name)
    {
        Shape shape{name, 0, 64};
        shape.type = FIXED;
        return create(shape);
    }
};

TEST_F(GuardLimits, AFixedSegmentLiesWhereNothingElseDoes)
{
    const U32 held = segment({"SEG1", 0x10000, 64, 8}); // from kFloatStart, its map first
    const U32 heap = segment({"HEAP", 0, 4096, 8});     // all that is left
    ASSERT_EQ(heap, U32(HEAPHANDLE));
    for (const U32 address :
         {kFloatStart, kFloatStart + 0x8000, kFloatStart + 0xFFFF, kFloatStart + 0x10000, kAreaEnd - 4096}) {
        setRow(address, 4096);
        expectRefused(kLayout, EASSERT, [] { return createFixed("NEWR"); });
    }
    setRow(kFilStart, 0x100001); // a byte of the segment's map
    expectRefused(kLayout, EASSERT, [] { return createFixed("NEWR"); });
    setRow(kFilStart, 0x100000); // just below it
    EXPECT_EQ(createFixed("NEWR"), ENOERR);
    expectWhole(held);
    expectWhole(heap);
}

TEST_F(GuardLimits, AFixedSegmentDoesNotLieInFreeMemory)
{
    for (const auto& [address, bytes] : std::initializer_list<std::pair<U32, U32>>{
             {kFloatStart, 4096}, {kFloatStart - 1, 2}, {kAreaEnd - 4096, 4096}}) {
        boot();
        setRow(address, bytes);
        expectRefused(kLayout, EASSERT, [] { return createFixed("NEWR"); });
    }
    EXPECT_EQ(startLibrary(), ENOERR); // now free memory ends there
    EXPECT_EQ(createFixed("NEWR"), ENOERR);
    EXPECT_EQ(create({"SEG1", 4096, 64}), ENOERR);
}

TEST_F(GuardLimits, AFixedSegmentOfNoBytesOrWithoutAPlaceIsRefused)
{
    setRow(kFilStart, 0);
    expectRefused(kLayout, EASSERT, [] { return createFixed("NEWR"); });
    setRow(0, 4096); // a row that has no place yet; the core's own check refuses it
    const std::string before = sim::dumpManagerState();
    EXPECT_EQ(createFixed("NEWR"), EASSERT);
    EXPECT_EQ(sim::dumpManagerState(), before);
}

TEST_F(GuardLimits, TheLibraryStartsWhereSixtyFourBytesAreFreeAndNotWithLess)
{
    setRow(kFilStart, kAreaEnd - kFilStart);
    EXPECT_EQ(startLibrary(), EASSERT);
    EXPECT_EQ(lines(kNoArea), 1U);
    setRow(kFilStart, kAreaEnd - kFilStart - 63);
    EXPECT_EQ(startLibrary(), EASSERT);
    EXPECT_EQ(lines(kNoArea), 1U);
    setRow(kFilStart, kAreaEnd - kFilStart - 64);
    EXPECT_EQ(startLibrary(), ENOERR);
    EXPECT_EQ(create({"TINY", 60, 16}), EASSERT); // less than a header's size
    EXPECT_EQ(create({"HEAP", 0, 64}), EASSERT);
}

TEST_F(GuardLimits, FreeMemoryIsNotMeasuredUnderSegmentsOrOutsideOfTheArea)
{
    const auto construct = [] { return entry([] { return MM_ConstructSegLinkedList(); }); };
    for (const U32 end : {kAreaStart - 1, kAreaEnd, kAreaEnd + 1}) {
        CM_IF_UpdateFixedSegEndAddr(end);
        expectRefused(kNotStarted, EASSERT, construct);
    }
    CM_IF_UpdateFixedSegEndAddr(kFloatStart);
    EXPECT_EQ(construct(), ENOERR);
    const U32 handle = segment({"SEG1", 4096, 64});
    expectRefused(kInUse, EASSERT, construct);
    expectWhole(handle);
}

TEST_F(GuardLimits, OnlyAStackIsPushedAndPopped)
{
    const U32 blocks = segment({"SEG1", 4096, 64});
    Shape shape{"STCK", 1024, 64};
    shape.discipline = STACK;
    const U32 stack = segment(shape);
    const U32 end = kFloatStart + 4096 + 1024;
    EXPECT_EQ(MM_Addr(MM_Push(blocks, 1, 0)), 0U);
    EXPECT_EQ(MM_Addr(MM_Push(stack, 0, 0)), 0U);
    EXPECT_EQ(MM_Addr(MM_Push(stack, 17, 0)), 0U);
    EXPECT_EQ(MM_Addr(MM_Push(stack, 16, 0)), end - 1024);
    const std::string line = "this is not what was pushed last";
    expectRefused(line, EASSERT, [&] { return MM_Pop(blocks, MM_At(end - 1024), 1); });
    expectRefused(line, EASSERT, [&] { return MM_Pop(stack, MM_At(end - 1024), 0); });
    expectRefused(line, EASSERT, [&] { return MM_Pop(stack, MM_At(end - 1024), 17); });
    expectRefused(line, EASSERT, [&] { return MM_Pop(stack, MM_At(end - 960), 15); });
    EXPECT_EQ(MM_Pop(stack, MM_At(end - 1024), 1), U32(ENOERR));
    EXPECT_EQ(MM_Pop(stack, MM_At(end - 960), 15), U32(ENOERR));
    EXPECT_EQ(MM_GetTotAvailBlk(stack), 16U);
}

// Five blocks of a byte take eight bytes. What stays after a pop must hold what is still counted.
TEST_F(GuardLimits, AStackOfBlocksBelowFourBytesKeepsRoomForWhatItCounts)
{
    Shape shape{"STCK", 64, 1};
    shape.discipline = STACK;
    const U32 stack = segment(shape);
    const U32 end = kFloatStart + 64;
    ASSERT_EQ(MM_Addr(MM_Push(stack, 5, 0)), end - 8);
    EXPECT_EQ(MM_Pop(stack, MM_At(end - 8), 1), U32(ENOERR)); // four bytes stay, for four blocks
    expectRefused("this is not what was pushed last", EASSERT, [&] { return MM_Pop(stack, MM_At(end - 4), 1); });
    EXPECT_EQ(MM_Pop(stack, MM_At(end - 4), 4), U32(ENOERR));
    EXPECT_EQ(MM_GetTotAvailBlk(stack), 64U);
    EXPECT_EQ(MM_GetLargestBlk(stack), 64U);
}

} // namespace
} // namespace velmora::guard
