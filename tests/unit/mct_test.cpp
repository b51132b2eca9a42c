// The memory configuration table: the default layout of the fixed segments, and the operations on its rows.
#include "support/manager_fixture.h"

namespace velmora::test {
namespace {

constexpr U32 kRows = MAX_MCT_NUM;
// The default rows over the default area.
constexpr U32 kStarts[kRows] = {0x95100000, 0x95101000, 0x95102000, 0x95112000, 0x95212000};
constexpr U32 kSizes[kRows] = {0x1000, 0x1000, 0x10000, 0x100000, 0x100000};
constexpr const char* kNames[kRows] = {"$MCT", "$RJL", "$JCB", "$UEV", "$FIL"};
enum { MCT, RJL, JCB, UEV, FIL };

class MctTest : public ManagerTest
{
protected:
    static void setRow(U32 index, const char (&name)[5], U32 size, U32 start = 0)
    {
        TMCTInfo& row = stDefaultMCTTable[index];
        std::memcpy(row.aubCFGID, name, 4);
        row.ulSize = size;
        row.pubStartAddr = at(start);
    }

    static void expectStarts(const U32 (&starts)[kRows])
    {
        for (U32 i = 0; i < kRows; ++i)
            EXPECT_EQ(MM_Addr(stDefaultMCTTable[i].pubStartAddr), starts[i]) << "row " << i;
    }

    // The rows that hold zeros only; every other row holds 0xA5 only.
    static std::vector<U32> clearedRows()
    {
        std::vector<U32> cleared;
        for (U32 i = 0; i < kRows; ++i)
            if (isFilled(kStarts[i], 0, kSizes[i]))
                cleared.push_back(i);
            else
                EXPECT_TRUE(isFilled(kStarts[i], 0xA5, kSizes[i])) << "row " << i;
        return cleared;
    }

    static std::string notFound()
    {
        return check(R"(0 && "Can't find such ID in MCT")", "mm/MM_MCT", "MM_ReadSegOnMCT");
    }
};

// Default layout --------------------------------------------------------------------------------------

class MctLayout : public MctTest
{
protected:
    static U32 layOut(U32 start = kAreaStart, U32 end = kAreaEnd)
    {
        return CM_ConstructDefaultMCT(end - start, end, start);
    }

