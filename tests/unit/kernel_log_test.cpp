// The controller's kernel log, and those who read it.
#include <gtest/gtest.h>

#include "controller/kernel_log.h"

namespace velmora::test {
namespace {

using sim::KernelLog;
using sim::LogReader;

TEST(KernelLog, MessagesAreNumberedFromZero)
{
    KernelLog log;
    EXPECT_EQ(log.end(), 0u);
    log.append("one");
    log.append("two");
    EXPECT_EQ(log.first(), 0u);
    EXPECT_EQ(log.end(), 2u);
    EXPECT_EQ(log.at(1), "two");
}

TEST(KernelLog, TheOldestMessagesGiveWay)
{
    KernelLog log(3 * (64 + 4)); // a message costs 64 bytes beside its text
    for (const char* text : {"0000", "1111", "2222", "3333", "4444"})
        log.append(text);
    EXPECT_EQ(log.first(), 2u);
    EXPECT_EQ(log.end(), 5u);
    EXPECT_EQ(log.at(2), "2222");
}

TEST(KernelLog, AMessageLargerThanTheLogIsKeptAlone)
{
    KernelLog log(100);
    log.append("one");
    log.append(std::string(1000, 'x'));
    EXPECT_EQ(log.first(), 1u);
    EXPECT_EQ(log.at(1).size(), 1000u);
}

TEST(KernelLog, AReaderThatFallsBehindIsToldHowManyMessagesItMissed)
{
    KernelLog log(2 * (64 + 4));
    LogReader reader;
    std::uint64_t lost = 9;
    EXPECT_FALSE(reader.behind(log));
    log.append("0000");
    EXPECT_TRUE(reader.behind(log));
    EXPECT_EQ(reader.next(log, lost), 0u);
    EXPECT_EQ(lost, 0u);
    reader.took(0);
    EXPECT_FALSE(reader.behind(log));
    for (const char* text : {"1111", "2222", "3333", "4444"})
        log.append(text);
    EXPECT_EQ(reader.next(log, lost), 3u);
    EXPECT_EQ(lost, 2u); // 1 and 2
}

} // namespace
} // namespace velmora::test
