// Creating a segment: the checks of a request in their order, handles, what goes back to the caller.
#include "support/manager_fixture.h"

namespace velmora::test {
namespace {

constexpr const char* kBadBlkSize = R"((pstInfoFromApp->ulBlkSize > 0) && "Inpropriate Create Segment Value")";
constexpr const char* kBadMap = "(pstInfoFromApp->ubMap == 0 || pstInfoFromApp->ubMap == 1 || pstInfoFromApp->ubMap == "
                                "2 || pstInfoFromApp->ubMap == 4 || "
                                "pstInfoFromApp->ubMap == 8) && \"Inpropriate Create Segment Value\"";
constexpr const char* kBadDSType =
    R"((pstInfoFromApp->ubSegDSType == STACK || pstInfoFromApp->ubSegDSType == LINKEDLIST) && "Inpropriate Create Segment Value")";
constexpr const char* kBadSemaphore =
    R"((pstInfoFromApp->ubSemaphore == YES || pstInfoFromApp->ubSemaphore == NO) && "Inpropriate Create Segment Value")";
constexpr const char* kBadType =
    "(pstInfoFromApp->ubType == FLOATALIGN || pstInfoFromApp->ubType == FLOAT || pstInfoFromApp->ubType == FIXED) && "
    "\"Inpropriate Create Segment Value\"";
constexpr const char* kMct = R"~(strncmp(pstInfoFromApp->aubSegID, (U8*)"$MCT", 4) && "MCT can't be created")~";
constexpr const char* kStackWithMap = "pstInfoFromApp->ubMap == NO";
constexpr const char* kSameID =
    R"(strncmp(stSegTable[iubIdx].stInfoFromApp.aubSegID, pstInfoFromApp->aubSegID, 4) && "Same Segment ID already exists.")";
constexpr const char* kNoFixed =
    R"((hulFixedHandle < MAX_FIXEDSEG_NUM) && "The number of Fixed Segment couldn't be over MAX_FIXEDSEG_NUM")";
constexpr const char* kNoFloat =
    R"((hulFloatHandle < HEAPHANDLE) && "The number of Float Segment couldn't be over MAX FLOAT SEGMENT NUMBER")";
constexpr const char* kNoSize = R"(0 && "Invalid Segment Type is requested to create")";

class CreateSegment : public ManagerTest
{
protected:
    CreateSegment() { start(); }

    static std::string refusal(const char* text) { return check(text, "mm/MM_Lib", "MM_CreateSegment"); }
    static std::string noRoom()
    {
        return check(R"(pstBestFitBlk != NULL && "There is no available Segment Block")", "mm/MM_MST",
                     "MM_InstallSegment");
    }

    // The request is refused with this text alone, and nothing is changed.
    static void expectRefused(const TSegInfoFromApp& request, const char* text)
    {
        TSegInfoFromApp info = request;
        const U32 fixed = hulFixedHandle;
        const U32 floating = hulFloatHandle;
        const auto free = freeMemory();
        const std::vector<U8> table(reinterpret_cast<U8*>(stSegTable), reinterpret_cast<U8*>(stSegTable + 50));
        EXPECT_EQ(MM_CreateSegment(&info), U32(EASSERT));
        EXPECT_EQ(log(), Lines{refusal(text)});
        EXPECT_EQ(std::memcmp(&info, &request, sizeof info), 0);
        EXPECT_EQ(hulFixedHandle, fixed);
        EXPECT_EQ(hulFloatHandle, floating);
        EXPECT_EQ(freeMemory(), free);
        EXPECT_EQ(std::memcmp(stSegTable, table.data(), table.size()), 0);
    }

    static void expectCreated(TSegInfoFromApp request, U32 handle)
    {
        EXPECT_EQ(MM_CreateSegment(&request), U32(ENOERR));
        EXPECT_EQ(request.hulHandle, handle);
        expectSilence();
    }

