// How a program that uses the memory manager tests itself: each test has a controller of its own.
#include <cerrno>
#include <vector>

#include <velmora/testing.hpp>

namespace {

// The program's code under test: bands of a page, all or none.
std::vector<velmora::Block> storePage(const velmora::Segment& segment, velmora::Owner page, int bands)
{
    std::vector<velmora::Block> stored;
    for (int band = 0; band < bands; ++band) {
        auto block = segment.allocate(65536, page);
        if (!block)
            return {}; // the bands before go with the vector
        block->map().bytes()[0] = static_cast<std::byte>(band);
        stored.push_back(std::move(*block));
    }
    return stored;
}

class PageStore : public velmora::testing::ControllerTest
{
protected:
    const velmora::Segment pages =
        velmora::Segment::create(device(), {.name = "PAGE", .bytes = 1 << 20, .blockBytes = 4096, .ownerBits = 8});
    const velmora::Owner page = velmora::ownerIds(8)[0];
};

TEST_F(PageStore, APageThatDoesNotFitLeavesNothingBehind)
{
    const velmora::testing::MemoryPressure pressure(pages, 3 * 65536, velmora::ownerIds(8)[1]);
    EXPECT_TRUE(storePage(pages, page, 4).empty());
    EXPECT_EQ(storePage(pages, page, 3).size(), 3u);
}

TEST_F(PageStore, NoRoomAtTheThirdBandIsNoRoomForThePage)
{
    failNth(MM_CMD_MALLOC, 3, MM_EINVASEGSIZE);
    EXPECT_TRUE(storePage(pages, page, 4).empty());
}

TEST_F(PageStore, AMappingThatFailsThrowsAndLeavesNothingBehind)
{
    failNthMap(2, -ENOMEM);
    EXPECT_THROW(storePage(pages, page, 4), velmora::Error);
}

TEST_F(PageStore, NothingIsSaidOnTheKernelLog)
{
    storePage(pages, page, 4);
    EXPECT_TRUE(takeLog().empty());
}

} // namespace
