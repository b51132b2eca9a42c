// The raw layer: that the traps which its comments and the application guide name are there.
#include "client/safe_fixture.hpp"

#include <cstring>

namespace velmora::test {
namespace {

class Raw : public Safe
{
protected:
    void fill(MM_TAddr address, std::size_t bytes)
    {
        std::memset(device.map(address, bytes).bytes().data(), 0x77, bytes);
    }
    std::byte at(MM_TAddr address) { return device.map(address, 1).bytes()[0]; }
};

TEST_F(Raw, ABlockBelowSixteenBytesIsWrittenIntoByTheReleaseOfItsNeighbour)
{
    device.createSegment({.name = "TINY", .bytes = 0x1000, .blockBytes = 8});
    const MM_TAddr upper = device.allocate(5, 8).value(), lower = device.allocate(5, 8).value();
    device.allocate(5, 8); // so that the lower one does not join the free run below
    ASSERT_EQ(lower + 8, upper);
    fill(upper, 8);
    device.release(5, lower, 8);
    EXPECT_EQ(at(upper), std::byte{1}); // the length of the free run, in blocks
    EXPECT_EQ(at(upper + 4), std::byte{0x77});
}

TEST_F(Raw, TheLastBlockOfASizeThatIsNoPowerOfTwoReachesOutOfItsSegment)
{
    device.createSegment({.name = "ODD0", .bytes = 28672, .blockBytes = 3000}); // 14 times 2048
    const MM_TAddr last = device.allocate(5, 1).value();
    EXPECT_GT(last + 2048, device.segment(5).value().pubEndAddr);
}

TEST_F(Raw, ASegmentGivesLessThanItWasAskedFor)
{
    const MM_TSegInfoFromApp made =
        device.createSegment({.name = "MAP0", .bytes = 0x10000, .blockBytes = 0x1000, .mapBits = 8});
    EXPECT_EQ(made.ulRetSegSize, 0xF000u);
}

TEST_F(Raw, TheEndOfASegmentCountsAsInside)
{
    device.createSegment({.name = "BLK0", .bytes = 0x10000, .blockBytes = 0x1000});
    device.createSegment({.name = "HEAP", .blockBytes = 0x1000});
    const MM_TAddr end = device.segment(5).value().pubEndAddr;
    EXPECT_EQ(end, 0x95322000u); // the heap's first byte
    EXPECT_TRUE(device.contains(5, end));
}

TEST_F(Raw, ACleanUpTakesEveryIdThatContainsTheOwners)
{
    device.createSegment({.name = "BLK0", .bytes = 0x10000, .blockBytes = 0x1000, .mapBits = 8});
    for (const std::uint8_t owner : {1, 3, 5, 2, 6})
        EXPECT_TRUE(device.allocate(5, 1, owner));
    device.collectGarbage(5, 1);
    EXPECT_EQ(allocated(Handle{5}), 2u);
}

TEST_F(Raw, AWrongReleaseIsAnsweredWithSuccess)
{
    device.createSegment({.name = "STK0", .bytes = 0x10000, .discipline = MM_STACK, .locked = false});
    const MM_TAddr first = device.allocate(5, 1).value();
    EXPECT_TRUE(device.allocate(5, 1));
    EXPECT_NO_THROW(device.release(5, first, 1));
    EXPECT_EQ(allocated(Handle{5}), 2u);
}

TEST_F(Raw, ASecondReleaseInASegmentWithALockEndsWithTheControllerStandingStill)
{
    device.createSegment({.name = "BLK0", .bytes = 0x10000, .blockBytes = 0x1000});
    const MM_TAddr block = device.allocate(5, 1).value();
    const MM_TAddr other = device.allocate(5, 1).value();
    const MM_TAddr third = device.allocate(5, 1).value();
    device.release(5, other, 1);
    EXPECT_NO_THROW(device.release(5, other, 1));
    EXPECT_THROW(device.release(5, third, 1), ConnectionError);
    EXPECT_NE(block, third);
}

TEST_F(Raw, AfterAStartAddressesAreGivenOutAnewUnderOldViews)
{
    const SegmentRequest request{.name = "BLK0", .bytes = 0x10000, .blockBytes = 0x1000};
    device.createSegment(request);
    const MM_TAddr before = device.allocate(5, 1).value();
    const Mapping view = device.map(before, 1);
    Device other(controller.open());
    other.startLibrary(MM_SM_BKUP_OK);
    other.createSegment(request);
    EXPECT_EQ(other.allocate(5, 1), before);
    other.fill(before, 0x11, 1);
    EXPECT_EQ(view.bytes()[0], std::byte{0x11});
}

TEST_F(Raw, AStartThatIsRefusedHasForgottenTheSegments)
{
    device.createSegment({.name = "BLK0", .bytes = 0x10000});
    EXPECT_THROW(device.startLibrary(MM_SM_FM_MBR_OK), Error);
    EXPECT_TRUE(segments(device).empty());
}

TEST_F(Raw, ACreationThatFailsUsesUpItsHandle)
{
    EXPECT_THROW(device.createSegment({.name = "HUGE", .bytes = 0x70000000}), Error);
    EXPECT_EQ(device.createSegment({.name = "BLK0", .bytes = 0x10000}).hulHandle, 6u);
}

TEST_F(Raw, NewMemoryHasWhatWasInItBefore)
{
    device.createSegment({.name = "BLK0", .bytes = 0x10000, .blockBytes = 0x1000});
    const MM_TAddr block = device.allocate(5, 0x1000).value();
    fill(block, 0x1000);
    device.release(5, block, 0x1000);
    ASSERT_EQ(device.allocate(5, 0x1000), block);
    EXPECT_EQ(at(block + 12), std::byte{0x77});
}

} // namespace
} // namespace velmora::test
