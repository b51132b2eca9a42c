// Placement: where a new segment lies, and what is left of the free-memory list.
#include "support/manager_fixture.h"

namespace velmora::test {
namespace {

constexpr U32 kA = 0x95400000, kB = 0x95500000, kC = 0x95600000, kD = 0x95700000, kE = 0x95800000;
constexpr U32 kHandle = 7;

class Placement : public ManagerTest
{
protected:
    Placement() { start(); }

    static TMMSegInfo working(U8 type, U8 discipline, U32 bytes, U32 blockBytes, U32 handle = kHandle)
    {
        TMMSegInfo info{};
        info.stInfoFromApp = request("TEST", bytes, blockBytes);
        info.stInfoFromApp.ubType = type;
        info.stInfoFromApp.ubSegDSType = discipline;
        info.stInfoFromApp.hulHandle = handle;
        return info;
    }

    static std::string failed(const char* text) { return check(text, "mm/MM_MST", "MM_InstallSegment"); }
    static std::string failedCut(const char* text) { return check(text, "mm/MM_MST", "MM_RearrangeSegList"); }

    // The record is refused with these lines; no entry of the table is written.
    static void expectRefused(TMMSegInfo info, const Lines& lines, U32 code = EASSERT)
    {
        EXPECT_EQ(MM_InstallSegment(&info), code);
        EXPECT_EQ(log(), lines);
        EXPECT_TRUE(isFilled(MM_Addr(stSegTable), 0, sizeof stSegTable));
    }

    // The record is placed without a word; its entry lies at [start, end).
    static void expectPlaced(TMMSegInfo info, U32 start, U32 end)
    {
        const U32 handle = info.stInfoFromApp.hulHandle;
        EXPECT_EQ(MM_InstallSegment(&info), U32(ENOERR));
        expectSilence();
        EXPECT_EQ(MM_Addr(stSegTable[handle].pubStartAddr), start);
        EXPECT_EQ(MM_Addr(stSegTable[handle].pubEndAddr), end);
    }

