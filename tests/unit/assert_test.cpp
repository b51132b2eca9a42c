// A failed check's line on the kernel log: the condition as it is written, the source, the function, the line.
#include "support/manager_fixture.h"

namespace velmora::test {
namespace {

class Assert : public ManagerTest
{
};

U32 failCondition(U32 value)
{
    MM_ASSERT((value > 3) && "Too small: \\ \"%s\"", EASSERT);
    return ENOERR;
}
constexpr int kConditionLine = __LINE__ - 3;

U32 failMessage(U32 value)
{
    MM_ASSERT_MESSAGE(value > 3, "value is too small.", MM_FAILED);
    return ENOERR;
}
constexpr int kMessageLine = __LINE__ - 3;

U32 failSilently(U32 value)
{
    MM_ASSERT_SILENT(value > 3, MM_FAILED);
    return ENOERR;
}
constexpr int kSilentLine = __LINE__ - 3;

std::string place(const char* function, int line)
{
    return std::string(MM_SourcePath(__FILE__)) + "," + function + ",line=" + std::to_string(line) + "\n";
}

TEST_F(Assert, AConditionIsPrintedAsItIsWritten)
{
    EXPECT_EQ(failCondition(3), U32(EASSERT));
    EXPECT_EQ(machine().takeLog(), Lines{"Assertion failed! (value > 3) && \"Too small: \\\\ \\\"%s\\\"\"," +
                                         place("failCondition", kConditionLine)});
}

TEST_F(Assert, AMessageIsPrintedInPlaceOfTheCondition)
{
    EXPECT_EQ(failMessage(0), 0xFFFFFFFFu);
    EXPECT_EQ(machine().takeLog(),
              Lines{"Assertion failed! value is too small. " + place("failMessage", kMessageLine)});
}

TEST_F(Assert, ACheckWithoutTextPrintsItsPlace)
{
    EXPECT_EQ(failSilently(0), 0xFFFFFFFFu);
    EXPECT_EQ(machine().takeLog(), Lines{"Assertion failed! " + place("failSilently", kSilentLine)});
}

TEST_F(Assert, AHoldingConditionPrintsNothing)
{
    EXPECT_EQ(failCondition(4), U32(ENOERR));
    EXPECT_EQ(failMessage(4), U32(ENOERR));
    EXPECT_EQ(failSilently(4), U32(ENOERR));
    expectSilence();
}

TEST_F(Assert, TheReportsPrintOneLineEach)
{
    MM_ReportAssertion("a < b", "kernel/mm/mm/X.cpp", "MM_X", 7);
    MM_ReportMessage("No.", "kernel/mm/mm/X.cpp", "MM_X", 8);
    MM_ReportPlace("kernel/mm/mm/X.cpp", "MM_X", 9);
    EXPECT_EQ(machine().takeLog(), (Lines{"Assertion failed! a < b,kernel/mm/mm/X.cpp,MM_X,line=7\n",
                                          "Assertion failed! No. kernel/mm/mm/X.cpp,MM_X,line=8\n",
                                          "Assertion failed! kernel/mm/mm/X.cpp,MM_X,line=9\n"}));
}

TEST_F(Assert, TheManagersChecksNameTheirSourceRelativeToTheRepository)
{
    MM_GetBlkBit(0);
    const Lines messages = machine().takeLog();
    ASSERT_EQ(messages.size(), 1u);
    const std::string beginning = "Assertion failed! ulBlkSize > 0,kernel/mm/mm/MM_InitSegment.cpp,MM_GetBlkBit,line=";
    EXPECT_EQ(messages[0].substr(0, beginning.size()), beginning);
    const int line = std::stoi(messages[0].substr(beginning.size()));
    EXPECT_GT(line, 1);
    EXPECT_EQ(messages[0], beginning + std::to_string(line) + "\n");
}

TEST_F(Assert, ASourcePathBeginsAtTheManagersFolder)
{
    EXPECT_STREQ(MM_SourcePath("kernel/mm/mm/MM_Lib.cpp"), "kernel/mm/mm/MM_Lib.cpp");
    EXPECT_STREQ(MM_SourcePath("/home/a/velmora/kernel/mm/mmi/MM_Interface.cpp"), "kernel/mm/mmi/MM_Interface.cpp");
    EXPECT_STREQ(MM_SourcePath("../../kernel/mm/mm/MM_MCT.cpp"), "kernel/mm/mm/MM_MCT.cpp");
    EXPECT_STREQ(MM_SourcePath("/src/kernel/mm/copy/kernel/mm/mm/MM_MST.cpp"), "kernel/mm/mm/MM_MST.cpp");
    EXPECT_STREQ(MM_SourcePath("other.cpp"), "other.cpp");
}

} // namespace
} // namespace velmora::test
