// Start-up: building the configuration table, starting the library, the free-memory list, the accessors.
#include "support/manager_fixture.h"

namespace velmora::test {
namespace {

constexpr U32 kRjl = 0x95101000, kJcb = 0x95102000, kUev = 0x95112000, kFil = 0x95212000;

class Startup : public ManagerTest
{
protected:
    static std::string badOption(const char* function)
    {
        return check(R"(0 && "Inpropriate Option Value!!")", "mm/MM_Lib", function);
    }
};

// MM_Entry --------------------------------------------------------------------------------------------

TEST_F(Startup, ALoadBuildsNoTable)
{
    ASSERT_EQ(load(), 0);
    EXPECT_EQ(stDefaultMCTTable[0].pubStartAddr, nullptr);
    EXPECT_EQ(pstMCTTable[0], nullptr);
    EXPECT_EQ(ulFixedSegEndAddress, 0u);
    EXPECT_EQ(pstSegBlkHead, nullptr);
}

TEST_F(Startup, EntryLaysTheRowsOutAndPutsThemInUse)
{
    load();
    machine().takeLog();
    EXPECT_EQ(MM_Entry(MM_CONSTRUCT_DEFAULT_MCT), U32(ENOERR));
    for (U32 i = 0; i < 5; ++i)
        EXPECT_EQ(pstMCTTable[i], &stDefaultMCTTable[i]);
    EXPECT_EQ(MM_Addr(pubMCTStartAddr), kAreaStart);
    EXPECT_EQ(stDefaultMCTTable[4].pubStartAddr, at(kFil));
    EXPECT_EQ(ulFixedSegEndAddress, kFloatStart);
    EXPECT_EQ(pstSegBlkHead, nullptr);
    expectSilence();
}

TEST_F(Startup, EntryRefusesEveryOtherOption)
{
    load();
    machine().takeLog();
    for (const U32 option : {1u, 2u, 0xFFFFFFFFu}) {
        EXPECT_EQ(MM_Entry(option), U32(EASSERT)) << option;
        EXPECT_EQ(log(), Lines{badOption("MM_Entry")});
    }
    EXPECT_EQ(stDefaultMCTTable[0].pubStartAddr, nullptr);
    EXPECT_EQ(pstMCTTable[0], nullptr);
}

TEST_F(Startup, EntryReturnsALayoutsFailureAndLeavesThePointers)
{
    load();
    machine().takeLog();
    stDefaultMCTTable[1].ulSize = 4098;
    EXPECT_EQ(MM_Entry(MM_CONSTRUCT_DEFAULT_MCT), U32(EASSERT));
    EXPECT_EQ(log(), Lines{check("0", "mmi/MM_Interface", "CM_ConstructDefaultMCT")});
    EXPECT_EQ(pstMCTTable[0], nullptr);
    EXPECT_EQ(pubMCTStartAddr, nullptr);
}

TEST_F(Startup, EntryBeforeALoadFindsNoRoomForTheSecondRow)
{
    EXPECT_EQ(MM_Entry(MM_CONSTRUCT_DEFAULT_MCT), U32(EASSERT));
    EXPECT_EQ(
        log(),
        (Lines{
            "CM_ConstructDefaultMCT: Fixed Seg End addr(0x1000) is more than memory end addr(0x0)\n",
            check(
                R"((ulFixedSegEndAddress <= ulMemEndAddr) && "The range of fixed segment is over the End address of memory")",
                "mmi/MM_Interface", "CM_ConstructDefaultMCT")}));
    EXPECT_EQ(pstMCTTable[0], nullptr);
}

// A table without "$MCT" has no start address; what the query answers then, 14, passes as one.
TEST_F(Startup, EntryTakes14ForTheStartOfATableWithoutMct)
{
    load();
    machine().takeLog();
    stDefaultMCTTable[0].aubCFGID[1] = 'X';
    EXPECT_EQ(MM_Entry(MM_CONSTRUCT_DEFAULT_MCT), U32(ENOERR));
    EXPECT_EQ(log(), Lines{check(R"(ulMCTStartAddr && "The start address of MCT is NULL!!!!")", "mmi/MM_Interface",
                                 "CM_IF_ReadMCTStartAddr")});
    EXPECT_EQ(MM_Addr(pubMCTStartAddr), 14u);
    EXPECT_EQ(pstMCTTable[4], &stDefaultMCTTable[4]);
}

TEST_F(Startup, ASecondEntryKeepsThePlacesAndPutsTheDefaultRowsBackInUse)
{
    start();
    MM_DeleteSegment(id("$FIL"));
    TMCTInfo elsewhere{};
    pstMCTTable[2] = &elsewhere;
    EXPECT_EQ(MM_Entry(MM_CONSTRUCT_DEFAULT_MCT), U32(ENOERR));
    EXPECT_EQ(pstMCTTable[2], &stDefaultMCTTable[2]);
    EXPECT_EQ(stDefaultMCTTable[3].pubStartAddr, at(kUev));
    EXPECT_EQ(stDefaultMCTTable[4].pubStartAddr, nullptr); // stays deleted
    EXPECT_EQ(ulFixedSegEndAddress, kFil);
}

// MM_LibEntry -----------------------------------------------------------------------------------------

class LibraryStart : public Startup
{
protected:
    LibraryStart() { start(); }