    static void expectFree(const std::vector<FreeNode>& expected) { EXPECT_EQ(freeMemory(), expected); }
};

constexpr const char* kNoHead = R"(pstSegBlkHead != NULL && "There is no available Segment list")";
constexpr const char* kNoTail = R"(pstSegBlkTail != NULL && "There is no available Segment list")";
constexpr const char* kNoBlock = R"(pstBestFitBlk != NULL && "There is no available Segment Block")";

// A type that there is not ------------------------------------------------------------------------------

TEST_F(Placement, AHeapOfAnUnknownTypeIsNotPlacedAndInitialisedAsItStands)
{
    setFreeMemory({});
    TMMSegInfo info = working(3, LINKEDLIST, 0, 64, HEAPHANDLE);
    EXPECT_EQ(MM_InstallSegment(&info), U32(ENOERR));
    EXPECT_EQ(log(), Lines{check(kNoHead, "mm/MM_InitSegment", "MM_SegInitial")}); // no line of placement
    EXPECT_EQ(stSegTable[HEAPHANDLE].pfnAlloc, nullptr);
}

// Float -----------------------------------------------------------------------------------------------

class FloatPlacement : public Placement
{
protected:
    static TMMSegInfo stack(U32 bytes) { return working(FLOAT, STACK, bytes, 4); }
    static TMMSegInfo blocks(U32 bytes, U32 blockBytes) { return working(FLOAT, LINKEDLIST, bytes, blockBytes); }
};

TEST_F(FloatPlacement, NeedsAFreeMemoryList)
{
    setFreeMemory({});
    expectRefused(stack(64), {failed(kNoHead)});
    setFreeMemory({{kA, 4096}});
    pstSegBlkTail = nullptr;
    expectRefused(stack(64), {failed(kNoTail)});
}

TEST_F(FloatPlacement, AnExactFitIsRefused)
{
    setFreeMemory({{kA, 1000}});
    expectRefused(stack(1000), {failed(kNoBlock)});
    expectFree({{kA, 1000}});
}

TEST_F(FloatPlacement, ASmallRemainderIsLost)
{
    setFreeMemory({{kA, 1000}});
    expectPlaced(stack(900), kA, kA + 900);
    expectFree({});
}

TEST_F(FloatPlacement, ALargerRemainderStaysFree)
{
    setFreeMemory({{kA, 1000}});
    expectPlaced(stack(800), kA, kA + 800);
    expectFree({{kA + 800, 200}});
}

TEST_F(FloatPlacement, ARemainderIsKeptFrom131BytesUp)
{
    setFreeMemory({{kA, 1130}});
    expectPlaced(stack(1000), kA, kA + 1000);
    expectFree({});
    setFreeMemory({{kA, 1131}});
    expectPlaced(stack(1000), kA, kA + 1000);
    expectFree({{kA + 1000, 131}});
}

TEST_F(FloatPlacement, TheSmallestNodeThatIsLargeEnoughIsTaken)
{
    setFreeMemory({{kA, 8192}, {kB, 2000}, {kC, 1000}, {kD, 1004}, {kE, 3000}});
    expectPlaced(stack(1000), kD, kD + 1000);
    expectFree({{kA, 8192}, {kB, 2000}, {kC, 1000}, {kE, 3000}});
}

TEST_F(FloatPlacement, AmongEqualNodesTheOneNearestTheHeadIsTaken)
{
    setFreeMemory({{kA, 4096}, {kB, 4096}});
    expectPlaced(stack(1000), kA, kA + 1000);
    expectFree({{kA + 1000, 3096}, {kB, 4096}});
}

TEST_F(FloatPlacement, ANodeWhoseSurplusIsNegativeAsASignedNumberIsNoCandidate)
{
    setFreeMemory({{kA, 0x80000000 + 1000}});
    expectRefused(stack(1000), {failed(kNoBlock)});
    expectFree({{kA, 0x80000000 + 1000}});
    setFreeMemory({{kA, 0x80000000 + 999}});
    expectPlaced(stack(1000), kA, kA + 1000);
}

TEST_F(FloatPlacement, TheSizeIsRoundedUpToAMultipleOf4)
{
    for (const U32 bytes : {1001u, 1002u, 1003u, 1004u}) {
        setFreeMemory({{kA, 4096}});
        TMMSegInfo info = stack(bytes);
        EXPECT_EQ(MM_InstallSegment(&info), U32(ENOERR));
        EXPECT_EQ(stSegTable[kHandle].stInfoFromApp.ulSegSize, 1004u);
        EXPECT_EQ(stSegTable[kHandle].stInfoFromApp.ulRetSegSize, 1004u);
        expectFree({{kA + 1004, 3092}});
    }
}

TEST_F(FloatPlacement, ABlockSegmentNeeds64Bytes)
{
    expectRefused(blocks(60, 4), {failed("ulNewSegSize >= HEAP_BLOCK_SIZE")});
    expectRefused(blocks(60, 64), {failed("ulNewSegSize >= HEAP_BLOCK_SIZE")});
    expectPlaced(blocks(61, 4), kFloatStart, kFloatStart + 64);
}

TEST_F(FloatPlacement, ABlockSegmentNeedsTwoBlocks)
{
    const Lines tooSmall = {failed("ulNewSegSize >= 2* pstSegInfo->stInfoFromApp.ulBlkSize")};
    expectRefused(blocks(100, 64), tooSmall);
    expectRefused(blocks(124, 64), tooSmall);
    expectFree({{kFloatStart, kAreaEnd - kFloatStart}});
    expectPlaced(blocks(125, 64), kFloatStart, kFloatStart + 128);
}

TEST_F(FloatPlacement, TheTestsOfTheSizeComeBeforeTheSearch)
{
    setFreeMemory({{kA, 32}});
    expectRefused(blocks(60, 4), {failed("ulNewSegSize >= HEAP_BLOCK_SIZE")});
    setFreeMemory({});
    expectRefused(blocks(60, 4), {failed(kNoHead)});
}

TEST_F(FloatPlacement, AStackHasNoMinimum)
{
    expectPlaced(stack(1), kFloatStart, kFloatStart + 4);
    expectFree({{kFloatStart + 4, kAreaEnd - kFloatStart - 4}});
}

TEST_F(FloatPlacement, ASizeThatWrapsWhenItIsRoundedIs0)
{
    for (const U32 bytes : {0xFFFFFFFDu, 0xFFFFFFFEu, 0xFFFFFFFFu}) {
        setFreeMemory({{kA, 4096}});
        expectRefused(blocks(bytes, 4), {failed("ulNewSegSize >= HEAP_BLOCK_SIZE")});
        expectFree({{kA, 4096}});
    }
    expectPlaced(stack(0xFFFFFFFD), kA, kA);
    EXPECT_EQ(stSegTable[kHandle].stInfoFromApp.ulSegSize, 0u);
    expectFree({{kA, 4096}});
}

// Two blocks of 2 GiB are 0 bytes. The unit moves the start to (0x95400000 + 0x80000000) & 0x80000000 = 0, where there is
// no memory for the first free run.
TEST_F(FloatPlacement, TwoBlocksMayWrap)
{
    setFreeMemory({{kA, 4096}});
    TMMSegInfo info = blocks(1024, 0x80000000);
    const Outcome end = machine().run([&] { return MM_InstallSegment(&info); });
    EXPECT_EQ(end.kind, Outcome::Kind::Oops);
    EXPECT_EQ(end.address, 0u);
    expectSilence();
    expectFree({{kA + 1024, 3072}});
}

TEST_F(FloatPlacement, APlaceBelowTheAreaIsReportedAfterTheCut)
{
    setFreeMemory({{kA, 4096}});
    memstart = kA + 1;
    expectRefused(
        stack(1000),
        {failed(
            R"((*pubSegMemStartAddr <= (unsigned int)(pstSegInfo->pubStartAddr)) && "Overflow occurs! Interrupt Total Mem range")")});
    expectFree({{kA + 1000, 3096}});
}

TEST_F(FloatPlacement, APlacePastTheAreaIsReportedAfterTheCut)
{
    setFreeMemory({{kA, 4096}});
    memend = kA + 999;
    expectRefused(
        stack(1000),
        {failed(
            R"((*pubSegMemEndAddr >= (unsigned int)(pstSegInfo->pubEndAddr)) && "Overflow occurs! Interrupt Total Mem range")")});
    expectFree({{kA + 1000, 3096}});
}

TEST_F(FloatPlacement, APlaceMayFillTheAreaToItsBounds)
{
    setFreeMemory({{kA, 4096}});
    memstart = kA;
    memend = kA + 1000;
    expectPlaced(stack(1000), kA, kA + 1000);
}

TEST_F(FloatPlacement, AFailedInitialisationIsReportedAndIgnored)
{
    // One block of 64 bytes moves up by 4 and does not fit any more; 100 bytes are taken off for it.
    setFreeMemory({{kA, 4096}});
    TMMSegInfo info = working(FLOAT, STACK, 64, 100);
    EXPECT_EQ(MM_InstallSegment(&info), U32(ENOERR));
    EXPECT_EQ(log(),
              Lines{check("(stSegTable[hulHandle].ulLargestBlkSize >= 0) && (stSegTable[hulHandle].ulLargestBlkSize <= "
                          "stSegTable[hulHandle].ulTotalFreeBlkNum)",
                          "mm/MM_InitSegment", "MM_SegInitial")});
    EXPECT_EQ(stSegTable[kHandle].pfnAlloc, &MM_Push);
}

// Cutting ---------------------------------------------------------------------------------------------

class Cut : public Placement
{
protected:
    static const std::vector<FreeNode> three;

