// Codes and the exception that carries them.
#include <gtest/gtest.h>

#include <cerrno>

#include <velmora/device.hpp>

namespace velmora::test {
namespace {

TEST(ErrorCode, TheManagersTheKernelsAndTheLibrarysAreThreeCategories)
{
    EXPECT_EQ(codeOf(0), std::error_code());
    EXPECT_EQ(codeOf(MM_EASSERT), std::error_code(14, managerCategory()));
    EXPECT_EQ(codeOf(-EACCES), std::errc::permission_denied);
    EXPECT_EQ(codeOf(111), Errc::NotHeld);
    EXPECT_NE(codeOf(MM_ESEGMENT), std::errc::invalid_argument); // 22, EINVAL's number
    for (const int result : {0, 4, 14, 23, 100, 114, -1, -22})
        EXPECT_EQ(resultOf(codeOf(result)), result);
}

TEST(ErrorCode, CodesThatMeanTheSameCompareAsConditions)
{
    EXPECT_EQ(codeOf(MM_EINVASEGSIZE), std::errc::not_enough_memory);
    EXPECT_EQ(make_error_code(Errc::NoRoom), std::errc::not_enough_memory);
    EXPECT_EQ(make_error_code(Errc::BadOwner), std::errc::invalid_argument);
    EXPECT_NE(make_error_code(Errc::NotHeld), std::errc::invalid_argument);
}

TEST(ErrorCode, EveryCodeHasANameAndASentence)
{
    EXPECT_EQ(codeOf(14).message(), "the manager answered 14 (EASSERT): the kernel log names the check that failed");
    EXPECT_EQ(codeOf(24).message(), "the manager answered 24");
    EXPECT_EQ(codeOf(-ENOTTY).message(), "Inappropriate ioctl for device");
    EXPECT_EQ(codeName(100), "NoRoom");
    EXPECT_EQ(codeName(114), "HeapUnsafe");
    EXPECT_EQ(codeName(115), "115");
    for (int code = 100; code <= 114; ++code)
        EXPECT_GT(codeOf(code).message().size(), 5u);
}

TEST(ErrorException, SaysWhichCommandWasAnsweredWhat)
{
    const Error refused("MM_CMD_FREE", MM_EASSERT);
    EXPECT_EQ(refused.command(), "MM_CMD_FREE");
    EXPECT_EQ(refused.code(), codeOf(14));
    EXPECT_EQ(refused.result(), 14);
    const Error own("Segment::find", Errc::BadName, "'FIVE5'");
    EXPECT_STREQ(own.what(), "Segment::find: a segment name has one to four characters: 'FIVE5'");
    EXPECT_EQ(own.code(), Errc::BadName);
    EXPECT_EQ(own.result(), 103);
    const ConnectionError gone(-EPIPE, "the controller is gone");
    EXPECT_EQ(gone.code(), std::errc::broken_pipe);
    EXPECT_EQ(gone.command(), "");
}

TEST(ErrorOpening, AMissingNodeIsACode)
{
    std::error_code error;
    EXPECT_EQ(openNode("/nonexistent/node", error), nullptr);
    EXPECT_EQ(error, std::errc::no_such_file_or_directory);
    EXPECT_EQ(openNode("unix:/nonexistent/socket", error), nullptr);
    EXPECT_EQ(error, std::errc::no_such_file_or_directory);
    EXPECT_NE(openNode("/dev/null", error), nullptr);
    EXPECT_FALSE(error);
}

} // namespace
} // namespace velmora::test