    static bool tableIsEmpty() { return isFilled(MM_Addr(stSegTable), 0, sizeof stSegTable); }

    // Leaves nothing as a start leaves it, and fills the fixed segments with 0xA5.
    static void disturb()
    {
        std::memset(stSegTable, 0xEE, sizeof stSegTable);
        hulFixedHandle = 3;
        hulFloatHandle = 40;
        pstSegBlkHead = pstSegBlkTail = node(0x9A000000);
        fill(kAreaStart, 0xA5, kFixedBytes + 64);
    }

    static void expectStarted()
    {
        EXPECT_TRUE(tableIsEmpty());
        EXPECT_EQ(hulFixedHandle, 0u);
        EXPECT_EQ(hulFloatHandle, 5u);
        EXPECT_EQ(freeMemory(), (std::vector<FreeNode>{{kFloatStart, kAreaEnd - kFloatStart}}));
        EXPECT_EQ(ulFixedSegEndAddress, kFloatStart);
    }
};

TEST_F(LibraryStart, KeptContentsStayUntouched)
{
    for (const U32 option : {U32(SM_BKUP_OK), U32(SM_BKUP_FLASH)}) {
        disturb();
        EXPECT_EQ(MM_LibEntry(option, nullptr), U32(ENOERR));
        expectStarted();
        EXPECT_TRUE(isFilled(kAreaStart, 0xA5, kFixedBytes));
        EXPECT_TRUE(isFilled(kFloatStart + 12, 0xA5, 52)); // behind the header of the free node
        expectSilence();
    }
}

TEST_F(LibraryStart, AFailedBackupZeroesUevExactly)
{
    disturb();
    EXPECT_EQ(MM_LibEntry(SM_BKUP_NG, nullptr), U32(ENOERR));
    expectStarted();
    EXPECT_TRUE(isFilled(kAreaStart, 0xA5, kUev - kAreaStart));
    EXPECT_TRUE(isFilled(kUev, 0, 1048576));
    EXPECT_TRUE(isFilled(kFil, 0xA5, kFloatStart - kFil));
    expectSilence();
}

TEST_F(LibraryStart, DroppedJobDataZeroesJcbExactly)
{
    disturb();
    EXPECT_EQ(MM_LibEntry(SM_AJL_CLR, nullptr), U32(ENOERR));
    expectStarted();
    EXPECT_TRUE(isFilled(kAreaStart, 0xA5, kJcb - kAreaStart));
    EXPECT_TRUE(isFilled(kJcb, 0, 65536));
    EXPECT_TRUE(isFilled(kUev, 0xA5, kFloatStart - kUev));
    expectSilence();
}

TEST_F(LibraryStart, ARefusedOptionEmptiesTheTableAndBuildsNoList)
{
    for (const U32 option : {U32(SM_FM_MBR_OK), U32(SM_FM_MBR_NG), 6u, 0x100u, 0xFFFFFFFFu}) {
        disturb();
        EXPECT_EQ(MM_LibEntry(option, nullptr), U32(EASSERT)) << option;
        EXPECT_EQ(log(), Lines{badOption("MM_LibEntry")});
        EXPECT_TRUE(tableIsEmpty());
        EXPECT_EQ(hulFixedHandle, 0u);
        EXPECT_EQ(hulFloatHandle, 5u);
        EXPECT_EQ(pstSegBlkHead, node(0x9A000000));
        EXPECT_EQ(pstSegBlkTail, node(0x9A000000));
        EXPECT_TRUE(isFilled(kAreaStart, 0xA5, kFixedBytes + 64));
    }
}

TEST_F(LibraryStart, AFailureToRestoreIsReportedAndDoesNotStopIt)
{
    disturb();
    stDefaultMCTTable[3].pubStartAddr = at(kAreaEnd);
    EXPECT_EQ(MM_LibEntry(SM_BKUP_NG, nullptr), U32(ENOERR));
    EXPECT_EQ(log(), Lines{check("pstMCTTable[iubMCTTableIDX]->pubStartAddr <= (U8*)((U32)*pubSegMemEndAddr - "
                                 "pstMCTTable[iubMCTTableIDX]->ulSize)",
                                 "mm/MM_MCT", "MM_RestoreMCT")});
    expectStarted();
}

TEST_F(LibraryStart, MissingJobDataIsNoFailure)
{
    MM_DeleteSegment(id("$JCB"));
    disturb();
    EXPECT_EQ(MM_LibEntry(SM_AJL_CLR, nullptr), U32(ENOERR));
    expectStarted();
    EXPECT_TRUE(isFilled(kAreaStart, 0xA5, kFixedBytes));
    expectSilence();
}

TEST_F(LibraryStart, NothingElseIsReset)
{
    ulRunningMultiJob = 1;
    ulPermanentBlkStartPtr = 0x9A000000;
    ulPermanentBlkCount = 7;
    astBlkHead[6].ulyisl = astBlkTail[6].ulyisl = 0x9A000040;
    astStackStr[7] = {at(0x9A000080), at(0x9A0000C0)};
    stSegStartAddr.aulHeapAddr[0] = stSegMapEndAddr.aulHeapAddr[4] = 0x9A000100;
    pstHEAPBiggestBlk = node(0x9A000140);
    EXPECT_EQ(MM_LibEntry(SM_BKUP_OK, nullptr), U32(ENOERR));
    EXPECT_EQ(ulRunningMultiJob, 1u);
    EXPECT_EQ(ulPermanentBlkStartPtr, 0x9A000000u);
    EXPECT_EQ(ulPermanentBlkCount, 7u);
    EXPECT_EQ(astBlkHead[6].ulyisl, 0x9A000040u);
    EXPECT_EQ(astBlkTail[6].ulyisl, 0x9A000040u);
    EXPECT_EQ(astStackStr[7].pubStackTail, at(0x9A000080));
    EXPECT_EQ(astStackStr[7].pubStackHead, at(0x9A0000C0));
    EXPECT_EQ(stSegStartAddr.aulHeapAddr[0], 0x9A000100u);
    EXPECT_EQ(stSegMapEndAddr.aulHeapAddr[4], 0x9A000100u);
    EXPECT_EQ(pstHEAPBiggestBlk, node(0x9A000140));
}

bool written = false;

TEST_F(LibraryStart, TheWriteRoutineIsNeverCalled)
{
    written = false;
    for (U32 option = SM_BKUP_OK; option <= SM_FM_MBR_NG; ++option)
        MM_LibEntry(option, [] { written = true; });
    EXPECT_FALSE(written);
}

TEST_F(LibraryStart, ASecondStartForgetsEverySegmentAndCountsHandlesFromTheBeginning)
{
    TSegInfoFromApp fixed = request("$JCB", 0, 64);
    fixed.ubType = FIXED;
    EXPECT_EQ(MM_CreateSegment(&fixed), U32(ENOERR));
    EXPECT_EQ(fixed.hulHandle, 0u);
    EXPECT_EQ(createBlocks("RIP0", 0x10000, 64), 5u);
    EXPECT_EQ(createBlocks("RIP1", 0x10000, 64), 6u);
    createHeap(64);

    EXPECT_EQ(MM_LibEntry(SM_BKUP_OK, nullptr), U32(ENOERR));
    expectStarted();
    EXPECT_EQ(createBlocks("RIP1", 0x10000, 64), 5u);
    fixed = request("$UEV", 0, 64);
    fixed.ubType = FIXED;
    EXPECT_EQ(MM_CreateSegment(&fixed), U32(ENOERR));
    EXPECT_EQ(fixed.hulHandle, 0u);
    expectSilence();
}

TEST_F(LibraryStart, AFailedListIsTheStartsResult)
{
    disturb();
    stDefaultMCTTable[4].pubStartAddr = at(kFloatStart + 0x100000);
    stDefaultMCTTable[4].ulSize = 0x10000000;
    EXPECT_EQ(MM_LibEntry(SM_BKUP_OK, nullptr), U32(EASSERT));
    EXPECT_TRUE(tableIsEmpty());
}

// Free-memory list ------------------------------------------------------------------------------------

class FreeList : public LibraryStart
{
protected:
    FreeList() { pstSegBlkHead = pstSegBlkTail = nullptr; }