    // Cuts one of three nodes of 4096 bytes at its front.
    static std::vector<FreeNode> front(U8 type, U32 index, U32 bytes)
    {
        setFreeMemory(three);
        TMMBlkStr* const cut = node(three[index].address);
        EXPECT_EQ(MM_RearrangeSegList(type, cut, bytes, type == FLOATALIGN ? at(MM_Addr(cut)) : nullptr), U32(ENOERR));
        expectSilence();
        return freeMemory();
    }
};

const std::vector<Placement::FreeNode> Cut::three = {{kA, 4096}, {kB, 4096}, {kC, 4096}};

TEST_F(Cut, ARemainderTakesItsNodesPlaceInTheList)
{
    for (const U8 type : {FLOAT, FLOATALIGN})
        for (U32 i = 0; i < 3; ++i) {
            std::vector<FreeNode> expected = three;
            expected[i] = {expected[i].address + 1024, 3072};
            EXPECT_EQ(front(type, i, 1024), expected) << i;
        }
}

TEST_F(Cut, ANodeWithoutRemainderLeavesTheList)
{
    for (const U8 type : {FLOAT, FLOATALIGN})
        for (const U32 bytes : {4096u - 130, 4096u})
            for (U32 i = 0; i < 3; ++i) {
                std::vector<FreeNode> expected = three;
                expected.erase(expected.begin() + int(i));
                EXPECT_EQ(front(type, i, bytes), expected) << i;
            }
}

TEST_F(Cut, TheOnlyNodeLeavesAnEmptyList)
{
    setFreeMemory({{kA, 4096}});
    EXPECT_EQ(MM_RearrangeSegList(FLOAT, node(kA), 4000, nullptr), U32(ENOERR));
    EXPECT_EQ(pstSegBlkHead, nullptr);
    EXPECT_EQ(pstSegBlkTail, nullptr);
}

TEST_F(Cut, TheOnlyNodesRemainderIsTheWholeList)
{
    setFreeMemory({{kA, 4096}});
    EXPECT_EQ(MM_RearrangeSegList(FLOAT, node(kA), 4, nullptr), U32(ENOERR));
    expectFree({{kA + 4, 4092}});
}

TEST_F(Cut, MoreThanTheNodeHasIsRefused)
{
    for (const U8 type : {FLOAT, FLOATALIGN}) {
        setFreeMemory(three);
        EXPECT_EQ(MM_RearrangeSegList(type, node(kB), 4097, at(kB)), U32(EASSERT));
        EXPECT_EQ(log(), Lines{failedCut("0")});
        expectFree(three);
    }
}

TEST_F(Cut, TheAddressCountsForAnAlignedCutOnly)
{
    setFreeMemory({{kA, 4096}});
    EXPECT_EQ(MM_RearrangeSegList(FLOAT, node(kA), 1024, at(kA + 512)), U32(ENOERR));
    expectFree({{kA + 1024, 3072}});
}

TEST_F(Cut, AnotherTypeDoesNothing)
{
    for (const U8 type : {0, 3, 255}) {
        setFreeMemory(three);
        EXPECT_EQ(MM_RearrangeSegList(type, node(kB), 1024, at(kB + 512)), U32(ENOERR));
        expectFree(three);
    }
    expectSilence();
}

TEST_F(Cut, AnInnerCutLeavesTheGapAndLinksTheRestBehindIt)
{
    for (U32 i = 0; i < 3; ++i) {
        setFreeMemory(three);
        const U32 address = three[i].address;
        EXPECT_EQ(MM_RearrangeSegList(FLOATALIGN, node(address), 1024, at(address + 16)), U32(ENOERR));
        std::vector<FreeNode> expected = three;
        expected[i].bytes = 16;
        expected.insert(expected.begin() + int(i) + 1, {address + 16 + 1024, 4096 - 16 - 1024});
        expectFree(expected);
    }
    expectSilence();
}

TEST_F(Cut, AnInnerCutKeepsARestFrom131BytesUp)
{
    for (const U32 rest : {0u, 1u, 130u}) {
        setFreeMemory(three);
        EXPECT_EQ(MM_RearrangeSegList(FLOATALIGN, node(kC), 2048 - rest, at(kC + 2048)), U32(ENOERR));
        expectFree({{kA, 4096}, {kB, 4096}, {kC, 2048}});
    }
    setFreeMemory(three);
    EXPECT_EQ(MM_RearrangeSegList(FLOATALIGN, node(kC), 2048 - 131, at(kC + 2048)), U32(ENOERR));
    expectFree({{kA, 4096}, {kB, 4096}, {kC, 2048}, {kC + 4096 - 131, 131}});
}

TEST_F(Cut, AnInnerCutPastTheNodesEndIsRefusedWithTheGapWritten)
{
    setFreeMemory(three);
    EXPECT_EQ(MM_RearrangeSegList(FLOATALIGN, node(kB), 2049, at(kB + 2048)), U32(EASSERT));
    EXPECT_EQ(log(), Lines{failedCut("pubNewEndAddr <= pubSegEndAddr")});
    expectFree({{kA, 4096}, {kB, 2048}, {kC, 4096}});
}

TEST_F(Cut, NodesAreTwelveBytesLong)
{
    setFreeMemory({{kA, 4096}});
    fill(kA + 1024, 0xA5, 64);
    fill(kA + 2064, 0xA5, 64);
    MM_RearrangeSegList(FLOAT, node(kA), 1024, nullptr);
    MM_RearrangeSegList(FLOATALIGN, node(kA + 1024), 1024, at(kA + 1040));
    expectFree({{kA + 1024, 16}, {kA + 2064, 2032}});
    EXPECT_TRUE(isFilled(kA + 1024 + 12, 0xA5, 52));
    EXPECT_TRUE(isFilled(kA + 2064 + 12, 0xA5, 52));
}

// Aligned float ---------------------------------------------------------------------------------------

class AlignedPlacement : public Placement
{
protected:
    static TMMSegInfo blocks(U32 bytes, U32 blockBytes) { return working(FLOATALIGN, LINKEDLIST, bytes, blockBytes); }
};

TEST_F(AlignedPlacement, NeedsAFreeMemoryList)
{
    setFreeMemory({});
    expectRefused(blocks(64, 64), {failed(kNoHead)});
    setFreeMemory({{kA, 4096}});
    pstSegBlkTail = nullptr;
    expectRefused(blocks(64, 64), {failed(kNoTail)});
}

TEST_F(AlignedPlacement, ASegmentBeginsAtTheNextMultipleOfItsBlockSize)
{
    setFreeMemory({{kA + 0x10, 0x1000}});
    expectPlaced(blocks(0x200, 0x100), kA + 0x100, kA + 0x300);
    expectFree({{kA + 0x10, 0xF0}, {kA + 0x300, 0xD10}});
}

TEST_F(AlignedPlacement, ANodeThatBeginsAtAMultipleIsCutAtItsFront)
{
    setFreeMemory({{kA + 0x100, 0x1000}});
    expectPlaced(blocks(0x200, 0x100), kA + 0x100, kA + 0x300);
    expectFree({{kA + 0x300, 0xE00}});
}

TEST_F(AlignedPlacement, TheNodeMustReachPastTheSegmentsEnd)
{
    setFreeMemory({{kA + 0x10, 0x2F0}}); // ends where the segment would
    expectRefused(blocks(0x200, 0x100), {failed(kNoBlock)});
    expectFree({{kA + 0x10, 0x2F0}});

    setFreeMemory({{kA + 0x10, 0x2F1}});
    expectPlaced(blocks(0x200, 0x100), kA + 0x100, kA + 0x300);
    expectFree({{kA + 0x10, 0xF0}});
}

TEST_F(AlignedPlacement, AnExactFitIsRefused)
{
    setFreeMemory({{kA, 0x200}});
    expectRefused(blocks(0x200, 0x100), {failed(kNoBlock)});
    setFreeMemory({{kA, 0x80000200}}); // a negative surplus
    expectRefused(blocks(0x200, 0x100), {failed(kNoBlock)});
}

TEST_F(AlignedPlacement, TheSmallestNodeThatFitsIsTakenTheFirstOfEquals)
{
    // The smallest is too small once aligned.
    setFreeMemory({{kA, 0x4000}, {kB + 0x10, 0x280}, {kC + 0x10, 0x300}, {kD + 0x10, 0x300}});
    expectPlaced(blocks(0x200, 0x100), kC + 0x100, kC + 0x300);
    expectFree({{kA, 0x4000}, {kB + 0x10, 0x280}, {kC + 0x10, 0xF0}, {kD + 0x10, 0x300}});
}

TEST_F(AlignedPlacement, TheSizeIsNotRounded)
{
    setFreeMemory({{kA, 0x1000}});
    TMMSegInfo info = blocks(1001, 4);
    EXPECT_EQ(MM_InstallSegment(&info), U32(ENOERR));
    EXPECT_EQ(stSegTable[kHandle].stInfoFromApp.ulSegSize, 1001u);
    EXPECT_EQ(stSegTable[kHandle].ulTotalBlkNum, 250u);
    expectFree({{kA + 1001, 0x1000 - 1001}});
    expectSilence();
}

TEST_F(AlignedPlacement, ThereIsNoMinimumSize)
{
    expectPlaced(blocks(16, 16), kFloatStart, kFloatStart + 16); // one block, below 64 bytes
    expectFree({{kFloatStart + 16, kAreaEnd - kFloatStart - 16}});
}

TEST_F(AlignedPlacement, TheBoundsOfTheAreaAreNotTested)
{
    setFreeMemory({{kA, 0x1000}});
    memstart = kA + 0x800;
    memend = kA + 0x810;
    expectPlaced(blocks(0x200, 0x100), kA, kA + 0x200);
}

// Multiples of 100 are looked for with the masks 99 and -100: 0x95400000 passes as one, 0x95400021 leads to
// 0x95400085 & 0xFFFFFF9C = 0x95400084. Neither is a true multiple, which initialisation wants: it moves the first segment
// to 0x95400064 & 0xFFFFFF9C = 0x95400004 and the second to 0x954000E8 & 0xFFFFFF9C = 0x95400088.
TEST_F(AlignedPlacement, ABlockSizeThatIsNoPowerOfTwoIsAMaskAllTheSame)
{
    setFreeMemory({{kA, 0x1000}});
    TMMSegInfo info = blocks(0x200, 100);
    EXPECT_EQ(MM_InstallSegment(&info), U32(ENOERR));
    expectFree({{kA + 0x200, 0xE00}});
    EXPECT_EQ(stSegTable[kHandle].pubStartAddr, at(kA + 4));

    setFreeMemory({{kA + 0x21, 0x1000}});
    info = blocks(0x200, 100);
    EXPECT_EQ(MM_InstallSegment(&info), U32(ENOERR));
    expectFree({{kA + 0x21, 0x63}, {kA + 0x284, 0xD9D}});
    EXPECT_EQ(stSegTable[kHandle].pubStartAddr, at(kA + 0x88));
    expectSilence();
}

// Fixed -----------------------------------------------------------------------------------------------

class FixedPlacement : public Placement
{
protected:
    static TMMSegInfo fixed(const char* name)
    {
        TMMSegInfo info = working(FIXED, LINKEDLIST, 12, 64, 2);
        std::memcpy(info.stInfoFromApp.aubSegID, name, 4);
        return info;
    }
};

TEST_F(FixedPlacement, TheTableSaysWhereAndHowLarge)
{
    TMMSegInfo info = fixed("$JCB");
    EXPECT_EQ(MM_InstallSegment(&info), U32(ENOERR));
    EXPECT_EQ(stSegTable[2].pubStartAddr, at(0x95102000));
    EXPECT_EQ(stSegTable[2].pubEndAddr, at(0x95112000));
    EXPECT_EQ(stSegTable[2].stInfoFromApp.ulSegSize, 65536u);
    EXPECT_EQ(stSegTable[2].stInfoFromApp.ulRetSegSize, 65536u);
    expectFree({{kFloatStart, kAreaEnd - kFloatStart}});
    expectSilence();
}

TEST_F(FixedPlacement, NeedsNoFreeMemory)
{
    setFreeMemory({});
    expectPlaced(fixed("$RJL"), 0x95101000, 0x95102000);
}

TEST_F(FixedPlacement, AMissingNameIsReportedByTheLookupAlone)
{
    expectRefused(fixed("$NIL"), {check(R"(0 && "Can't find such ID in MCT")", "mm/MM_MCT", "MM_ReadSegOnMCT")}, EERR);
}

TEST_F(FixedPlacement, ASegmentMayFillTheAreaToItsBounds)
{
    replaceFil(kAreaStart, kAreaEnd - kAreaStart);
    expectPlaced(fixed("$NEW"), kAreaStart, kAreaEnd);
}

TEST_F(FixedPlacement, APlaceBelowTheAreaIsRefused)
{
    replaceFil(kAreaStart - 0x40, 0x10000000); // also past its end
    expectRefused(
        fixed("$NEW"),
        {"MM_InstallSegment: *pubSegMemStartAddr 0x95100000 <= (int)(pstSegInfo->pubStartAddr) 0x950fffc0\n",
         failed(
             R"((*pubSegMemStartAddr <= (int)(pstSegInfo->pubStartAddr)) && "Overflow occurs! Interrupt Total Mem range")")});
}

TEST_F(FixedPlacement, APlacePastTheAreaIsRefusedWithTheLineOfTheStart)
{
    replaceFil(kAreaEnd - 0x1000, 0x1001);
    expectRefused(
        fixed("$NEW"),
        {"MM_InstallSegment: *pubSegMemStartAddr 0x95100000 <= (int)(pstSegInfo->pubStartAddr) 0x9deff000\n",
         failed(
             R"((*pubSegMemEndAddr >= (int)(pstSegInfo->pubEndAddr)) && "Overflow occurs! Interrupt Total Mem range")")});
}

// Heap ------------------------------------------------------------------------------------------------

class HeapPlacement : public Placement
{
protected:
    static TMMSegInfo heap(U8 type = FLOAT) { return working(type, LINKEDLIST, 0, 64, HEAPHANDLE); }

    static std::vector<FreeNode> pieces()
    {
        std::vector<FreeNode> found;
        for (U32 i = 0; i < 5 && stSegStartAddr.aulHeapAddr[i] != 0xFFFFFFFF; ++i)
            found.push_back(
                {stSegStartAddr.aulHeapAddr[i], stSegEndAddr.aulHeapAddr[i] - stSegStartAddr.aulHeapAddr[i]});
        return found;
    }

    static void expectPieces(const std::vector<FreeNode>& expected)
    {
        EXPECT_EQ(pieces(), expected);
        for (size_t i = expected.size(); i < 5; ++i) {
            EXPECT_EQ(stSegStartAddr.aulHeapAddr[i], 0xFFFFFFFFu);
            EXPECT_EQ(stSegEndAddr.aulHeapAddr[i], 0xFFFFFFFFu);
        }
    }
};

TEST_F(HeapPlacement, NeedsAFreeMemoryList)
{
    setFreeMemory({});
    expectRefused(heap(), {failed(kNoHead)});
    setFreeMemory({{kA, 4096}});
    pstSegBlkTail = nullptr;
    expectRefused(heap(), {failed(kNoTail)});
}

TEST_F(HeapPlacement, EveryFreeStretchBecomesAPiece)
{
    std::memset(&stSegStartAddr, 0, sizeof stSegStartAddr); // left by a heap before a restart
    std::memset(&stSegEndAddr, 0, sizeof stSegEndAddr);
    std::memset(&stSegMapStartAddr, 0, sizeof stSegMapStartAddr);
    std::memset(&stSegMapEndAddr, 0, sizeof stSegMapEndAddr);
    setFreeMemory({{kA, 4096}, {kB, 8192}, {kC, 192}});

    TMMSegInfo info = heap();
    EXPECT_EQ(MM_InstallSegment(&info), U32(ENOERR));
    expectPieces({{kA, 4096}, {kB, 8192}, {kC, 192}});
    EXPECT_TRUE(isFilled(MM_Addr(&stSegMapStartAddr), 0xFF, 20));
    EXPECT_TRUE(isFilled(MM_Addr(&stSegMapEndAddr), 0xFF, 20));
    const TMMSegInfo& entry = stSegTable[49];
    EXPECT_EQ(MM_Addr(entry.pubStartAddr), MM_Addr(&stSegStartAddr));
    EXPECT_EQ(MM_Addr(entry.pubEndAddr), MM_Addr(&stSegEndAddr));
    EXPECT_EQ(MM_Addr(entry.pubMapStartAddr), MM_Addr(&stSegMapStartAddr));
    EXPECT_EQ(MM_Addr(entry.pubMapEndAddr), MM_Addr(&stSegMapEndAddr));
    EXPECT_EQ(entry.stInfoFromApp.ulSegSize, 12480u);
    EXPECT_EQ(entry.stInfoFromApp.ulRetSegSize, 12480u);
    expectSilence();
}

TEST_F(HeapPlacement, TheHandleDecidesWhateverTheType)
{
    for (const U8 type : {FIXED, FLOAT, FLOATALIGN}) {
        setFreeMemory({{kA, 4096}});
        TMMSegInfo info = heap(type);
        EXPECT_EQ(MM_InstallSegment(&info), U32(ENOERR));
        expectPieces({{kA, 4096}});
        EXPECT_EQ(stSegTable[49].stInfoFromApp.ubType, type);
    }
    expectSilence();
}

TEST_F(HeapPlacement, StretchesOfUpTo128BytesAreDroppedForGood)
{
    setFreeMemory({{kA, 100}, {kB, 5000}, {kC, 120}});
    TMMSegInfo info = heap();
    EXPECT_EQ(MM_InstallSegment(&info), U32(ENOERR));
    expectPieces({{kB, 4992}}); // 78 blocks
    EXPECT_EQ(stSegTable[49].stInfoFromApp.ulSegSize, 5000u);
    EXPECT_EQ(astBlkHead[49].pstBlk, node(kB));
    EXPECT_EQ(astBlkTail[49].pstBlk, node(kB));
    EXPECT_EQ(node(kB)->pstNext, nullptr);
    EXPECT_EQ(node(kB)->pstBack, nullptr);
    expectSilence();
}

TEST_F(HeapPlacement, AStretchIsAPieceFrom129BytesUp)
{
    setFreeMemory({{kA, 129}, {kB, 128}, {kC, 4096}});
    TMMSegInfo info = heap();
    EXPECT_EQ(MM_InstallSegment(&info), U32(ENOERR));
    expectPieces({{kA, 128}, {kC, 4096}});
    EXPECT_EQ(stSegTable[49].stInfoFromApp.ulSegSize, 4225u);
    EXPECT_EQ(node(kA)->pstNext, node(kC));
    EXPECT_EQ(node(kC)->pstBack, node(kA));
}

TEST_F(HeapPlacement, FivePiecesAreEnough)
{
    setFreeMemory({{kA, 4096}, {kB, 64}, {kB + 64, 4096}, {kC, 4096}, {kD, 4096}, {kE, 4096}});
    TMMSegInfo info = heap();
    EXPECT_EQ(MM_InstallSegment(&info), U32(ENOERR));
    expectPieces({{kA, 4096}, {kB + 64, 4096}, {kC, 4096}, {kD, 4096}, {kE, 4096}});
    expectSilence();
}

TEST_F(HeapPlacement, MoreThanFivePiecesAreRefusedWithSmallStretchesDropped)
{
    constexpr U32 f = 0x95900000, g = 0x95A00000;
    setFreeMemory({{kA, 64},
                   {kA + 64, 4096},
                   {kB, 4096},
                   {kC, 100},
                   {kC + 256, 4096},
                   {kD, 4096},
                   {kE, 4096},
                   {f, 4096},
                   {g, 100}});
    expectRefused(heap(), {failed(R"(pstTempBlk == NULL && "MAX_PIECE_NUM is not enough.")")});
    expectPieces({{kA + 64, 4096}, {kB, 4096}, {kC + 256, 4096}, {kD, 4096}, {kE, 4096}});
    expectFree({{kA + 64, 4096}, {kB, 4096}, {kC + 256, 4096}, {kD, 4096}, {kE, 4096}, {f, 4096}, {g, 100}});
    EXPECT_EQ(pstHEAPBiggestBlk, node(kA)); // the head before small ones were dropped
}

TEST_F(HeapPlacement, SevenLargeStretchesAreRefused)
{
    const std::vector<FreeNode> seven = {{kA, 4096}, {kB, 4096},         {kC, 4096},        {kD, 4096},
                                         {kE, 4096}, {0x95900000, 4096}, {0x95A00000, 4096}};
    setFreeMemory(seven);
    expectRefused(heap(), {failed(R"(pstTempBlk == NULL && "MAX_PIECE_NUM is not enough.")")});
    expectFree(seven);
}

TEST_F(HeapPlacement, ASixthStretchIsRefusedHoweverSmall)
{
    setFreeMemory({{kA, 4096}, {kB, 4096}, {kC, 4096}, {kD, 4096}, {kE, 4096}, {0x95900000, 64}});
    expectRefused(heap(), {failed(R"(pstTempBlk == NULL && "MAX_PIECE_NUM is not enough.")")});
}

TEST_F(HeapPlacement, APieceBelowTheAreaIsRefused)
{
    setFreeMemory({{kA, 4096}, {kB, 4096}});
    memstart = kA + 1;
    expectRefused(
        heap(),
        {"MM_InstallSegment: (U32)pubSegMemStartAddr 95400001, stSegStartAddr.aulHeapAddr[0] 95400000\n",
         failed(
             R"(((U32)*pubSegMemStartAddr <= stSegStartAddr.aulHeapAddr[ubIdx]) && "Overflow occurs! Interrupt Total Mem range")")});
    expectFree({{kA, 4096}, {kB, 4096}});
}

TEST_F(HeapPlacement, APiecePastTheAreaIsRefused)
{
    setFreeMemory({{kA, 4096}, {kB, 4096}});
    memend = kB + 4095;
    expectRefused(
        heap(),
        {"MM_InstallSegment: (U32)*pubSegMemEndAddr 95500fff, stSegEndAddr.aulHeapAddr[1] 95501000\n",
         failed(
             R"(((U32)*pubSegMemEndAddr >= stSegEndAddr.aulHeapAddr[ubIdx]) && "Overflow occurs! Interrupt Total Mem range")")});
}

TEST_F(HeapPlacement, PiecesAreTestedInOrderEachOnesStartFirst)
{
    setFreeMemory({{kA, 4096}, {kB, 4096}});
    memstart = kB + 1;
    memend = kA + 1;
    expectRefused(
        heap(),
        {"MM_InstallSegment: (U32)pubSegMemStartAddr 95500001, stSegStartAddr.aulHeapAddr[0] 95400000\n",
         failed(
             R"(((U32)*pubSegMemStartAddr <= stSegStartAddr.aulHeapAddr[ubIdx]) && "Overflow occurs! Interrupt Total Mem range")")});

    setFreeMemory({{kB, 4096}, {kA, 4096}}); // the second piece is below, the first one past
    memstart = kB;
    expectRefused(
        heap(),
        {"MM_InstallSegment: (U32)*pubSegMemEndAddr 95400001, stSegEndAddr.aulHeapAddr[0] 95501000\n",
         failed(
             R"(((U32)*pubSegMemEndAddr >= stSegEndAddr.aulHeapAddr[ubIdx]) && "Overflow occurs! Interrupt Total Mem range")")});
}

TEST_F(HeapPlacement, TheNumberOfPiecesIsTestedBeforeTheirBounds)
{
    setFreeMemory({{kA, 4096}, {kB, 4096}, {kC, 4096}, {kD, 4096}, {kE, 4096}, {0x95900000, 4096}});
    memstart = kB;
    expectRefused(heap(), {failed(R"(pstTempBlk == NULL && "MAX_PIECE_NUM is not enough.")")});
}

// Other types -----------------------------------------------------------------------------------------

TEST_F(Placement, AnotherTypeGoesStraightToInitialisation)
{
    TMMSegInfo info = working(3, LINKEDLIST, 0, 64);
    info.pubStartAddr = at(kA);
    info.pubEndAddr = at(kA + 4096);
    info.stInfoFromApp.ulRetSegSize = 4096;
    expectPlaced(info, kA, kA + 4096);
    EXPECT_EQ(stSegTable[kHandle].ulTotalBlkNum, 64u);
    expectFree({{kFloatStart, kAreaEnd - kFloatStart}});
}

} // namespace
} // namespace velmora::test