    static std::string badSize() { return check("0", "mmi/MM_Interface", "CM_ConstructDefaultMCT"); }
    static std::string overEnd()
    {
        return check(
            R"((ulFixedSegEndAddress <= ulMemEndAddr) && "The range of fixed segment is over the End address of memory")",
            "mmi/MM_Interface", "CM_ConstructDefaultMCT");
    }
};

TEST_F(MctLayout, DefaultRowsHaveNamesAndSizesAndNoPlace)
{
    for (U32 i = 0; i < kRows; ++i) {
        EXPECT_EQ(std::memcmp(stDefaultMCTTable[i].aubCFGID, kNames[i], 4), 0);
        EXPECT_EQ(stDefaultMCTTable[i].ulSize, kSizes[i]);
        EXPECT_EQ(stDefaultMCTTable[i].pubStartAddr, nullptr);
    }
    EXPECT_EQ(CM_IF_GetDefaultMCT(), stDefaultMCTTable);
}

TEST_F(MctLayout, RowsFollowEachOtherFromTheStart)
{
    EXPECT_EQ(layOut(), U32(ENOERR));
    expectStarts(kStarts);
    EXPECT_EQ(ulFixedSegEndAddress, kAreaStart + 0x212000);
    EXPECT_EQ(ulMCTStartAddr, kAreaStart);
    EXPECT_EQ(pstMCTTable[0], nullptr); // not the layout's business
    expectSilence();
}

TEST_F(MctLayout, TheRamSizeIsIgnored)
{
    EXPECT_EQ(CM_ConstructDefaultMCT(0, kAreaEnd, kAreaStart), U32(ENOERR));
    expectStarts(kStarts);
}

TEST_F(MctLayout, AnOddStartIsNotAligned)
{
    EXPECT_EQ(layOut(0x95100003), U32(ENOERR));
    expectStarts({0x95100003, 0x95101003, 0x95102003, 0x95112003, 0x95212003});
    EXPECT_EQ(ulFixedSegEndAddress, 0x95312003u);
}

TEST_F(MctLayout, ASizeThatIsNoMultipleOf4StopsItAndEarlierRowsKeepTheirPlace)
{
    stDefaultMCTTable[JCB].ulSize = 4098;
    EXPECT_EQ(layOut(), U32(EASSERT));
    EXPECT_EQ(log(), Lines{badSize()});
    expectStarts({kStarts[MCT], kStarts[RJL], 0, 0, 0});
    EXPECT_EQ(ulFixedSegEndAddress, kAreaStart + 0x2000);
    EXPECT_EQ(ulMCTStartAddr, kAreaStart);
}

TEST_F(MctLayout, ABadSizeInTheFirstRowLeavesEverythingAsItWas)
{
    ulFixedSegEndAddress = 0x1234;
    stDefaultMCTTable[MCT].ulSize = 4097;
    EXPECT_EQ(layOut(), U32(EASSERT));
    EXPECT_EQ(log(), Lines{badSize()});
    expectStarts({0, 0, 0, 0, 0});
    EXPECT_EQ(ulFixedSegEndAddress, 0x1234u);
    EXPECT_EQ(ulMCTStartAddr, 0u);
}

TEST_F(MctLayout, ABadSizeStopsARowThatHasAPlaceToo)
{
    setRow(UEV, "$UEV", 4098, 0x9A000000);
    EXPECT_EQ(layOut(), U32(EASSERT));
    EXPECT_EQ(log(), Lines{badSize()});
    EXPECT_EQ(ulFixedSegEndAddress, kStarts[UEV]);
}

TEST_F(MctLayout, AnEmptyRowIsPassedOverWhateverItsSize)
{
    setRow(JCB, " \0xy", 4098);
    EXPECT_EQ(layOut(), U32(ENOERR));
    expectStarts({kStarts[MCT], kStarts[RJL], 0, 0x95102000, 0x95202000});
    EXPECT_EQ(ulFixedSegEndAddress, 0x95302000u);
    expectSilence();
}

TEST_F(MctLayout, AnEmptyFirstRowLeavesTheOldEndInPlace)
{
    setRow(MCT, " \0\0\0", 4096);
    ulFixedSegEndAddress = 0x95400000;
    EXPECT_EQ(layOut(), U32(ENOERR));
    expectStarts({0, 0x95400000, 0x95401000, 0x95411000, 0x95511000});
    EXPECT_EQ(ulMCTStartAddr, 0u);
}

TEST_F(MctLayout, TheFirstRowBeginsTheAreaWhateverItsName)
{
    setRow(MCT, "$ABC", 0x1000, 0x9A000000);
    setRow(JCB, "$MCT", 0x2000);
    EXPECT_EQ(layOut(), U32(ENOERR));
    expectStarts({kAreaStart, 0x95101000, 0x95102000, 0x95104000, 0x95204000});
    EXPECT_EQ(ulMCTStartAddr, 0x95102000u);
}

TEST_F(MctLayout, ARowWithAPlaceKeepsItAndItsSizeCountsAllTheSame)
{
    stDefaultMCTTable[JCB].pubStartAddr = at(0x9A000000);
    EXPECT_EQ(layOut(), U32(ENOERR));
    expectStarts({kStarts[MCT], kStarts[RJL], 0x9A000000, kStarts[UEV], kStarts[FIL]});
    EXPECT_EQ(ulFixedSegEndAddress, kAreaStart + 0x212000);
}

TEST_F(MctLayout, TheLastRowNamedMctGivesTheStartAddressWithAPlaceToo)
{
    setRow(UEV, "$MCT", 0x100000, 0x9A000000);
    EXPECT_EQ(layOut(), U32(ENOERR));
    expectStarts({kAreaStart, kStarts[RJL], kStarts[JCB], 0x9A000000, kStarts[FIL]});
    EXPECT_EQ(ulMCTStartAddr, 0x9A000000u);
}

TEST_F(MctLayout, TheMemoryEndIsTestedBeforeARowsOwnSizeIsAdded)
{
    // "$FIL" begins at the memory end itself and lies past it as a whole.
    EXPECT_EQ(layOut(kAreaStart, kStarts[FIL]), U32(ENOERR));
    expectStarts(kStarts);
    EXPECT_EQ(ulFixedSegEndAddress, kAreaStart + 0x212000);
    expectSilence();
}

TEST_F(MctLayout, ARowThatWouldBeginPastTheMemoryEndStopsIt)
{
    EXPECT_EQ(layOut(kAreaStart, kStarts[FIL] - 1), U32(EASSERT));
    EXPECT_EQ(
        log(),
        (Lines{"CM_ConstructDefaultMCT: Fixed Seg End addr(0x95212000) is more than memory end addr(0x95211fff)\n",
               overEnd()}));
    expectStarts({kStarts[MCT], kStarts[RJL], kStarts[JCB], kStarts[UEV], 0});
    EXPECT_EQ(ulFixedSegEndAddress, kStarts[FIL]);
}

TEST_F(MctLayout, RowsWithAPlaceAreNotHeldAgainstTheMemoryEnd)
{
    for (U32 i = 1; i < kRows; ++i)
        stDefaultMCTTable[i].pubStartAddr = at(0x9A000000 + i);
    EXPECT_EQ(layOut(kAreaStart, kAreaStart), U32(ENOERR));
    expectStarts({kAreaStart, 0x9A000001, 0x9A000002, 0x9A000003, 0x9A000004});
    EXPECT_EQ(ulFixedSegEndAddress, kAreaStart + 0x212000);
    expectSilence();
}

TEST_F(MctLayout, ASecondLayoutMovesTheFirstRowOnlyAndAddsTheSizesUpAgain)
{
    layOut();
    EXPECT_EQ(layOut(0x96000000), U32(ENOERR));
    expectStarts({0x96000000, kStarts[RJL], kStarts[JCB], kStarts[UEV], kStarts[FIL]});
    EXPECT_EQ(ulFixedSegEndAddress, 0x96212000u);
    EXPECT_EQ(ulMCTStartAddr, 0x96000000u);
}

// Lookup ----------------------------------------------------------------------------------------------

class Mct : public MctTest
{
protected:
    Mct() { start(); }
};

TEST_F(Mct, LookupGivesPlaceRowAndSize)
{
    for (U32 i = 0; i < kRows; ++i) {
        TSegRange range{};
        EXPECT_EQ(MM_ReadSegOnMCT(id(kNames[i]), &range), U32(ENOERR));
        EXPECT_EQ(range.pubStartAddr, at(kStarts[i]));
        EXPECT_EQ(range.pubEndAddr, at(kStarts[i] + kSizes[i]));
        EXPECT_EQ(range.ulMCTIDX, i);
        EXPECT_EQ(range.ulRetSegSize, kSizes[i]);
    }
    expectSilence();
}

TEST_F(Mct, LookupOfANullNameOrAnUnknownOneLeavesTheRangeUntouched)
{
    TSegRange range;
    std::memset(&range, 0xEE, sizeof range);
    EXPECT_EQ(MM_ReadSegOnMCT(nullptr, &range), U32(EASSERT));
    EXPECT_EQ(log(), Lines{check(R"((aubSegID != NULL) && "Such MCT ID doesn't exist in MCT")", "mm/MM_MCT",
                                 "MM_ReadSegOnMCT")});
    EXPECT_EQ(MM_ReadSegOnMCT(id("$XYZ"), &range), U32(EASSERT));
    EXPECT_EQ(log(), Lines{notFound()});
    EXPECT_TRUE(isFilled(MM_Addr(&range), 0xEE, sizeof range));
}

TEST_F(Mct, LookupOfANamePresentTwiceFindsTheLowerRow)
{
    setRow(FIL, "$JCB", 0x2000, 0x9A000000);
    TSegRange range{};
    EXPECT_EQ(MM_ReadSegOnMCT(id("$JCB"), &range), U32(ENOERR));
    EXPECT_EQ(range.ulMCTIDX, 2u);
}

TEST_F(Mct, NamesAreComparedOverFourBytesAndANulEndsTheComparison)
{
    TSegRange range{};
    EXPECT_EQ(MM_ReadSegOnMCT(id("$JCB and more"), &range), U32(ENOERR));
    EXPECT_EQ(range.ulMCTIDX, 2u);

    setRow(FIL, "A\0BC", 4, 0x9A000000);
    EXPECT_EQ(MM_ReadSegOnMCT(id("A\0xy"), &range), U32(ENOERR));
    EXPECT_EQ(range.ulMCTIDX, 4u);
    EXPECT_EQ(MM_ReadSegOnMCT(id("$JC"), &range), U32(EASSERT));
}

TEST_F(Mct, LookupOfASpaceFindsTheFirstEmptyRow)
{
    setRow(JCB, " \0\0\0", 0);
    setRow(FIL, " \0\0\0", 0);
    TSegRange range{};
    EXPECT_EQ(MM_ReadSegOnMCT(id(" \0\0\0"), &range), U32(ENOERR));
    EXPECT_EQ(range.ulMCTIDX, 2u);
    EXPECT_EQ(range.pubEndAddr, nullptr);
}

TEST_F(Mct, RowsAreReachedThroughThePointers)
{
    TMCTInfo elsewhere = {{'$', 'N', 'E', 'W'}, 0x40, at(0x9A000000)};
    pstMCTTable[1] = &elsewhere;
    TSegRange range{};
    EXPECT_EQ(MM_ReadSegOnMCT(id("$NEW"), &range), U32(ENOERR));
    EXPECT_EQ(range.ulMCTIDX, 1u);
    EXPECT_EQ(MM_ReadSegOnMCT(id("$RJL"), &range), U32(EASSERT));
    EXPECT_EQ(MM_DeleteSegment(id("$NEW")), U32(ENOERR));
    EXPECT_EQ(elsewhere.ulSize, 0u);
    expectRow(stDefaultMCTTable[RJL], "$RJL", 0x1000, kStarts[RJL]);
}

// Add -------------------------------------------------------------------------------------------------

TEST_F(Mct, ADeletedRowIsFilledByTheNextAddAndASecondAddFails)
{
    EXPECT_EQ(MM_DeleteSegment(id("$FIL")), U32(ENOERR));
    expectRow(stDefaultMCTTable[FIL], " \0\0\0", 0, 0);

    EXPECT_EQ(MM_AddSegment(id("$NEW"), 8192, at(0x9A000000)), U32(ENOERR));
    expectRow(stDefaultMCTTable[FIL], "$NEW", 8192, 0x9A000000);
    expectSilence();

    EXPECT_EQ(MM_AddSegment(id("$ONE"), 4096, at(0x9B000000)), U32(EASSERT));
    EXPECT_EQ(log(), (Lines{notFound(),
                            check(R"(0 && "There is no more space to add segment")", "mm/MM_MCT", "MM_AddSegment")}));
    for (U32 i = 0; i < FIL; ++i)
        EXPECT_EQ(MM_Addr(stDefaultMCTTable[i].pubStartAddr), kStarts[i]);
    expectRow(stDefaultMCTTable[FIL], "$NEW", 8192, 0x9A000000);
}

TEST_F(Mct, AddFillsTheFirstEmptyRow)
{
    MM_DeleteSegment(id("$FIL"));
    MM_DeleteSegment(id("$RJL"));
    MM_AddSegment(id("$NEW"), 16, at(0x9A000000));
    expectRow(stDefaultMCTTable[RJL], "$NEW", 16, 0x9A000000);
    expectRow(stDefaultMCTTable[FIL], " \0\0\0", 0, 0);
}

TEST_F(Mct, AddChecksNeitherNameNorSizeNorAddress)
{
    MM_DeleteSegment(id("$RJL"));
    MM_DeleteSegment(id("$JCB"));
    EXPECT_EQ(MM_AddSegment(id("$FIL"), 4098, at(0x1)), U32(ENOERR));
    EXPECT_EQ(MM_AddSegment(id("A\0BC"), 0, nullptr), U32(ENOERR));
    expectRow(stDefaultMCTTable[RJL], "$FIL", 4098, 0x1);
    expectRow(stDefaultMCTTable[JCB], "A\0BC", 0, 0);
    TSegRange range{};
    MM_ReadSegOnMCT(id("$FIL"), &range);
    EXPECT_EQ(range.ulMCTIDX, 1u);
    expectSilence();
}

// Delete ----------------------------------------------------------------------------------------------

TEST_F(Mct, DeleteZeroesTheRowsMemoryAndNothingElse)
{
    fillFixed();
    fill(kFloatStart, 0xA5, 64);
    EXPECT_EQ(MM_DeleteSegment(id("$FIL")), U32(ENOERR));
    EXPECT_EQ(clearedRows(), std::vector<U32>{FIL});
    EXPECT_TRUE(isFilled(kFloatStart, 0xA5, 64));
    EXPECT_EQ(MM_DeleteSegment(id("$MCT")), U32(ENOERR));
    EXPECT_EQ(clearedRows(), (std::vector<U32>{MCT, FIL}));
    expectRow(stDefaultMCTTable[MCT], " \0\0\0", 0, 0);
    expectSilence();
}

TEST_F(Mct, DeleteOfAnUnknownNameFails)
{
    fillFixed();
    EXPECT_EQ(MM_DeleteSegment(id("$XYZ")), U32(EASSERT));
    EXPECT_EQ(log(),
              Lines{check(R"((ubResult == TRUE) && "Can't find such SegmentID")", "mm/MM_MCT", "MM_DeleteSegment")});
    EXPECT_EQ(clearedRows(), std::vector<U32>{});
    expectStarts(kStarts);
}

TEST_F(Mct, DeleteOfANamePresentTwiceEmptiesTheLowerRow)
{
    setRow(FIL, "$JCB", 0x100000, kStarts[FIL]);
    fillFixed();
    EXPECT_EQ(MM_DeleteSegment(id("$JCB")), U32(ENOERR));
    EXPECT_EQ(clearedRows(), std::vector<U32>{JCB});
    expectRow(stDefaultMCTTable[JCB], " \0\0\0", 0, 0);
    expectRow(stDefaultMCTTable[FIL], "$JCB", 0x100000, kStarts[FIL]);
}

TEST_F(Mct, DeleteOfARowOfSize0TouchesNoMemory)
{
    setRow(FIL, "$NIL", 0, 0x1); // no memory there
    EXPECT_EQ(MM_DeleteSegment(id("$NIL")), U32(ENOERR));
    expectRow(stDefaultMCTTable[FIL], " \0\0\0", 0, 0);
    EXPECT_EQ(MM_DeleteSegment(id(" \0\0\0")), U32(ENOERR)); // an empty row is a row
    expectSilence();
}

// Clear -----------------------------------------------------------------------------------------------

TEST_F(Mct, ClearZeroesTheNamedRowAndKeepsIt)
{
    for (U32 i = 0; i < kRows; ++i) {
        fillFixed();
        EXPECT_EQ(MM_ClearSegment(id(kNames[i])), U32(ENOERR));
        EXPECT_EQ(clearedRows(), std::vector<U32>{i}) << kNames[i];
        EXPECT_EQ(std::memcmp(stDefaultMCTTable[i].aubCFGID, kNames[i], 4), 0);
        EXPECT_EQ(stDefaultMCTTable[i].ulSize, kSizes[i]);
    }
    expectStarts(kStarts);
    expectSilence();
}

TEST_F(Mct, ClearAllLeavesMctRjlAndUev)
{
    fillFixed();
    EXPECT_EQ(MM_ClearSegment(id("$ALL")), U32(ENOERR));
    EXPECT_EQ(clearedRows(), (std::vector<U32>{JCB, FIL}));
    expectStarts(kStarts);
    expectSilence();
}

TEST_F(Mct, ClearAllTakesAddedRowsButNoEmptyOnes)
{
    setRow(RJL, "$NEW", 0x1000, kStarts[RJL]);
    setRow(JCB, " \0\0\0", 0x10000, kStarts[JCB]);
    setRow(FIL, "$NIL", 0, 0x1);
    fillFixed();
    EXPECT_EQ(MM_ClearSegment(id("$ALL")), U32(ENOERR));
    EXPECT_EQ(clearedRows(), std::vector<U32>{RJL});
}

TEST_F(Mct, ClearOfAnUnknownNameDoesNothing)
{
    fillFixed();
    EXPECT_EQ(MM_ClearSegment(id("$XYZ")), U32(ENOERR));
    EXPECT_EQ(clearedRows(), std::vector<U32>{});
    expectSilence();
}

TEST_F(Mct, ClearOfANamePresentTwiceTakesTheLowerRow)
{
    setRow(FIL, "$JCB", 0x100000, kStarts[FIL]);
    fillFixed();
    MM_ClearSegment(id("$JCB"));
    EXPECT_EQ(clearedRows(), std::vector<U32>{JCB});

    setRow(JCB, "$JCB", 0, 0x1); // the first row of the name is the one, even with nothing to clear
    fillFixed();
    EXPECT_EQ(MM_ClearSegment(id("$JCB")), U32(ENOERR));
    EXPECT_EQ(clearedRows(), std::vector<U32>{});
}

// Restore ---------------------------------------------------------------------------------------------

class MctRestore : public Mct
{
protected:
    static std::string badPlace()
    {
        return check("pstMCTTable[iubMCTTableIDX]->pubStartAddr <= (U8*)((U32)*pubSegMemEndAddr - "
                     "pstMCTTable[iubMCTTableIDX]->ulSize)",
                     "mm/MM_MCT", "MM_RestoreMCT");
    }
};

TEST_F(MctRestore, UevAloneIsZeroed)
{
    fillFixed();
    EXPECT_EQ(MM_RestoreMCT(), U32(ENOERR));
    EXPECT_EQ(clearedRows(), std::vector<U32>{UEV});
    expectSilence();
}

TEST_F(MctRestore, ARowThatEndsAtTheMemoryEndIsZeroed)
{
    setRow(UEV, "$UEV", 0x1000, kAreaEnd - 0x1000);
    fill(kAreaEnd - 0x1000, 0xA5, 0x2000);
    EXPECT_EQ(MM_RestoreMCT(), U32(ENOERR));
    EXPECT_TRUE(isFilled(kAreaEnd - 0x1000, 0, 0x1000));
    EXPECT_TRUE(isFilled(kAreaEnd, 0xA5, 0x1000));
}

TEST_F(MctRestore, ARowThatReachesPastTheMemoryEndIsRefused)
{
    setRow(UEV, "$UEV", 0x1000, kAreaEnd - 0xFFF);
    fill(kAreaEnd - 0x1000, 0xA5, 0x2000);
    EXPECT_EQ(MM_RestoreMCT(), U32(EASSERT));
    EXPECT_EQ(log(), Lines{badPlace()});
    EXPECT_TRUE(isFilled(kAreaEnd - 0x1000, 0xA5, 0x2000));
}

TEST_F(MctRestore, EveryRowOfThatNameIsZeroedWhereverItStands)
{
    setRow(MCT, "$UEV", 0x1000, kStarts[MCT]);
    setRow(FIL, "$UEV", 0x1000, kStarts[FIL]);
    fillFixed();
    EXPECT_EQ(MM_RestoreMCT(), U32(ENOERR));
    EXPECT_TRUE(isFilled(kStarts[MCT], 0, 0x1000));
    EXPECT_TRUE(isFilled(kStarts[FIL], 0, 0x1000));
}

TEST_F(MctRestore, TheFirstBadRowEndsTheVisit)
{
    setRow(RJL, "$UEV", 0x1000, kStarts[RJL]);
    setRow(JCB, "$UEV", 0x10000, kAreaEnd);
    fillFixed();
    EXPECT_EQ(MM_RestoreMCT(), U32(EASSERT));
    EXPECT_EQ(log(), Lines{badPlace()});
    EXPECT_EQ(clearedRows(), std::vector<U32>{RJL});
}

TEST_F(MctRestore, EveryRowOfTheNameIsZeroed)
{
    setRow(JCB, "$UEV", 0x10000, kStarts[JCB]);
    fillFixed();
    EXPECT_EQ(MM_RestoreMCT(), U32(ENOERR));
    EXPECT_EQ(clearedRows(), (std::vector<U32>{JCB, UEV}));
}

TEST_F(MctRestore, NothingToZeroIsNoFailure)
{
    setRow(UEV, "$UEV", 0, 0x1);
    fillFixed();
    EXPECT_EQ(MM_RestoreMCT(), U32(ENOERR));
    setRow(UEV, "$NIL", 0x100000, kStarts[UEV]);
    EXPECT_EQ(MM_RestoreMCT(), U32(ENOERR));
    EXPECT_EQ(clearedRows(), std::vector<U32>{});
    expectSilence();
}

// Copies, pointers, checksum ---------------------------------------------------------------------------

TEST_F(Mct, ARowIsCopiedFromTheDefaultTable)
{
    TMCTInfo elsewhere = {{'$', 'N', 'E', 'W'}, 0x40, at(0x9A000000)};
    pstMCTTable[3] = &elsewhere;
    TMCTInfo row{};
    EXPECT_EQ(MM_GetMCT(3, &row), 0);
    EXPECT_EQ(std::memcmp(row.aubCFGID, "$UEV", 4), 0);
    EXPECT_EQ(row.ulSize, 0x100000u);
    EXPECT_EQ(row.pubStartAddr, at(kStarts[UEV]));
}

TEST_F(Mct, ARowIndexAbove4Gives255AndWritesNothing)
{
    for (const U32 index : {5u, 6u, 256u, 0xFFFFFFFFu}) {
        TMCTInfo row;
        std::memset(&row, 0xEE, sizeof row);
        EXPECT_EQ(MM_GetMCT(index, &row), 255) << index;
        EXPECT_TRUE(isFilled(MM_Addr(&row), 0xEE, sizeof row)) << index;
    }
    expectSilence();
}

TEST_F(Mct, PointersAreRearrangedFromTheFirst)
{
    TMCTInfo* pointers[kRows] = {reinterpret_cast<TMCTInfo*>(0x9A000000)};
    EXPECT_EQ(MM_RearrangeMCT(pointers), U32(ENOERR));
    for (U32 i = 0; i < kRows; ++i)
        EXPECT_EQ(MM_Addr(pointers[i]), 0x9A000000 + 12 * i);
}

TEST_F(Mct, TheChecksumIsAlwaysValid)
{
    EXPECT_EQ(MM_CheckSumMCT(), TRUE);
    ulCheckSumField = 0xDEAD;
    fillFixed();
    EXPECT_EQ(MM_CheckSumMCT(), TRUE);
    EXPECT_EQ(ulCheckSumField, 0xDEADu);
}

TEST_F(Mct, TheStartAddressIsThatOfTheLayout)
{
    EXPECT_EQ(CM_IF_ReadMCTStartAddr(), kAreaStart);
    expectSilence();
}

TEST_F(Mct, TheStartAddressIs14BeforeTheLayout)
{
    ulMCTStartAddr = 0;
    EXPECT_EQ(CM_IF_ReadMCTStartAddr(), 14u);
    EXPECT_EQ(log(), Lines{check(R"(ulMCTStartAddr && "The start address of MCT is NULL!!!!")", "mmi/MM_Interface",
                                 "CM_IF_ReadMCTStartAddr")});
}

TEST_F(Mct, DisplayHooksPrintNothing)
{
    CM_ShowDEFMCT();
    CM_ShowMCT();
    expectSilence();
}

TEST_F(Mct, TheSpareTableAndTheChecksumWordStayUnused)
{
    MM_DeleteSegment(id("$FIL"));
    MM_AddSegment(id("$NEW"), 64, at(0x9A000000));
    MM_ClearSegment(id("$ALL"));
    MM_RestoreMCT();
    EXPECT_TRUE(isFilled(MM_Addr(MCTTable), 0, sizeof MCTTable));
    EXPECT_EQ(ulCheckSumField, 0u);
}

// Backup check ----------------------------------------------------------------------------------------

TEST_F(Mct, TheBackupCheckStoresTheDefaultRowsInTheArea)
{
    fill(kAreaStart, 0xA5, 0x1000 + 16);
    EXPECT_EQ(MM_IsBrokenDramBackUp(), TRUE);

    const U8 rows[60] = {'$', 'M', 'C', 'T', 0, 0x10, 0,    0, 0x00, 0x00, 0x10, 0x95, //
                         '$', 'R', 'J', 'L', 0, 0x10, 0,    0, 0x00, 0x10, 0x10, 0x95, //
                         '$', 'J', 'C', 'B', 0, 0,    1,    0, 0x00, 0x20, 0x10, 0x95, //
                         '$', 'U', 'E', 'V', 0, 0,    0x10, 0, 0x00, 0x20, 0x11, 0x95, //
                         '$', 'F', 'I', 'L', 0, 0,    0x10, 0, 0x00, 0x20, 0x21, 0x95};
    EXPECT_EQ(std::memcmp(at(kAreaStart), rows, 60), 0);
    EXPECT_TRUE(isFilled(kAreaStart + 60, 0, 4096 - 60));
    EXPECT_TRUE(isFilled(kAreaStart + 4096, 0xA5, 16));
    for (U32 i = 0; i < kRows; ++i)
        EXPECT_EQ(MM_Addr(pstMCTTable[i]), kAreaStart + 12 * i);
    expectSilence();
}

TEST_F(Mct, TheBackupCheckRewritesTheBoundsOfTheArea)
{
    MM_IsBrokenDramBackUp();
    EXPECT_EQ(ulRamSize, 0x08E00000u); // 0x9DF00000 - 0x95100000
    EXPECT_EQ(MM_Addr(pubSegMemStartAddr), kAreaStart);
    EXPECT_EQ(MM_Addr(pubSegMemEndAddr), 0x08E00000u);
    EXPECT_EQ(memstart, kAreaStart);
    EXPECT_EQ(memend, kAreaEnd);
}

TEST_F(Mct, TheBackupCheckCutsTheSizeTo512MiB)
{
    memend = kAreaStart + 0x20000001;
    MM_IsBrokenDramBackUp();
    EXPECT_EQ(ulRamSize, 0x20000000u);
    EXPECT_EQ(MM_Addr(pubSegMemEndAddr), 0x20000000u);
}

} // namespace
} // namespace velmora::test
