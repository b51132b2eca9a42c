// Creation, start-up, and what commands and mappings may ask for in the guarded build.
#include "guard_fixture.h"

namespace velmora::guard {
namespace {

const std::string kLayout = "the segment cannot be laid out";
const std::string kNotStarted = "a command that comes first";
const std::string kInUse = "another descriptor is open";

class GuardRules : public GuardTest
{
};

// What a refused creation must leave: state, handle, name, free memory. The next good one is placed as if nothing
// had been.
void expectNothingConsumed(const Shape& shape)
{
    machine().takeLog();
    const std::string before = sim::dumpManagerState();
    const U32 fixed = hulFixedHandle, floats = hulFloatHandle;
    EXPECT_EQ(create(shape), EASSERT) << shape.blockBytes << " " << shape.bytes;
    EXPECT_EQ(sim::dumpManagerState(), before);
    EXPECT_EQ(hulFixedHandle, fixed);
    EXPECT_EQ(hulFloatHandle, floats);
}

TEST_F(GuardRules, ACreationThatCannotBeLaidOutConsumesNothing)
{
    for (const U8 type : {U8(FLOAT), U8(FLOATALIGN)})
        for (const U8 map : {0, 1, 2, 4, 8}) {
            for (const U32 blockBytes : {1U, 2U, 4U, 8U, 15U})
                expectNothingConsumed({"BAD ", 4096, blockBytes, map, LINKEDLIST, type});
            for (const U32 blockBytes : {0x2000U, 0x10000U, 0x40000000U, 0x80000000U, 0xFFFFFFFFU, 0xFFFFFFFCU})
                expectNothingConsumed({"BAD ", 4096, blockBytes, map, LINKEDLIST, type});
            for (const U32 bytes : {0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU, 0xFFFFFFF0U, 0x10000000U})
                expectNothingConsumed({"BAD ", bytes, 64, map, LINKEDLIST, type});
        }
    expectNothingConsumed({"BAD ", 64, 64, 8}); // no room for a block behind the map
    U32 handle = 0;
    EXPECT_EQ(create({"BAD ", 4096, 64}, &handle), ENOERR);
    EXPECT_EQ(handle, 5U);
    EXPECT_EQ(allocate(handle, 4096, 0), kFloatStart);
}

TEST_F(GuardRules, WithoutKernelMemoryNothingIsConsumedAndTheNextAttemptSucceeds)
{
    const long taken = machine().memoryTaken();
    machine().faults.memoryStopsAt = 0;
    expectNothingConsumed({"SEG1", 4096, 64});
    Shape heap{"HEAP", 0, 4096};
    expectNothingConsumed(heap);
    machine().faults.memoryStopsAt.reset();
    EXPECT_EQ(create({"SEG1", 4096, 64}), ENOERR);
    EXPECT_EQ(create(heap), ENOERR);
    EXPECT_EQ(machine().memoryTaken(), taken + 2);
    EXPECT_EQ(startLibrary(), ENOERR);
    EXPECT_EQ(machine().memoryTaken(), taken);
}

// Kernel memory ends at the first, second, ... segment of a whole session, every service later works.
TEST_F(GuardRules, KernelMemoryMayEndAtAnySegment)
{
    const long taken = machine().memoryTaken();
    for (U32 nth = 0; nth < 4; ++nth) {
        ASSERT_EQ(startLibrary(), ENOERR);
        machine().faults.memoryStopsAt = nth;
        unsigned made = 0;
        for (const char* const name : {"SEG1", "SEG2", "SEG3"})
            made += create({name, 65536, 64, 8}) == ENOERR;
        made += create({"HEAP", 0, 4096, 4}) == ENOERR;
        EXPECT_EQ(made, nth);
        machine().faults.memoryStopsAt.reset();
        for (U32 handle = 5; handle < 5 + std::min<U32>(nth, 3); ++handle) {
            const U32 held = allocate(handle, 1000, 1);
            EXPECT_NE(held, 0U);
            EXPECT_EQ(release(handle, held, 1000), ENOERR);
        }
        EXPECT_EQ(machine().memoryTaken(), taken + static_cast<long>(nth));
    }
}

// A stretch that is shorter than a block of the heap is left out of it.
TEST_F(GuardRules, ThePiecesOfTheHeapHoldABlockEach)
{
    segment({"SMAL", 64, 16});
    Shape aligned{"ALGN", 4096, 0x1000};
    aligned.type = FLOATALIGN;
    const U32 held = segment(aligned); // 0xFC0 bytes stay free in front
    EXPECT_EQ(allocate(held, 4096, 0), kFloatStart + 0x1000);
    std::memset(MM_At(kFloatStart + 0x1000), 0x77, 4096);
    const U32 heap = segment({"HEAP", 0, 0x10000});
    EXPECT_GT(MM_PieceAddr(PIECE_START, 0), kFloatStart + 0x2000);
    EXPECT_FALSE(MM_IsPiece(1));
    while (const U32 block = allocate(heap, 0x10000, 0))
        std::memset(MM_At(block), 0x55, 0x10000);
    for (U32 i = 0; i < 4096; ++i)
        ASSERT_EQ(*MM_At(kFloatStart + 0x1000 + i), 0x77);
}

TEST_F(GuardRules, CommandsBeforeTheOnesThatComeFirstAreRefused)
{
    sim::bootController();
    machine().takeLog();
    expectRefused(kNotStarted, EASSERT, [] { return startLibrary(); });
    expectRefused(kNotStarted, EASSERT, [] { return create({"SEG1", 4096, 64}); });
    TClearSegmentInfo clear{};
    std::memcpy(clear.aubCFGID, "$ALL", 4);
    EXPECT_EQ(command(MM_CMD_CLEAR_SEGMENT, clear), ENOERR);
    TDeleteSegmentInfo row{};
    std::memcpy(row.aubCFGID, "$UEV", 4);
    EXPECT_EQ(command(MM_CMD_DELETE_SEGMENT, row), ENOERR);
    EXPECT_EQ(lines(kNotStarted), 2U);
    EXPECT_EQ(enter(), ENOERR);
    expectRefused(kNotStarted, EASSERT, [] { return create({"SEG1", 4096, 64}); });
    expectRefused("there is no such option", EASSERT, [] { return startLibrary(4); });
    expectRefused("there is no such option", EASSERT, [] { return enter(1); });
    EXPECT_EQ(startLibrary(), ENOERR);
    EXPECT_EQ(create({"SEG1", 4096, 64}), ENOERR);
}

TEST_F(GuardRules, NobodyStartsTheLibraryWhileBlocksAreAllocated)
{
    const U32 handle = segment({"SEG1", 4096, 64});
    const U32 held = allocate(handle, 64, 0);
    expectRefused(kInUse, EASSERT, [] { return startLibrary(); });
    expectRefused(kInUse, EASSERT, [] { return enter(); });
    EXPECT_EQ(release(handle, held, 64), ENOERR);
    EXPECT_EQ(enter(), ENOERR);
    EXPECT_EQ(startLibrary(), ENOERR);
}

TEST_F(GuardRules, NobodyStartsTheLibraryWhileAnotherDescriptorIsOpen)
{
    const auto first = sim::openDevice();
    EXPECT_EQ(startLibrary(), ENOERR);
    {
        const auto second = sim::openDevice();
        expectRefused(kInUse, EASSERT, [] { return startLibrary(); });
        expectRefused(kInUse, EASSERT, [] { return enter(); });
    }
    EXPECT_EQ(startLibrary(), ENOERR);
}

TEST_F(GuardRules, FillsLieInAllocatedBlocksAndFixedSegments)
{
    const std::string line = "the fill leaves";
    const U32 handle = segment({"SEG1", 4096, 64});
    const U32 held = allocate(handle, 128, 0);
    EXPECT_EQ(fill(held, 0x11, 128), ENOERR);
    EXPECT_EQ(fill(held + 100, 0x11, 28), ENOERR);
    EXPECT_EQ(fill(0, 0x11, 0), ENOERR);
    EXPECT_EQ(fill(kAreaStart + 0x2000, 0, 0x10000), ENOERR); // "$JCB"
    for (const auto& [address, bytes] : std::initializer_list<std::pair<U32, U32>>{{held - 1, 1},
                                                                                   {held - 64, 128},
                                                                                   {held, 129},
                                                                                   {held, 0xFFFFFFFF},
                                                                                   {held + 127, 0xFFFFFF00},
                                                                                   {0, 1},
                                                                                   {0xFFFFFFFF, 1},
                                                                                   {0xFFFFFFFF, 2},
                                                                                   {kAreaEnd, 1},
                                                                                   {kAreaEnd - 4096, 8192},
                                                                                   {0x94000000, 4096},
                                                                                   {kAreaStart - 1, 2}})
        expectRefused(line, EASSERT, [&, address = address, bytes = bytes] { return fill(address, 0x22, bytes); });
    Shape shape{"STCK", 1024, 4};
    shape.discipline = STACK;
    const U32 stack = segment(shape);
    const U32 pushed = allocate(stack, 64, 0);
    EXPECT_EQ(fill(pushed, 0x33, 64), ENOERR);
    expectRefused(line, EASSERT, [&] { return fill(pushed - 4, 0x33, 8); });
    expectWhole(handle);
}

// Clearing a fixed segment clears its list and map as well: both are made again.
TEST_F(GuardRules, AClearedFixedSegmentGoesOnServing)
{
    Shape shape{"$JCB", 0, 64, 8};
    shape.type = FIXED;
    const U32 fixed = segment(shape);
    const U32 held = allocate(fixed, 640, 3);
    ASSERT_EQ(release(fixed, allocate(fixed, 64, 1), 64), ENOERR);
    TClearSegmentInfo clear{};
    std::memcpy(clear.aubCFGID, "$JCB", 4);
    EXPECT_EQ(command(MM_CMD_CLEAR_SEGMENT, clear), ENOERR);
    expectWhole(fixed);
    const U32 next = allocate(fixed, 640, 4);
    EXPECT_EQ(next, held - 640);
    EXPECT_EQ(release(fixed, held, 640), ENOERR);
    EXPECT_EQ(release(fixed, next, 640), ENOERR);
    expectWhole(fixed);
}

TEST_F(GuardRules, MappingsLieInTheManagedArea)
{
    const auto map = [](U32 pageOffset, U32 bytes) {
        sim::MapTarget target;
        TMMMapRequest request{pageOffset, 0x20000000, 0x20000000 + bytes, 0, &target};
        return entry([&] { return Velmora_MM_mmap(&request); });
    };
    EXPECT_EQ(map(kAreaStart >> 12, kAreaEnd - kAreaStart), 0);
    EXPECT_EQ(map((kAreaEnd >> 12) - 1, 4096), 0);
    for (const auto& [page, bytes] : std::initializer_list<std::pair<U32, U32>>{{(kAreaStart >> 12) - 1, 4096},
                                                                                {(kAreaStart >> 12) - 1, 8192},
                                                                                {kAreaEnd >> 12, 4096},
                                                                                {(kAreaEnd >> 12) - 1, 8192},
                                                                                {0x94001, 4096},
                                                                                {(kAreaStart >> 12) + 0x100000, 4096},
                                                                                {kAreaStart >> 12, 0xC0000000},
                                                                                {kAreaStart >> 12, 0}})
        expectRefused("the mapping leaves", -22, [&, page = page, bytes = bytes] { return map(page, bytes); });
    EXPECT_EQ(map(0, 4096), -5); // as in the default build: no page of RAM
}

TEST_F(GuardRules, HandlesAndSelectorsBeyondTheirTablesAreRefused)
{
    const std::string line = "there is no such handle";
    for (const U32 handle : {50U, 255U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU, 0x10032U}) {
        MM_GuardForgetReports();
        TCheckSegmentInfo check{handle, kFloatStart, 7, {}};
        expectRefused(line, EASSERT, [&] { return command(MM_CMD_CHECK_SEGMENT, check); });
        expectRefused(line, 0, [&] { return MM_CheckSegInitCompleted(handle); });
        expectRefused(line, 0, [&] { return MM_Addr(MM_GetStartAddrOfSegment(handle)); });
        expectRefused(line, -1, [&] { return MM_GetEndAddrOfSegment(handle); });
        expectRefused(line, 0, [&] { return MM_Addr(MM_GetRCBEnd(handle)); });
        expectRefused(line, 0, [&] { return MM_CheckSegment(handle, kFloatStart); });
        expectRefused(line, EASSERT, [&] { return MM_ReallocBlock(handle, MM_At(kFloatStart), 1); });
        EXPECT_EQ(allocate(handle, 64, 0), kRefused);
        EXPECT_EQ(release(handle, kFloatStart, 64), EASSERT);
        EXPECT_EQ(collect(handle, 1), EASSERT);
    }
    for (const U32 selector : {50U, 99U, 101U, 255U}) {
        TDisplayMSTInfo display{selector, 7, {}};
        expectRefused(line, EASSERT, [&] { return command(MM_CMD_DISPLAY_MST, display); });
    }
}

TEST_F(GuardRules, AnAreaThatIsNoRamIsNotLoaded)
{
    for (const char* const text : {"95000000-95000000", "9e000000-95000000", "95000000-a8000000", "ffe00000-00000000",
                                   "95000000-95200000", "95000000-951fffff"}) {
        sim::powerOn();
        std::snprintf(bigphysarea_info, sizeof bigphysarea_info, "%s", text);
        EXPECT_EQ(entry([] { return printer_mm_init(); }), -1) << text;
        EXPECT_TRUE(machine().devices().empty());
    }
}

TEST_F(GuardRules, AnAreaTooSmallForTheFixedSegmentsIsRefusedAtTheTable)
{
    sim::bootController(0x95000000, 0x95300000);
    machine().takeLog();
    EXPECT_EQ(enter(), EASSERT);
    EXPECT_EQ(lines("the area is no stretch"), 1U);
    EXPECT_EQ(startLibrary(), EASSERT);
}

TEST_F(GuardRules, RowsLieInTheAreaAndApart)
{
    const auto add = [](U32 address, U32 bytes) {
        return MM_AddSegment(MM_At(MM_Addr("$NEW")), bytes, MM_At(address));
    };
    MM_DeleteSegment(MM_At(MM_Addr("$FIL")));
    machine().takeLog();
    for (const auto& [address, bytes] : std::initializer_list<std::pair<U32, U32>>{{0x94000000, 4096},
                                                                                   {kAreaEnd - 4096, 8192},
                                                                                   {kAreaStart, 4096},
                                                                                   {0xFFFFF000, 8192},
                                                                                   {kAreaStart + 0x2000, 0xFFFFFFFF}})
        expectRefused("the fixed segment leaves", EASSERT,
                      [&, address = address, bytes = bytes] { return add(address, bytes); });
    EXPECT_EQ(add(kAreaEnd - 4096, 4096), U32(ENOERR));
    EXPECT_EQ(startLibrary(), ENOERR);
    EXPECT_EQ(create({"LAST", kAreaEnd - kFloatStart, 64}), EASSERT);
}

TEST_F(GuardRules, TheEntryThatRewritesTheBoundsDoesNothing)
{
    expectRefused("this entry is not to be called", TRUE, [] { return MM_IsBrokenDramBackUp(); });
}

TEST_F(GuardRules, UnloadingGivesKernelMemoryBack)
{
    segment({"SEG1", 4096, 64});
    EXPECT_GT(machine().memoryTaken(), 0);
    entry([] {
        printer_mm_exit();
        return 0;
    });
    EXPECT_EQ(machine().memoryTaken(), 0);
    EXPECT_EQ(allocate(5, 64, 0), 0U);
    EXPECT_EQ(release(5, kFloatStart, 64), EASSERT);
}

} // namespace
} // namespace velmora::guard