    static void expectFree(U32 bytes)
    {
        EXPECT_EQ(MM_ConstructSegLinkedList(), U32(ENOERR));
        EXPECT_EQ(freeMemory(), (std::vector<FreeNode>{{kFloatStart, bytes}}));
        EXPECT_EQ(ulFixedSegEndAddress, kFloatStart);
        expectSilence();
    }
};

TEST_F(FreeList, IsOneNodeFromTheFixedSegmentsToTheEnd)
{
    expectFree(0x08BEE000); // 0x9DF00000 - 0x95312000
}

TEST_F(FreeList, NodesTakeTwelveBytes)
{
    fill(kFloatStart, 0xA5, 64);
    expectFree(kAreaEnd - kFloatStart);
    EXPECT_TRUE(isFilled(kFloatStart + 12, 0xA5, 52));
}

TEST_F(FreeList, ARowInsideCutsItShort)
{
    replaceFil(kFloatStart + 0x100000, 0x1000);
    expectFree(0x100000);
}

TEST_F(FreeList, ARowThatEndsAtTheEndIsAllowed)
{
    replaceFil(kAreaEnd - 0x1000, 0x1000);
    expectFree(kAreaEnd - 0x1000 - kFloatStart);
}

TEST_F(FreeList, ARowThatReachesPastTheEndFailsWithTheNodeWritten)
{
    replaceFil(kFloatStart + 0x100000, kAreaEnd - kFloatStart - 0x100000 + 1);
    fill(kFloatStart, 0xA5, 64);
    pstSegBlkHead = node(0x9A000000);
    pstSegBlkTail = node(0x9A000040);
    EXPECT_EQ(MM_ConstructSegLinkedList(), U32(EASSERT));
    EXPECT_EQ(
        log(),
        Lines{check(
            R"(((ulNewEndAddr + pstMCTTable[iubMCTTableIDX]->ulSize) <= (U32)*pubSegMemEndAddr) && "Invalid Fixed Segment Size")",
            "mm/MM_Lib", "MM_ConstructSegLinkedList")});
    EXPECT_EQ(node(kFloatStart)->pstNext, nullptr);
    EXPECT_EQ(node(kFloatStart)->pstBack, nullptr);
    EXPECT_EQ(node(kFloatStart)->ulSize, kAreaEnd - kFloatStart);
    EXPECT_EQ(pstSegBlkHead, node(0x9A000000));
    EXPECT_EQ(pstSegBlkTail, node(0x9A000040));
    EXPECT_EQ(ulFixedSegEndAddress, kFloatStart);
}

TEST_F(FreeList, RowsAtItsBeginningOrItsEndAreNotInside)
{
    replaceFil(kFloatStart, 0x20000000); // a size that would not do inside
    expectFree(kAreaEnd - kFloatStart);
    stDefaultMCTTable[4].pubStartAddr = at(kAreaEnd);
    expectFree(kAreaEnd - kFloatStart);
    stDefaultMCTTable[4].pubStartAddr = at(kAreaEnd - 1);
    EXPECT_EQ(MM_ConstructSegLinkedList(), U32(EASSERT));
    log();
    stDefaultMCTTable[4].pubStartAddr = at(kFloatStart + 1);
    stDefaultMCTTable[4].ulSize = 4;
    expectFree(1);
}

// The end of the row wraps to kFloatStart + 0x1000, which is not past the memory end.
TEST_F(FreeList, ARowWhoseEndWrapsIsAllowed)
{
    replaceFil(kFloatStart + 0x2000, 0xFFFFF000);
    expectFree(0x2000);
}

// The table's last row may reach past the memory end: what is left is less than nothing, and counts as very much.
TEST_F(FreeList, FixedSegmentsPastTheEndLeaveASizeThatWraps)
{
    memend = kFil;
    expectFree(0xFFF00000); // 0x95212000 - 0x95312000
}

TEST_F(FreeList, TheFirstRowInTableOrderCutsItEvenIfALaterOneStartsLower)
{
    stDefaultMCTTable[1].pubStartAddr = at(kFloatStart + 0x300000);
    stDefaultMCTTable[2].pubStartAddr = at(kFloatStart + 0x100000);
    expectFree(0x300000);
}

TEST_F(FreeList, OnlyTheFirstRowInsideIsHeldAgainstTheEnd)
{
    stDefaultMCTTable[1].pubStartAddr = at(kFloatStart + 0x300000);
    stDefaultMCTTable[2].pubStartAddr = at(kFloatStart + 0x100000);
    stDefaultMCTTable[2].ulSize = 0x20000000;
    expectFree(0x300000);
}

TEST_F(FreeList, RowsAreReachedThroughThePointers)
{
    TMCTInfo elsewhere = {{'$', 'N', 'E', 'W'}, 0x40, at(kFloatStart + 0x2000)};
    pstMCTTable[0] = &elsewhere;
    expectFree(0x2000);
}

// Accessors -------------------------------------------------------------------------------------------

TEST_F(LibraryStart, AccessorsReadTheConfiguration)
{
    EXPECT_EQ(CM_IF_ReadFixedSegStartAddr(), kAreaStart);
    EXPECT_EQ(CM_IF_ReadFixedSegEndAddr(), kFloatStart);
    EXPECT_EQ(CM_IF_EndVar(), kAreaStart);
    EXPECT_EQ(CM_IF_ReadRamBaseAddr(), 0u);
    EXPECT_EQ(CM_IF_ReadRamSize(), 0x08E00000u);
    EXPECT_EQ(CM_IF_RIPAvailBlk(), 0u);
    MM_RunningMultiJob_Notify(1);
    EXPECT_EQ(CM_IF_RIPAvailBlk(), 0u);
}

TEST_F(LibraryStart, TheFixedEndCanBeMoved)
{
    CM_IF_UpdateFixedSegEndAddr(kFloatStart + 0x1000);
    EXPECT_EQ(ulFixedSegEndAddress, kFloatStart + 0x1000);
    EXPECT_EQ(CM_IF_ReadFixedSegEndAddr(), kFloatStart + 0x1000);
    EXPECT_EQ(MM_ConstructSegLinkedList(), U32(ENOERR));
    EXPECT_EQ(freeMemory(), (std::vector<FreeNode>{{kFloatStart + 0x1000, kAreaEnd - kFloatStart - 0x1000}}));
}

TEST_F(LibraryStart, AccessorsFollowTheWordsOfTheArea)
{
    memstart = 0x96000000;
    memend = 0x97000000;
    EXPECT_EQ(CM_IF_ReadFixedSegStartAddr(), 0x96000000u);
    EXPECT_EQ(CM_IF_EndVar(), 0x96000000u);
    EXPECT_EQ(CM_IF_ReadRamSize(), 0x01000000u);
}

// Rows that the start does not place: a fixed segment is found where the table says, also after a start.
TEST_F(LibraryStart, FixedSegmentsKeepTheirPlacesOverAStart)
{
    MM_LibEntry(SM_BKUP_OK, nullptr);
    TSegInfoFromApp fixed = request("$RJL", 0, 64);
    fixed.ubType = FIXED;
    EXPECT_EQ(MM_CreateSegment(&fixed), U32(ENOERR));
    EXPECT_EQ(stSegTable[0].pubStartAddr, at(kRjl));
    EXPECT_EQ(stSegTable[0].pubEndAddr, at(kJcb));
}

} // namespace
} // namespace velmora::test
