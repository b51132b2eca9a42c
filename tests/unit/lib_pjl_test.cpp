// Printer job language commands on the table of fixed segments.
#include "support/manager_fixture.h"

namespace velmora::test {
namespace {

class Pjl : public ManagerTest
{
protected:
    Pjl()
    {
        start();
        std::memcpy(original, stDefaultMCTTable, sizeof original);
    }

    static U32 run(const char* command, const char* name, U32 bytes = 0, U32 address = 0)
    {
        return MM_ExecPJL(id(command), id(name), bytes, at(address));
    }
    void expectTableUnchanged() const { EXPECT_EQ(std::memcmp(original, stDefaultMCTTable, sizeof original), 0); }

    static void expectZeroOnly(U32 address, U32 bytes)
    {
        EXPECT_TRUE(isFilled(kAreaStart, 0xA5, address - kAreaStart));
        EXPECT_TRUE(isFilled(address, 0, bytes));
        EXPECT_TRUE(isFilled(address + bytes, 0xA5, kAreaStart + kFixedBytes - address - bytes));
    }

    static constexpr U32 kJobControl = kAreaStart + 8192;
    static constexpr U32 kUserEvents = kAreaStart + 73728;
    static constexpr U32 kFiles = kAreaStart + 1122304;
    TMCTInfo original[MAX_MCT_NUM];
};

const std::string kEmptyName(" \0\0\0", 4);

TEST_F(Pjl, FixedAddFillsTheFirstEmptyRow)
{
    ASSERT_EQ(run("FIXEDDELETE", "$FIL"), U32(ENOERR));
    ASSERT_EQ(run("FIXEDDELETE", "$JCB"), U32(ENOERR));
    EXPECT_EQ(run("FIXEDADD", "FONT", 8192, 0x9D000000), U32(ENOERR));
    expectRow(*pstMCTTable[2], "FONT", 8192, 0x9D000000);
    expectRow(*pstMCTTable[4], kEmptyName, 0, 0);
    expectSilence();
}

TEST_F(Pjl, FixedAddWithoutAnEmptyRowIsReportedTwiceAndAnswersNoError)
{
    EXPECT_EQ(run("FIXEDADD", "FONT", 8192, 0x9D000000), U32(ENOERR));
    EXPECT_EQ(log(), (Lines{check("0 && \"Can't find such ID in MCT\"", "mm/MM_MCT", "MM_ReadSegOnMCT"),
                            check("0 && \"There is no more space to add segment\"", "mm/MM_MCT", "MM_AddSegment")}));
    expectTableUnchanged();
}

TEST_F(Pjl, FixedDeleteZeroesTheMemoryAndEmptiesTheRow)
{
    fillFixed();
    EXPECT_EQ(run("FIXEDDELETE", "$UEV", 1, 1), U32(ENOERR));
    expectRow(*pstMCTTable[3], kEmptyName, 0, 0);
    expectZeroOnly(kUserEvents, 1048576);
    expectSilence();
}

TEST_F(Pjl, FixedDeleteOfAnUnknownNameIsReportedAndAnswersNoError)
{
    EXPECT_EQ(run("FIXEDDELETE", "NONE"), U32(ENOERR));
    EXPECT_EQ(log(),
              (Lines{check("(ubResult == TRUE) && \"Can't find such SegmentID\"", "mm/MM_MCT", "MM_DeleteSegment")}));
    expectTableUnchanged();
}

TEST_F(Pjl, ClearSegmentZeroesTheNamedMemoryAndKeepsTheRow)
{
    fillFixed();
    EXPECT_EQ(run("CLEARSEGMENT", "$JCB"), U32(ENOERR));
    expectZeroOnly(kJobControl, 65536);
    expectTableUnchanged();
    expectSilence();
}

TEST_F(Pjl, ClearSegmentOfAllZeroesJobControlAndFiles)
{
    fillFixed();
    EXPECT_EQ(run("CLEARSEGMENT", "$ALL"), U32(ENOERR));
    EXPECT_TRUE(isFilled(kAreaStart, 0xA5, kJobControl - kAreaStart));
    EXPECT_TRUE(isFilled(kJobControl, 0, 65536));
    EXPECT_TRUE(isFilled(kUserEvents, 0xA5, 1048576));
    EXPECT_TRUE(isFilled(kFiles, 0, 1048576));
    expectTableUnchanged();
    expectSilence();
}

TEST_F(Pjl, ClearSegmentOfAnUnknownNameDoesNothing)
{
    fillFixed();
    EXPECT_EQ(run("CLEARSEGMENT", "NONE"), U32(ENOERR));
    EXPECT_TRUE(isFilled(kAreaStart, 0xA5, kFixedBytes));
    expectSilence();
}

TEST_F(Pjl, TablesOwnRowIsProtectedAgainstEveryCommand)
{
    fillFixed();
    for (const char* command : {"FIXEDADD", "FIXEDDELETE", "CLEARSEGMENT", "ANYTHING"})
        for (const char* name : {"$MCT", "$MCT2"}) { // four bytes count
            EXPECT_EQ(run(command, name, 8192, 0x9D000000), 14U);
            EXPECT_EQ(log(), (Lines{check("strncmp(aubCFGID, (U8*)\"$MCT\", 4) && \"MCT can't be modified\"",
                                          "mm/MM_Lib", "MM_ExecPJL")}));
        }
    expectTableUnchanged();
    EXPECT_TRUE(isFilled(kAreaStart, 0xA5, kFixedBytes));
}

TEST_F(Pjl, NullCommandIsRefusedBeforeTheNameIsLookedAt)
{
    EXPECT_EQ(MM_ExecPJL(nullptr, id("$MCT"), 0, nullptr), 14U);
    EXPECT_EQ(log(), (Lines{check("pubCommand != NULL && \"pubCommand is NULL. Can't execute function\"", "mm/MM_Lib",
                                  "MM_ExecPJL")}));
    expectTableUnchanged();
}

TEST_F(Pjl, UnknownWordsAreIgnored)
{
    fillFixed();
    for (const char* command :
         {"", "FIXED", "FIXEDAD", "FIXEDDELET", "CLEARSEGMEN", "fixeddelete", " FIXEDDELETE", "DELETE"}) {
        EXPECT_EQ(run(command, "$JCB", 8192, 0x9D000000), U32(ENOERR)) << command;
        expectSilence();
    }
    expectTableUnchanged();
    EXPECT_TRUE(isFilled(kAreaStart, 0xA5, kFixedBytes));
}

TEST_F(Pjl, WordThatOnlyBeginsWithACommandActsAsIt)
{
    EXPECT_EQ(run("FIXEDDELETED", "$FIL"), U32(ENOERR));
    expectRow(*pstMCTTable[4], kEmptyName, 0, 0);
    EXPECT_EQ(run("FIXEDADDITION", "FONT", 4, 8), U32(ENOERR));
    expectRow(*pstMCTTable[4], "FONT", 4, 8);
    fillFixed();
    EXPECT_EQ(run("CLEARSEGMENTS", "$JCB"), U32(ENOERR));
    expectZeroOnly(kJobControl, 65536);
    expectSilence();
}

} // namespace
} // namespace velmora::test
