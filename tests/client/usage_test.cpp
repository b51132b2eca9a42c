// Who has how much.
#include "client/safe_fixture.hpp"

namespace velmora::test {
namespace {

using Owners = std::vector<OwnerUsage>;
using Runs = std::vector<FreeRun>;

// 17 blocks from 0x95313000 to 0x95324000, see segment_test.cpp.
class Usage : public Safe
{
protected:
    Segment segment = Segment::create(device, {.name = "PAGE", .bytes = 0x10000, .blockBytes = 0x1000, .ownerBits = 8});
};

TEST_F(Usage, SegmentsAreAsTheTableHasThem)
{
    Segment::create(device, {.name = "$JCB", .blockBytes = 1024, .place = Place::Fixed});
    const Block block = segment.allocate(0x2800, Owner{3}).value();
    const auto all = segments(device);
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].name, "$JCB");
    EXPECT_EQ(all[0].place, Place::Fixed);
    EXPECT_EQ(all[0].ownerBits, 0u);
    const SegmentUsage& page = all[1];
    EXPECT_EQ(page.name, "PAGE");
    EXPECT_EQ(page.handle, Handle{5});
    EXPECT_EQ(page.place, Place::Float);
    EXPECT_EQ(page.discipline, Discipline::Blocks);
    EXPECT_EQ(page.blockBytes, 0x1000u);
    EXPECT_EQ(page.blockStride, 0x1000u);
    EXPECT_EQ(page.ownerBits, 8u);
    EXPECT_TRUE(page.locked);
    EXPECT_FALSE(page.managerOverflows);
    EXPECT_EQ(page.start, 0x95313000u);
    EXPECT_EQ(page.end, 0x95324000u);
    EXPECT_EQ(page.blocks, 17u);
    EXPECT_EQ(page.freeBlocks, 14u);
    EXPECT_EQ(page.longestRun, 14u);
    EXPECT_FALSE(page.usable);
}

TEST_F(Usage, OwnersRunsAndFragmentationFollowTheOwnerMap)
{
    EXPECT_EQ(owners(segment), (Owners{}));
    EXPECT_EQ(freeRuns(segment), (Runs{{0x95313000, 17}}));
    const Block a = segment.allocate(0x2000, Owner{3}).value();  // 0x95322000
    std::optional<Block> b = segment.allocate(0x3000, Owner{5}); // 0x9531F000
    const Block c = segment.allocate(0x1000, Owner{3}).value();  // 0x9531E000
    EXPECT_EQ(owners(segment), (Owners{{Owner{3}, 3}, {Owner{5}, 3}}));
    EXPECT_EQ(freeRuns(segment), (Runs{{0x95313000, 11}}));
    EXPECT_EQ(ownedRuns(segment),
              (std::vector<OwnedRun>{{Owner{3}, 0x9531E000, 1}, {Owner{5}, 0x9531F000, 3}, {Owner{3}, 0x95322000, 2}}));
    EXPECT_EQ(fragmentation(segment).ratio, 0);
    b.reset();
    EXPECT_EQ(owners(segment), (Owners{{Owner{3}, 3}}));
    EXPECT_EQ(freeRuns(segment), (Runs{{0x95313000, 11}, {0x9531F000, 3}}));
    const Fragmentation now = fragmentation(segment);
    EXPECT_EQ(now.freeBytes, 0xE000u);
    EXPECT_EQ(now.longestBytes, 0xB000u);
    EXPECT_DOUBLE_EQ(now.ratio, 1 - 11.0 / 14);
}

TEST_F(Usage, EveryWidthOfMapIsReadRight)
{
    for (const std::uint8_t bits : {1, 2, 4, 8}) {
        const Segment made = Segment::create(
            device, {.name = "MAP" + std::to_string(bits), .bytes = 100 * 64, .blockBytes = 64, .ownerBits = bits});
        std::vector<Block> blocks;
        const auto ids = ownerIds(bits);
        for (std::size_t i = 0; i < 30; ++i)
            blocks.push_back(made.allocate(64 * (1 + i % 3), ids[i % ids.size()]).value());
        Owners expected;
        for (std::size_t k = 0; k < ids.size() && k < 30; ++k) {
            std::uint32_t held = 0;
            for (std::size_t i = k; i < 30; i += ids.size())
                held += 1 + i % 3;
            expected.push_back({ids[k], held});
        }
        EXPECT_EQ(owners(made), expected);
        const std::uint32_t blocksInUse = 60;
        EXPECT_EQ(freeRuns(made).at(0).blocks, *made.bytes() / 64 - blocksInUse);
    }
}

TEST_F(Usage, WhatNobodyRecordsIsSaidToBeUnknown)
{
    const Segment plain = Segment::create(device, {.name = "NONE", .bytes = 0x10000});
    const Segment oneBit = Segment::create(device, {.name = "ONE1", .bytes = 0x10000, .ownerBits = 1});
    const Segment heap = Segment::create(device, {.name = "HEAP", .place = Place::Heap});
    EXPECT_EQ(refusal([&] { owners(plain); }), Errc::NotKnown);
    EXPECT_EQ(freeRuns(plain), (Runs{{device.segment(6).value().pubStartAddr, 17}}));
    const Block inPlain = plain.allocate(1).value();
    EXPECT_EQ(refusal([&] { freeRuns(plain); }), Errc::NotKnown);
    EXPECT_EQ(fragmentation(plain).freeBytes, 0x10000u);

    const Block unowned = oneBit.allocate(0x2000).value();
    const Block owned = oneBit.allocate(0x1000, Owner{1}).value();
    EXPECT_EQ(owners(oneBit), (Owners{{Owner::Nobody, 2}, {Owner{1}, 1}}));
    std::error_code error;
    EXPECT_TRUE(freeRuns(oneBit, error).empty());
    EXPECT_EQ(error, Errc::NotKnown);

    EXPECT_TRUE(owners(heap, error).empty());
    EXPECT_EQ(error, Errc::NotKnown);
    EXPECT_EQ(refusal([&] { freeRuns(heap); }), Errc::NotKnown);
    fragmentation(heap, error);
    EXPECT_EQ(error, Errc::NotKnown);
}

TEST_F(Usage, AStackIsFreeBelowItsTop)
{
    const Segment stack = Segment::create(device, {.name = "STK0", .bytes = 0x4000, .discipline = Discipline::Stack});
    const Block block = stack.allocate(0x1000).value();
    EXPECT_EQ(freeRuns(stack), (Runs{{device.segment(6).value().pubStartAddr, 4}}));
}

TEST_F(Usage, TheHeapIsReadFromTheKernelLog)
{
    const Segment heap = Segment::create(device, {.name = "HEAP", .blockBytes = 0x1000, .place = Place::Heap});
    const Block block = heap.allocate(0x5000).value();
    controller.takeLog();
    device.display();
    const auto pieces = heapPieces(controller.takeLog());
    ASSERT_EQ(pieces.size(), 1u);
    EXPECT_EQ(pieces[0].start, 0x95324000u);
    EXPECT_EQ(pieces[0].end, 0x9DF00000u);
    EXPECT_EQ(pieces[0].blockBytes, 0x1000u);
    EXPECT_EQ(pieces[0].blocks, 0x8BDCu);
    EXPECT_EQ(pieces[0].freeBlocks, 0x8BDCu - 5);
    EXPECT_EQ(heap.bytes(), 0x8BDC000u);
    device.display(5);
    EXPECT_TRUE(heapPieces(controller.takeLog()).empty());
}

} // namespace
} // namespace velmora::test
