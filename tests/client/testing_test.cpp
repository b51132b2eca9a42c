// The test kit, tested with itself.
#include <gtest/gtest-spi.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include <velmora/testing.hpp>

namespace velmora::test {
namespace {

class Kit : public testing::ControllerTest
{
protected:
    Segment create(std::uint8_t bits = 8)
    {
        return Segment::create(device(), {.name = "PAGE", .bytes = 0x10000, .ownerBits = bits});
    }
};

TEST_F(Kit, TheNthCommandFails)
{
    const Segment segment = create();
    failNth(MM_CMD_MALLOC, 2, MM_EINVASEGSIZE);
    EXPECT_TRUE(segment.allocate(1, Owner{3}));
    EXPECT_FALSE(segment.allocate(1, Owner{3}));
    EXPECT_TRUE(segment.allocate(1, Owner{3}));
    failNth(MM_CMD_GET_MST, 0, -EFAULT);
    EXPECT_THROW(segments(device()), Error);
    forgetFaults();
    EXPECT_EQ(segments(device()).size(), 1u);
}

TEST_F(Kit, MapsAndOpensFail)
{
    const Block block = create().allocate(1, Owner{3}).value();
    failNthMap(1, -ENOMEM);
    EXPECT_THROW(block.map(), Error);
    EXPECT_NO_THROW(block.map());
    failNthOpen(1, -EBUSY);
    EXPECT_THROW(openAgain(), std::system_error);
    EXPECT_NO_THROW(openAgain());
}

TEST_F(Kit, UnderPressureASegmentHasWhatIsLeft)
{
    const Segment segment = create();
    const Block held = segment.allocate(0x1000, Owner{3}).value();
    {
        const testing::MemoryPressure pressure(segment, 0x2000, Owner{5});
        EXPECT_EQ(fragmentation(segment).freeBytes, 0x2000u);
        EXPECT_FALSE(segment.allocate(0x2001, Owner{3}));
        EXPECT_TRUE(segment.allocate(0x2000, Owner{3}));
    }
    EXPECT_EQ(fragmentation(segment).freeBytes, 0x10000u);
}

TEST_F(Kit, TheLogIsTaken)
{
    EXPECT_TRUE(takeLog().empty());
    EXPECT_THROW(device().allocate(50, 1), Error);
    EXPECT_EQ(takeLog().size(), 1u);
    EXPECT_TRUE(takeLog().empty());
}

TEST_F(Kit, CodeThatOpensTheDeviceByItselfMeetsTheController)
{
    create();
    Device found(openNode());
    EXPECT_TRUE(Segment::find(found, "PAGE"));
}

TEST_F(Kit, TheCodeUnderTestMayUseThreads)
{
    const Segment shared = create();
    std::atomic<int> done = 0, refused = 0;
    const auto work = [&](const Segment& segment, Owner owner) {
        for (int round = 0; round < 100; ++round) {
            const std::optional<Block> block = segment.allocate(0x1000, owner);
            refused += !block;
            if (block)
                block->map().bytes()[0] = static_cast<std::byte>(owner);
        }
        ++done;
    };
    std::vector<std::thread> threads;
    for (const unsigned i : {0u, 1u})
        threads.emplace_back([&, i] { work(shared, ownerIds(8)[i]); });
    for (const unsigned i : {2u, 3u})
        threads.emplace_back([&, i] {
            Device own(openNode());
            work(Segment::find(own, "PAGE").value(), ownerIds(8)[i]);
        });
    // The test's own thread meanwhile.
    for (int round = 0; done != 4; ++round) {
        if (round < 3)
            failNth(MM_CMD_MALLOC, 1, MM_EINVASEGSIZE);
        leaks();
        takeLog();
    }
    for (std::thread& one : threads)
        one.join();
    EXPECT_GT(refused, 0);
    EXPECT_LE(refused, 3);
}

TEST_F(Kit, ALeakIsNamedByOwnerSegmentAndBlocks)
{
    const Segment segment = create(), plain = Segment::create(device(), {.name = "RAW0", .bytes = 1});
    const Segment heap = Segment::create(device(), {.name = "HEAP", .blockBytes = 64, .place = Place::Heap});
    EXPECT_TRUE(leaks().empty());
    const Block one = segment.allocate(0x2800, Owner{15}).value(), two = plain.allocate(1).value(),
                three = heap.allocate(130).value();
    EXPECT_EQ(leaks(), (std::vector<std::string>{
                           "segment PAGE: owner 15 holds 3 blocks of 4096 bytes at 0x95321000",
                           "segment RAW0: 1 blocks of 4096 bytes are allocated for no owner",
                           "the heap: 3 blocks of 64 bytes are allocated between 0x95326000 and 0x9df00000"}));
}

// A test of the user's own that forgets something; run by hand, so that its failures can be looked at.
class Forgetful : public testing::ControllerTest
{
public:
    explicit Forgetful(bool allowed = false)
    {
        const Segment segment = Segment::create(device(), {.name = "PAGE", .bytes = 1, .ownerBits = 8});
        segment.allocate(1, Owner{3})->detach();
        if (allowed)
            allowLeaks();
    }
    void TestBody() override {}
};

TEST(KitLeakCheck, FailsTheTestThatLeaks)
{
    EXPECT_NONFATAL_FAILURE({ Forgetful test; },
                            "leaked: segment PAGE: owner 3 holds 1 blocks of 4096 bytes at 0x95314000");
    EXPECT_EQ(std::getenv("VELMORA_MM_DEVICE"), nullptr);
}

TEST(KitLeakCheck, IsSilentWhereLeaksAreAllowed)
{
    const Forgetful test(true);
}

class Mortal : public testing::ControllerTest
{
public:
    Mortal() { controller().stop(); }
    void TestBody() override {}
};

TEST(KitLeakCheck, SaysWhenTheControllerWasGone)
{
    EXPECT_NONFATAL_FAILURE({ Mortal test; }, "no leak could be looked for");
}

} // namespace
} // namespace velmora::test