    static TSegInfoFromApp typed(const char* name, U8 type, U32 bytes = 0x1000)
    {
        TSegInfoFromApp info = request(name, bytes, 64);
        info.ubType = type;
        return info;
    }

    static std::string numbered(const char* prefix, U32 number) { return prefix + std::to_string(10 + number); }
};

// Checks ----------------------------------------------------------------------------------------------

TEST_F(CreateSegment, ARequestWithEveryFieldWrongReportsTheFirstCheckOnly)
{
    TSegInfoFromApp info = request("$MCT", 0, 0);
    info.ubMap = 3;
    info.ubSegDSType = 2;
    info.ubSemaphore = 2;
    info.ubType = 3;
    expectRefused(info, kBadBlkSize);
}

TEST_F(CreateSegment, ChecksRunInTheirOrder)
{
    std::memcpy(stSegTable[49].stInfoFromApp.aubSegID, "RIP0", 4);
    hulFloatHandle = 49;

    TSegInfoFromApp info = request("$MCT", 0, 0);
    info.ubMap = 3;
    info.ubSegDSType = 2;
    info.ubSemaphore = 2;
    info.ubType = 3;
    expectRefused(info, kBadBlkSize);
    info.ulBlkSize = 1;
    expectRefused(info, kBadMap);
    info.ubMap = 8;
    expectRefused(info, kBadDSType);
    info.ubSegDSType = STACK; // with a map: a later check
    expectRefused(info, kBadSemaphore);
    info.ubSemaphore = YES;
    expectRefused(info, kBadType);
    info.ubType = FLOATALIGN; // of size 0: a later check
    expectRefused(info, kMct);
    std::memcpy(info.aubSegID, "RIP0", 4); // in use: a later check
    expectRefused(info, kStackWithMap);
    info.ubMap = 0;
    expectRefused(info, kSameID);
    info.aubSegID[3] = '1';
    expectRefused(info, kNoSize);
    info.ulSegSize = 64;
    expectRefused(info, kNoFloat);
    hulFloatHandle = 48;
    expectCreated(info, 48);
}

TEST_F(CreateSegment, MapWidthsAre0To8InPowersOfTwo)
{
    U32 handle = 5;
    for (U32 map = 0; map <= 255; ++map) {
        TSegInfoFromApp info = request(std::to_string(map).c_str(), 0x1000, 64);
        info.ubMap = static_cast<U8>(map);
        if (map == 0 || map == 1 || map == 2 || map == 4 || map == 8)
            expectCreated(info, handle++);
        else
            expectRefused(info, kBadMap);
    }
}

TEST_F(CreateSegment, DisciplineSemaphoreAndTypeEndAtTheirLastValue)
{
    for (const U8 value : {2, 3, 255}) {
        TSegInfoFromApp info = request("RIP0", 0x1000, 64);
        info.ubSegDSType = value;
        expectRefused(info, kBadDSType);
        info.ubSegDSType = LINKEDLIST;
        info.ubSemaphore = value;
        expectRefused(info, kBadSemaphore);
    }
    for (const U8 type : {3, 4, 255})
        expectRefused(typed("RIP0", type), kBadType);
    expectCreated(typed("RIP0", FLOATALIGN), 5);
}

TEST_F(CreateSegment, AStackTakesNoMapAndABlockSegmentNeedsNone)
{
    for (const U8 map : {1, 2, 4, 8}) {
        TSegInfoFromApp info = request("RIP0", 0x1000, 64);
        info.ubSegDSType = STACK;
        info.ubMap = map;
        expectRefused(info, kStackWithMap);
    }
    EXPECT_EQ(createStack("STK0", 0x1000, 64), 5u);
    EXPECT_EQ(createBlocks("RIP0", 0x1000, 64, 0), 6u);
    expectSilence();
}

TEST_F(CreateSegment, MctIsRefusedWhateverTheType)
{
    for (const U8 type : {FIXED, FLOAT, FLOATALIGN})
        expectRefused(typed("$MCT", type), kMct);
    expectRefused(typed("$MCT", FLOAT, 0), kMct);
}

TEST_F(CreateSegment, OtherFixedNamesAreFreeToEveryType)
{
    expectCreated(typed("$JCB", FLOAT), 5);
    expectCreated(typed("$RJL", FLOATALIGN), 6);
    expectCreated(typed("$UEV", FIXED), 0);
}

TEST_F(CreateSegment, ANameInUseIsRefusedWhateverTheType)
{
    expectCreated(typed("RIP0", FLOAT), 5);
    for (const U8 type : {FIXED, FLOAT, FLOATALIGN})
        expectRefused(typed("RIP0", type), kSameID);
    expectRefused(typed("RIP0", FLOAT, 0), kSameID);
}

TEST_F(CreateSegment, NamesAreLookedForInAllFiftyEntries)
{
    for (TMMSegInfo& entry : stSegTable)
        std::memcpy(entry.stInfoFromApp.aubSegID, "else", 4);
    for (const U32 handle : {0u, 4u, 5u, 48u, 49u}) {
        std::memcpy(stSegTable[handle].stInfoFromApp.aubSegID, "RIP0", 4);
        expectRefused(typed("RIP0", FLOAT), kSameID);
        std::memcpy(stSegTable[handle].stInfoFromApp.aubSegID, "else", 4);
    }
    expectCreated(typed("RIP0", FLOAT), 5);
}

TEST_F(CreateSegment, ANameOfNulsIsThatOfEveryUnusedEntry)
{
    expectRefused(typed("\0\0\0\0", FLOAT), kSameID);
    TSegInfoFromApp info = typed("", FLOAT);
    std::memcpy(info.aubSegID, "\0abc", 4); // a NUL ends the comparison
    expectRefused(info, kSameID);
}

TEST_F(CreateSegment, ANulEndsTheComparisonOfNames)
{
    TSegInfoFromApp info = typed("A", FLOAT);
    std::memcpy(info.aubSegID, "A\0bc", 4);
    expectCreated(info, 5);
    std::memcpy(info.aubSegID, "A\0xy", 4);
    expectRefused(info, kSameID);
    std::memcpy(info.aubSegID, "AB\0\0", 4);
    expectCreated(info, 6);
}

// Handles ---------------------------------------------------------------------------------------------

TEST_F(CreateSegment, FixedSegmentsTakeHandles0To4AndASixthIsRefused)
{
    MM_DeleteSegment(id("$MCT"));
    MM_AddSegment(id("$NEW"), 0x1000, at(0x95100000));
    U32 handle = 0;
    for (const char* name : {"$FIL", "$NEW", "$UEV", "$RJL", "$JCB"})
        expectCreated(typed(name, FIXED), handle++);
    expectRefused(typed("$SIX", FIXED), kNoFixed);
    expectCreated(typed("RIP0", FLOAT), 5); // floats go on
}

TEST_F(CreateSegment, FloatSegmentsTakeHandles5To48AndA45thIsRefused)
{
    for (U32 i = 0; i < 44; ++i)
        expectCreated(typed(numbered("S", i).c_str(), i % 2 == 0 ? FLOAT : FLOATALIGN), 5 + i);
    expectRefused(typed("LAST", FLOAT), kNoFloat);
    expectRefused(typed("LAST", FLOATALIGN), kNoFloat);
    expectCreated(typed("$JCB", FIXED), 0); // fixed ones and the heap go on
    expectCreated(typed("HEAP", FLOAT, 0), 49);
}

TEST_F(CreateSegment, TheHeapTakesNoFloatHandle)
{
    expectCreated(typed("RIP0", FLOAT), 5);
    hulFloatHandle = 6;
    expectCreated(typed("HEAP", FLOAT, 0), 49);
    EXPECT_EQ(hulFloatHandle, 6u);
}

TEST_F(CreateSegment, AnAlignedSegmentOfSize0IsRefused)
{
    expectRefused(typed("RIP0", FLOATALIGN, 0), kNoSize);
}

TEST_F(CreateSegment, ASecondHeapIsKeptOutByItsNameOnly)
{
    expectCreated(typed("HEAP", FLOAT, 0), 49);
    expectRefused(typed("HEAP", FLOAT, 0), kSameID);

    const TMMSegInfo before = stSegTable[49];
    TSegInfoFromApp other = typed("HEA2", FLOAT, 0);
    EXPECT_EQ(MM_CreateSegment(&other), U32(EASSERT));
    EXPECT_EQ(log(), Lines{check(R"(pstSegBlkHead != NULL && "There is no available Segment list")", "mm/MM_MST",
                                 "MM_InstallSegment")});
    EXPECT_EQ(std::memcmp(&stSegTable[49], &before, sizeof before), 0);
}

TEST_F(CreateSegment, AHandleTakenByAFailedPlacementIsLost)
{
    const TSegInfoFromApp tooLarge = typed("BIG0", FLOAT, 0x40000000);
    TSegInfoFromApp info = tooLarge;
    EXPECT_EQ(MM_CreateSegment(&info), U32(EASSERT));
    EXPECT_EQ(log(), Lines{noRoom()});
    EXPECT_EQ(std::memcmp(&info, &tooLarge, sizeof info), 0);
    expectCreated(typed("BIG0", FLOAT), 6);

    info = typed("$NIL", FIXED);
    EXPECT_EQ(MM_CreateSegment(&info), U32(EERR));
    EXPECT_EQ(log(), Lines{check(R"(0 && "Can't find such ID in MCT")", "mm/MM_MCT", "MM_ReadSegOnMCT")});
    expectCreated(typed("$JCB", FIXED), 1);
    EXPECT_TRUE(isFilled(MM_Addr(&stSegTable[0]), 0, 80));
    EXPECT_TRUE(isFilled(MM_Addr(&stSegTable[5]), 0, 80));
}

TEST_F(CreateSegment, FailedPlacementsUseAllHandlesUp)
{
    for (U32 i = 0; i < 44; ++i) {
        TSegInfoFromApp info = typed("BIG0", FLOAT, 0x40000000);
        EXPECT_EQ(MM_CreateSegment(&info), U32(EASSERT));
        EXPECT_EQ(log(), Lines{noRoom()});
    }
    expectRefused(typed("RIP0", FLOAT), kNoFloat);

    for (U32 i = 0; i < 5; ++i) {
        TSegInfoFromApp info = typed("$NIL", FIXED);
        EXPECT_EQ(MM_CreateSegment(&info), U32(EERR));
    }
    log();
    expectRefused(typed("$JCB", FIXED), kNoFixed);
}

// What goes back --------------------------------------------------------------------------------------

// 1001 bytes become 1004, which hold 15 blocks of 64.
TEST_F(CreateSegment, OnSuccessHandlePlacedSizeAndUsableSizeGoBack)
{
    TSegInfoFromApp info = typed("RIP0", FLOAT, 1001);
    info.ubVM = 7;
    info.ubSemaphore = YES;
    info.hulHandle = 0xAAAAAAAA;
    info.ulRetSegSize = 0xBBBBBBBB;
    info.aubPad[0] = 0xC1;
    info.aubPad[2] = 0xC3;
    TSegInfoFromApp expected = info;
    expected.hulHandle = 5;
    expected.ulSegSize = 1004;
    expected.ulRetSegSize = 15 * 64;

    EXPECT_EQ(MM_CreateSegment(&info), U32(ENOERR));
    EXPECT_EQ(std::memcmp(&info, &expected, sizeof info), 0);
    EXPECT_EQ(std::memcmp(&stSegTable[5].stInfoFromApp, &expected, sizeof info), 0);
    expectSilence();
}

TEST_F(CreateSegment, AMapIsTakenOffTheUsableSize)
{
    TSegInfoFromApp info = typed("RIP0", FLOAT, 4096);
    info.ubMap = 8;
    EXPECT_EQ(MM_CreateSegment(&info), U32(ENOERR));
    EXPECT_EQ(info.ulSegSize, 4096u);
    EXPECT_EQ(info.ulRetSegSize, 4032u);
}

TEST_F(CreateSegment, AFixedSegmentsSizeComesFromTheTable)
{
    TSegInfoFromApp info = typed("$JCB", FIXED, 12);
    EXPECT_EQ(MM_CreateSegment(&info), U32(ENOERR));
    EXPECT_EQ(info.ulSegSize, 65536u);
    EXPECT_EQ(info.ulRetSegSize, 65536u);
    info = typed("$UEV", FIXED, 0);
    EXPECT_EQ(MM_CreateSegment(&info), U32(ENOERR));
    EXPECT_EQ(info.hulHandle, 1u);
    EXPECT_EQ(info.ulSegSize, 1048576u);
}

TEST_F(CreateSegment, AnAlignedSegmentKeepsItsSize)
{
    TSegInfoFromApp info = typed("RIP0", FLOATALIGN, 1001);
    EXPECT_EQ(MM_CreateSegment(&info), U32(ENOERR));
    EXPECT_EQ(info.ulSegSize, 1001u);
    EXPECT_EQ(info.ulRetSegSize, 960u);
}

TEST_F(CreateSegment, TheHeapsSizeIsWhatWasLeft)
{
    createBlocks("RIP0", 0x1000, 64);
    TSegInfoFromApp info = typed("HEAP", FLOAT, 0);
    EXPECT_EQ(MM_CreateSegment(&info), U32(ENOERR));
    EXPECT_EQ(info.hulHandle, 49u);
    EXPECT_EQ(info.ulSegSize, 0x08BED000u); // 0x08BEE000 - 0x1000
    EXPECT_EQ(info.ulRetSegSize, 0x08BED000u);
}

// Placement finds no stretch that is large enough for a piece: the list ends up empty, initialisation reports it, and
// creation succeeds all the same.
TEST_F(CreateSegment, AHeapWithoutPiecesIsReportedAndSucceeds)
{
    setFreeMemory({{kFloatStart, 128}});
    TSegInfoFromApp info = typed("HEAP", FLOAT, 0);
    EXPECT_EQ(MM_CreateSegment(&info), U32(ENOERR));
    EXPECT_EQ(log(), Lines{check(R"(pstSegBlkHead != NULL && "There is no available Segment list")",
                                 "mm/MM_InitSegment", "MM_SegInitial")});
    EXPECT_EQ(info.hulHandle, 49u);
    EXPECT_EQ(info.ulSegSize, 0u);
    EXPECT_EQ(info.ulRetSegSize, 0u);
    EXPECT_TRUE(isFilled(MM_Addr(&stSegTable[49]), 0, 80)); // not stored
    EXPECT_EQ(freeMemory(), std::vector<FreeNode>{});
}

TEST_F(CreateSegment, AnEntryBeginsWithoutTracesOfItsPredecessor)
{
    std::memset(&stSegTable[5], 0xEE, sizeof stSegTable[5]);
    expectCreated(typed("RIP0", FLOAT), 5);
    EXPECT_EQ(stSegTable[5].ulSemID, 0u);
    EXPECT_EQ(stSegTable[5].pubMapStartAddr, nullptr);
    EXPECT_EQ(stSegTable[5].pubMapEndAddr, nullptr);
    EXPECT_EQ(stSegTable[5].ulTotalAllocBlkNum, 0u);
    EXPECT_TRUE(isFilled(MM_Addr(stSegTable[5].aubPad), 0, 3));
}

TEST_F(CreateSegment, CreationTakesNoLock)
{
    TSegInfoFromApp info = typed("RIP0", FLOAT);
    info.ubSemaphore = YES;
    expectCreated(info, 5);
    EXPECT_EQ(machine().lockTakes(), 0u);
}

} // namespace
} // namespace velmora::test
