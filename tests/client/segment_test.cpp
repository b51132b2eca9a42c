// The safe layer: what it promises, against the manager.
#include "client/safe_fixture.hpp"

#include <algorithm>
#include <bit>
#include <cstring>
#include <map>
#include <set>
#include <mutex>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

namespace velmora::test {
namespace {

constexpr Owner kOwner{0x0F}, kOther{0x33};

SegmentOptions pages()
{
    return {.name = "PAGE", .bytes = 0x10000, .blockBytes = 0x1000, .ownerBits = 8};
}

// Creation --------------------------------------------------------------------------------------

TEST_F(Safe, ASegmentHasAtLeastTheBytesThatWereAskedForWhateverItsMapTakes)
{
    // 16 blocks, one for alignment, one for the map of 20 bytes: 18 blocks from 0x95312000 on. That is a multiple of
    // 0x1000 already, so 17 are left.
    const Segment segment = Segment::create(device, pages());
    EXPECT_EQ(segment.bytes(), 0x11000u);
    const auto entry = device.segment(5).value();
    EXPECT_EQ(entry.pubMapStartAddr, 0x95312000u);
    EXPECT_EQ(entry.pubStartAddr, 0x95313000u);
    EXPECT_EQ(entry.pubEndAddr, 0x95324000u);
    int number = 0;
    for (const std::uint8_t bits : {0, 1, 2, 4, 8})
        for (const std::uint32_t block : {16u, 64u, 1024u, 65536u})
            for (const std::uint32_t bytes : {1u, 100u, 65536u, 200001u}) {
                if (++number % 40 == 0)
                    startUp(device, MM_SM_BKUP_OK, Restart::ForgetEverything); // there are 44 handles
                const Segment made = Segment::create(
                    device, {.name = std::to_string(number), .bytes = bytes, .blockBytes = block, .ownerBits = bits});
                EXPECT_GE(made.bytes(), bytes);
                EXPECT_LE(*made.bytes(), std::max(bytes + 3 * block, 64u)); // a list has at least 64 bytes
                EXPECT_EQ(device.segment(static_cast<std::uint8_t>(made.handle())).value().pubStartAddr % block, 0u);
            }
}

TEST_F(Safe, AllBytesOfASegmentCanBeAllocatedInOne)
{
    const Segment segment = Segment::create(device, pages());
    EXPECT_FALSE(segment.allocate(0x11001, kOwner));
    const auto block = segment.allocate(0x11000, kOwner);
    ASSERT_TRUE(block);
    EXPECT_EQ(block->address(), 0x95313000u);
}

TEST_F(Safe, ABlockSizeThatIsNoPowerOfTwoIsNotCreatedAndNotUsed)
{
    for (const std::uint32_t block : {0u, 3000u, 8u, 4097u})
        EXPECT_EQ(refusal([&] { Segment::create(device, {.name = "ODD0", .bytes = 30000, .blockBytes = block}); }),
                  Errc::BadBlockSize);
    device.createSegment({.name = "ODD1", .bytes = 30000, .blockBytes = 3000});
    // This is why: two neighbours, asked for with 3000 bytes each.
    const MM_TAddr first = device.allocate(5, 3000).value(), second = device.allocate(5, 3000).value();
    EXPECT_EQ(first - second, 2048u);
    EXPECT_EQ(refusal([&] { Segment::find(device, "ODD1"); }), Errc::BadBlockSize);
    const auto all = segments(device);
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].blockStride, 2048u);
    EXPECT_EQ(all[0].usable, Errc::BadBlockSize);
}

TEST_F(Safe, SpecificationsThatCannotBeAreRefusedBeforeTheManagerIsAsked)
{
    controller.takeLog();
    const auto refused = [&](const SegmentOptions& options) {
        return refusal([&] { Segment::create(device, options); });
    };
    EXPECT_EQ(refused({.name = "", .bytes = 1}), Errc::BadName);
    EXPECT_EQ(refused({.name = "FIVE5", .bytes = 1}), Errc::BadName);
    EXPECT_EQ(refused({.name = "SIZE"}), Errc::BadSize);
    EXPECT_EQ(refused({.name = "SIZE", .bytes = 0xFFFFF000}), Errc::BadSize);
    EXPECT_EQ(refused({.name = "$JCB", .bytes = 1, .place = Place::Fixed}), Errc::BadSize);
    EXPECT_EQ(refused({.name = "MAP0", .bytes = 1, .ownerBits = 3}), Errc::BadOwner);
    EXPECT_EQ(refused({.name = "MAP0", .bytes = 1, .ownerBits = 1, .discipline = Discipline::Stack}), Errc::BadOwner);
    EXPECT_EQ(refused({.name = "STK0", .bytes = 1, .discipline = Discipline::Stack, .managerOverflows = true}),
              Errc::StackOverflows);
    EXPECT_EQ(refused({.name = "HEAP", .place = Place::Heap, .discipline = Discipline::Stack}), Errc::StackOverflows);
    EXPECT_TRUE(controller.takeLog().empty());
    EXPECT_EQ(refused({.name = "HUGE", .bytes = 0x70000000}), std::error_code(MM_EASSERT, managerCategory()));
}

TEST_F(Safe, AFixedSegmentHasTheSizeThatTheTableGives)
{
    const Segment job =
        Segment::create(device, {.name = "$JCB", .blockBytes = 1024, .ownerBits = 8, .place = Place::Fixed});
    EXPECT_EQ(job.handle(), Handle{0});
    EXPECT_EQ(job.bytes(), 65536u - 1024u); // 64 map bytes take a block
    EXPECT_EQ(Segment::find(device, "$JCB")->bytes(), 64512u);
    EXPECT_EQ(refusal([&] { Segment::create(device, {.name = "$XYZ", .place = Place::Fixed}); }),
              std::error_code(MM_EERR, managerCategory()));
}

TEST_F(Safe, WhatOneProcessCreatesTheOthersFindByName)
{
    std::error_code error;
    EXPECT_FALSE(Segment::find(device, "PAGE"));
    EXPECT_FALSE(Segment::find(device, "PAGE", error));
    EXPECT_EQ(error, Errc::NoSuchSegment);
    Device other(controller.open());
    const Segment made = Segment::openOrCreate(device, pages());
    const Segment found = Segment::openOrCreate(other, pages());
    EXPECT_EQ(found.handle(), made.handle());
    EXPECT_EQ(found.name(), "PAGE");
    EXPECT_TRUE(Segment::find(other, "PAGE", error));
    EXPECT_FALSE(error);
}

TEST_F(Safe, ASegmentThatIsNotAsDescribedIsNotOpened)
{
    Segment::create(device, pages());
    for (const auto change : {+[](SegmentOptions& options) { options.blockBytes = 0x2000; },
                              +[](SegmentOptions& options) { options.ownerBits = 4; },
                              +[](SegmentOptions& options) { options.bytes = 0x11001; },
                              +[](SegmentOptions& options) { options.managerOverflows = true; }}) {
        SegmentOptions options = pages();
        change(options);
        EXPECT_EQ(refusal([&] { Segment::openOrCreate(device, options); }), Errc::SegmentDiffers);
    }
    EXPECT_EQ(refusal([&] { Segment::openOrCreate(device, {.name = "HEAP", .place = Place::Heap}); }), Errc::NotKnown);
}

TEST_F(Safe, OfManyThatCreateAtOnceOneDoes)
{
    std::vector<std::thread> crowd;
    crowd.reserve(8);
    for (int i = 0; i < 8; ++i)
        crowd.emplace_back([&] {
            Device own(controller.open());
            EXPECT_EQ(Segment::openOrCreate(own, pages()).handle(), Handle{5});
        });
    for (std::thread& one : crowd)
        one.join();
    EXPECT_EQ(segments(device).size(), 1u);
}

// The heap --------------------------------------------------------------------------------------

TEST_F(Safe, AHeapBesideAGapThatASegmentLeftIsRefused)
{
    // Aligned to 0x10000, the segment begins at 0x95320000; 0xE000 bytes before it stay free.
    device.createSegment({.name = "GAP0", .bytes = 0x40000, .blockBytes = 0x10000, .type = MM_FLOATALIGN});
    EXPECT_EQ(refusal([&] { Segment::create(device, {.name = "HEAP", .blockBytes = 0x10000, .place = Place::Heap}); }),
              Errc::HeapUnsafe);
    // This is why: the manager writes the gap's header past its end, into the first block.
    const MM_TAddr block = device.allocate(5, 0x40000).value();
    EXPECT_EQ(block, 0x95320000u);
    const Mapping view = device.map(block, 16);
    std::memset(view.bytes().data(), 0x77, 16);
    device.createSegment({.name = "HEAP", .blockBytes = 0x10000});
    EXPECT_NE(view.bytes()[0], std::byte{0x77});
}

TEST_F(Safe, ASegmentThatBeginsWhereTheOneBeforeEndsLeavesNoGap)
{
    device.createSegment({.name = "ALG0", .bytes = 0x4000, .blockBytes = 0x1000, .type = MM_FLOATALIGN});
    Segment::create(device, pages());
    EXPECT_FALSE(refusal([&] { Segment::create(device, {.name = "HEAP", .blockBytes = 64, .place = Place::Heap}); }));
}

TEST_F(Safe, AHeapForWhichTooLittleIsLeftIsRefused)
{
    // 0x95312000 to 0x9DF00000, without the last 0x1000.
    device.createSegment({.name = "BIG0", .bytes = 0x8BED000});
    EXPECT_EQ(refusal([&] { Segment::create(device, {.name = "HEAP", .blockBytes = 0x100000, .place = Place::Heap}); }),
              Errc::HeapUnsafe);
}

class SafeOverflow : public Safe
{
protected:
    static constexpr std::uint32_t kBlock = 65536;

    SafeOverflow()
        : segment(Segment::create(
              device,
              {.name = "PAGE", .bytes = kBlock, .blockBytes = kBlock, .ownerBits = 8, .managerOverflows = true})),
          heap(Segment::create(device, {.name = "HEAP", .blockBytes = 4096, .place = Place::Heap})),
          full(segment.allocate(*segment.bytes(), kOwner))
    {
    }

    Segment segment, heap;
    std::optional<Block> full;
};

TEST_F(SafeOverflow, WhatTheManagerTookFromTheHeapIsGivenBack)
{
    ASSERT_TRUE(full);
    // This is why: one block of the heap for one of the segment.
    const MM_TAddr first = device.allocate(5, kBlock, 0x0F).value(), second = device.allocate(5, kBlock, 0x0F).value();
    EXPECT_EQ(first - second, 4096u);
    device.release(5, first, kBlock);
    device.release(5, second, kBlock);
    std::error_code error;
    EXPECT_FALSE(segment.allocate(kBlock, kOwner));
    EXPECT_FALSE(segment.allocate(kBlock, kOwner, error));
    EXPECT_EQ(error, Errc::NoRoom);
    EXPECT_EQ(error, std::errc::not_enough_memory);
    EXPECT_EQ(allocatedInHeap(), 0u);
}

// Shows a segment as it was before somebody else took its last run.
class LateChannel : public Channel
{
public:
    explicit LateChannel(std::unique_ptr<Channel> channel) : channel_(std::move(channel)) {}
    int command(std::uint32_t number, void* record, std::size_t bytes) override
    {
        const int result = channel_->command(number, record, bytes);
        if (number == MM_CMD_GET_MST)
            static_cast<MM_TGetMSTInfo*>(record)->SegTable.ulLargestBlkSize = 1;
        return result;
    }
    void* map(MM_TAddr address, std::size_t bytes, Caching caching) override
    {
        return channel_->map(address, bytes, caching);
    }
    void unmap(void* start, std::size_t bytes) override { channel_->unmap(start, bytes); }

private:
    std::unique_ptr<Channel> channel_;
};

TEST_F(SafeOverflow, SoIsWhatItTookBetweenTheLookAndTheCommand)
{
    Device late(std::make_unique<LateChannel>(controller.open()));
    EXPECT_FALSE(Segment::find(late, "PAGE")->allocate(kBlock, kOwner));
    EXPECT_EQ(allocatedInHeap(), 0u);
}

TEST_F(SafeOverflow, WhatOverflowsIntoAHeapThatThisProcessKnowsHasAllItsBytes)
{
    segment.overflowInto(heap);
    std::vector<Block> blocks;
    blocks.reserve(3);
    for (int i = 0; i < 3; ++i)
        blocks.push_back(segment.allocate(kBlock, kOwner).value());
    for (std::size_t i = 0; i < blocks.size(); ++i) {
        EXPECT_EQ(blocks[i].segment(), Handle::Heap);
        EXPECT_EQ(blocks[i].owner(), Owner::Nobody);
        std::memset(blocks[i].map().bytes().data(), static_cast<int>(i), kBlock);
    }
    for (std::size_t i = 0; i < blocks.size(); ++i)
        EXPECT_EQ(std::ranges::count(blocks[i].map().bytes(), std::byte(i)), kBlock);
    EXPECT_EQ(allocatedInHeap(), 3u * kBlock / 4096);
    blocks.clear();
    EXPECT_EQ(allocatedInHeap(), 0u);
}

TEST_F(SafeOverflow, AHeapThatSomebodyElseCreatedServesOnceItsFactsAreTold)
{
    Device other(controller.open());
    Segment found = Segment::find(other, "PAGE").value();
    EXPECT_EQ(refusal([&] { found.overflowInto(segment); }), Errc::SegmentDiffers);
    found.overflowInto(Segment::heap(other, {.blockBytes = 4096}));
    std::optional<Block> block = found.allocate(5000, kOwner);
    ASSERT_TRUE(block);
    EXPECT_EQ(allocatedInHeap(), 2u);
    const BlockRecord record = block->detach();
    block.reset();
    EXPECT_EQ(allocatedInHeap(), 2u);
    heap.adopt(record).release();
    EXPECT_EQ(allocatedInHeap(), 0u);
    EXPECT_FALSE(Segment::heap(other, {}).bytes());
    EXPECT_EQ(refusal([&] { Segment::heap(other, {.blockBytes = 3000}); }), Errc::BadBlockSize);
}

TEST_F(Safe, AHeapWithAMapCollectsOnlyOwnersThatPermanentBlocksDoNotContain)
{
    const Segment heap =
        Segment::create(device, {.name = "HEAP", .blockBytes = 64, .ownerBits = 8, .place = Place::Heap});
    EXPECT_EQ(refusal([&] { heap.collect(Owner{0x1E}); }), Errc::BadOwner);
    auto block = heap.allocate(100, kOwner);
    ASSERT_TRUE(block);
    EXPECT_EQ(allocatedInHeap(), 2u);
    heap.collect(kOwner);
    EXPECT_EQ(allocatedInHeap(), 0u);
    EXPECT_FALSE(block->held());
}

// Blocks ----------------------------------------------------------------------------------------

class SafeBlock : public Safe
{
protected:
    Segment segment = Segment::create(device, pages());
};

TEST_F(SafeBlock, IsReleasedWithItsObject)
{
    {
        const auto block = segment.allocate(0x2001, kOwner);
        ASSERT_TRUE(block);
        EXPECT_EQ(block->size(), 0x2001u);
        EXPECT_EQ(block->owner(), kOwner);
        EXPECT_EQ(block->address(), 0x95321000u); // the last three blocks
        EXPECT_TRUE(block->held());
        EXPECT_EQ(allocated(Handle{5}), 3u);
    }
    EXPECT_EQ(allocated(Handle{5}), 0u);
}

TEST_F(SafeBlock, IsReleasedOnce)
{
    Block block = segment.allocate(1, kOwner).value();
    block.release();
    EXPECT_FALSE(block.held());
    controller.takeLog();
    EXPECT_EQ(refusal([&] { block.release(); }), Errc::NotHeld);
    std::error_code error;
    block.release(error);
    EXPECT_EQ(error, Errc::NotHeld);
    EXPECT_EQ(refusal([&] { block.map(); }), Errc::NotHeld);
    EXPECT_EQ(refusal([&] { block.fill(std::byte{1}); }), Errc::NotHeld);
    EXPECT_EQ(refusal([&] { block.detach(); }), Errc::NotHeld);
    EXPECT_TRUE(controller.takeLog().empty());
}

TEST_F(SafeBlock, MovesWithItsMemory)
{
    Block first = segment.allocate(1, kOwner).value();
    Block second = segment.allocate(1, kOwner).value();
    const MM_TAddr kept = second.address();
    first = std::move(second); // releases the first
    EXPECT_EQ(allocated(Handle{5}), 1u);
    EXPECT_EQ(first.address(), kept);
    EXPECT_TRUE(first.held());
    EXPECT_FALSE(second.held()); // NOLINT(bugprone-use-after-move): that is the question
    EXPECT_EQ(refusal([&] { second.release(); }), Errc::NotHeld);
}

TEST_F(SafeBlock, ThatWasCollectedIsNotReleasedAgain)
{
    Block mine = segment.allocate(0x1000, kOwner).value();
    Block kept = segment.allocate(0x1000, kOther).value();
    segment.collect(kOwner);
    EXPECT_FALSE(mine.held());
    EXPECT_TRUE(kept.held());
    const Block next = segment.allocate(0x1000, kOwner).value();
    EXPECT_EQ(next.address(), mine.address()); // the same memory, the same owner, another block
    EXPECT_EQ(refusal([&] { mine.release(); }), Errc::NotHeld);
    EXPECT_TRUE(next.held());
    EXPECT_EQ(allocated(Handle{5}), 2u);
}

TEST_F(SafeBlock, ThatAnotherProcessCollectedIsNotReleased)
{
    Device other(controller.open());
    Block mine = segment.allocate(0x1000, kOwner).value();
    Segment::find(other, "PAGE")->collect(kOwner);
    const Block theirs = Segment::find(other, "PAGE")->allocate(0x1000, kOther).value();
    EXPECT_EQ(theirs.address(), mine.address());
    EXPECT_TRUE(mine.held()); // it cannot know
    EXPECT_EQ(refusal([&] { mine.release(); }), Errc::NotHeld);
    EXPECT_FALSE(mine.held());
    EXPECT_EQ(allocated(Handle{5}), 1u);
}

TEST_F(SafeBlock, OfALibraryThatWasStartedAnewIsNotReleased)
{
    Device other(controller.open());
    EXPECT_EQ(refusal([&] { startUp(other); }), Errc::AlreadyStarted);
    Block before = segment.allocate(0x1000, kOwner).value();
    startUp(other, MM_SM_BKUP_OK, Restart::ForgetEverything);
    EXPECT_EQ(refusal([&] { before.release(); }), Errc::NoSuchSegment);
    EXPECT_EQ(refusal([&] { segment.collect(kOwner); }), Errc::NoSuchSegment);

    const Segment again = Segment::create(other, pages()); // the same place, the same size: its map tells
    const Segment stale = Segment::find(device, "PAGE").value();
    EXPECT_EQ(stale.handle(), segment.handle());
    Block lost = stale.allocate(0x1000, kOwner).value();
    startUp(other, MM_SM_BKUP_OK, Restart::ForgetEverything);
    Segment::create(other, pages());
    EXPECT_EQ(refusal([&] { lost.release(); }), Errc::NotHeld);
}

TEST_F(SafeBlock, IsDetachedByOneProcessAndAdoptedByAnother)
{
    BlockRecord record;
    {
        Block block = segment.allocate(0x1800, kOwner).value();
        block.map().bytes()[0x17FF] = std::byte{0x55};
        record = block.detach();
        EXPECT_FALSE(block.held());
    }
    EXPECT_EQ(allocated(Handle{5}), 2u);
    Device other(controller.open());
    const Segment theirs = Segment::find(other, "PAGE").value();
    Block block = theirs.adopt(record);
    EXPECT_EQ(block.map().bytes()[0x17FF], std::byte{0x55});
    EXPECT_EQ(refusal([&] { theirs.adopt(record); }), Errc::NotHeld); // one Block for each block
    block.release();
    EXPECT_EQ(allocated(Handle{5}), 0u);
    std::error_code error;
    EXPECT_FALSE(theirs.adopt(record, error));
    EXPECT_EQ(error, Errc::NotHeld); // it is free
}

TEST_F(SafeBlock, IsNotAdoptedFromWhatIsNoBlock)
{
    const BlockRecord good = segment.allocate(0x1800, kOwner).value().detach();
    const auto refused = [&](auto change) {
        BlockRecord record = good;
        change(record);
        return refusal([&] { segment.adopt(record); });
    };
    EXPECT_EQ(refused([](BlockRecord& record) { record.segment = 6; }), Errc::SegmentDiffers);
    EXPECT_EQ(refused([](BlockRecord& record) { record.name[0] = 'X'; }), Errc::SegmentDiffers);
    EXPECT_EQ(refused([](BlockRecord& record) { record.bytes = 0; }), Errc::BadSize);
    EXPECT_EQ(refused([](BlockRecord& record) { record.bytes = 0xFFFFFFFF; }), Errc::BadRange);
    EXPECT_EQ(refused([](BlockRecord& record) { record.bytes = 0x2001; }), Errc::BadRange);
    EXPECT_EQ(refused([](BlockRecord& record) { record.address += 16; }), Errc::BadRange);
    EXPECT_EQ(refused([](BlockRecord& record) { record.address = 0x95312000; }), Errc::BadRange);
    EXPECT_EQ(refused([](BlockRecord& record) { record.address -= 0x1000; }), Errc::NotHeld);
    EXPECT_EQ(refused([](BlockRecord& record) { record.owner = 0x0E; }), Errc::NotHeld);
    EXPECT_EQ(refused([](BlockRecord& record) { record.owner = 0x10F; }), Errc::BadSize);
    EXPECT_EQ(refused([](BlockRecord&) {}), std::error_code());
}

TEST_F(SafeBlock, IsNotReleasedByAChildOfAFork)
{
    Block block = segment.allocate(1, kOwner).value();
    const pid_t child = fork();
    if (child == 0) {
        const bool held = block.held();
        std::error_code error;
        block.release(error);
        _exit(!held && error == Errc::NotHeld ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(block.held());
    EXPECT_EQ(allocated(Handle{5}), 1u);
}

TEST_F(SafeBlock, NoViewReachesPastItsEnd)
{
    const Block block = segment.allocate(0x1800, kOwner).value();
    EXPECT_EQ(block.map().bytes().size(), 0x1800u);
    EXPECT_EQ(block.map(0x17FF, 1).bytes().size(), 1u);
    for (const auto& [offset, bytes] :
         {std::pair{0u, 0u}, {0u, 0x1801u}, {0x17FFu, 2u}, {0x1800u, 1u}, {0xFFFFFFFFu, 2u}, {1u, 0xFFFFFFFFu}})
        EXPECT_EQ(refusal([&, offset = offset, bytes = bytes] { block.map(offset, bytes); }), Errc::BadRange);
    std::error_code error;
    controller.failNthMap(1, -ENOMEM);
    EXPECT_FALSE(block.map(Caching::Uncached, error));
    EXPECT_EQ(error, std::errc::not_enough_memory);
    EXPECT_TRUE(block.map(Caching::Uncached, error));
}

TEST_F(SafeBlock, IsFilledToItsEndAndNoFurther)
{
    const Block upper = segment.allocate(0x1000, kOther).value(), block = segment.allocate(0x1800, kOwner).value();
    EXPECT_EQ(block.address() + 0x2000, upper.address());
    upper.fill(std::byte{0x11});
    block.fill(std::byte{0x22});
    EXPECT_EQ(block.map().bytes()[0x17FF], std::byte{0x22});
    EXPECT_EQ(upper.map().bytes()[0], std::byte{0x11});
    EXPECT_EQ(block.physicalAddress(), block.address() - 0x94000000);
}

// Owners ----------------------------------------------------------------------------------------

TEST(SafeOwners, NoneOfTheIdsContainsAnother)
{
    const std::map<unsigned, std::size_t> sizes = {{0, 0}, {1, 1}, {2, 2}, {3, 0}, {4, 6}, {8, 70}, {16, 0}};
    for (const auto& [bits, size] : sizes) {
        const std::vector<Owner> ids = ownerIds(bits);
        EXPECT_EQ(ids.size(), size) << bits;
        for (const Owner one : ids) {
            EXPECT_LT(static_cast<unsigned>(one), 1u << bits);
            for (const Owner other : ids)
                EXPECT_EQ((static_cast<unsigned>(one) & static_cast<unsigned>(other)) == static_cast<unsigned>(one),
                          one == other);
        }
    }
    EXPECT_EQ(ownerIds(4), (std::vector{Owner{3}, Owner{5}, Owner{6}, Owner{9}, Owner{10}, Owner{12}}));
}

TEST_F(SafeBlock, OwnersThatDoNotGoWithTheMapAreRefused)
{
    const Segment none = Segment::create(device, {.name = "NONE", .bytes = 1});
    const Segment two = Segment::create(device, {.name = "TWO2", .bytes = 1, .ownerBits = 2});
    const Segment one = Segment::create(device, {.name = "ONE1", .bytes = 1, .ownerBits = 1});
    controller.takeLog();
    EXPECT_EQ(refusal([&] { segment.allocate(1); }), Errc::BadOwner);
    EXPECT_EQ(refusal([&] { segment.allocate(0, kOwner); }), Errc::BadSize);
    EXPECT_EQ(refusal([&] { none.allocate(1, Owner{1}); }), Errc::BadOwner);
    EXPECT_EQ(refusal([&] { none.collect(Owner{1}); }), Errc::BadOwner);
    EXPECT_EQ(refusal([&] { two.allocate(1, Owner{4}); }), Errc::BadOwner);
    EXPECT_EQ(refusal([&] { two.collect(Owner{4}); }), Errc::BadOwner);
    EXPECT_EQ(refusal([&] { segment.collect(Owner::Nobody); }), Errc::BadOwner);
    EXPECT_TRUE(one.allocate(1));
    EXPECT_TRUE(one.allocate(1, Owner{1}));
    EXPECT_TRUE(controller.takeLog().empty());
}

TEST_F(SafeBlock, CollectingAnOwnerTakesHisBlocksOnly)
{
    const Segment few = Segment::create(device, {.name = "FEW4", .bytes = 0x10000, .ownerBits = 4});
    std::vector<Block> blocks;
    for (int i = 0; i < 2; ++i)
        for (const Owner owner : ownerIds(4))
            blocks.push_back(few.allocate(1, owner).value());
    few.collect(Owner{5});
    for (Block& block : blocks)
        EXPECT_EQ(block.held(), block.owner() != Owner{5});
    EXPECT_EQ(allocated(few.handle()), 10u);
}

// Stacks ----------------------------------------------------------------------------------------

TEST_F(Safe, AStackTakesBackWhatItGaveLast)
{
    const Segment stack =
        Segment::create(device, {.name = "STK0", .bytes = 0x1000, .blockBytes = 4, .discipline = Discipline::Stack});
    Block first = stack.allocate(10).value(), second = stack.allocate(6).value();
    EXPECT_EQ(second.address() + 8, first.address());
    EXPECT_EQ(refusal([&] { first.release(); }), Errc::NotTopOfStack);
    EXPECT_TRUE(first.held());
    second.release();
    first.release();
    EXPECT_EQ(allocated(stack.handle()), 0u);
    const BlockRecord record = stack.allocate(8).value().detach();
    EXPECT_EQ(stack.adopt(record).address(), record.address);
    EXPECT_EQ(refusal([&] { stack.adopt(record); }), Errc::NotHeld); // released with the adopted block
}

TEST_F(Safe, AStackWithALockOrWithOverflowIsNotUsed)
{
    device.createSegment({.name = "LCK0", .bytes = 0x1000, .discipline = MM_STACK});
    device.createSegment(
        {.name = "OVF0", .bytes = 0x1000, .discipline = MM_STACK, .locked = false, .overflowsToHeap = true});
    EXPECT_EQ(refusal([&] { Segment::find(device, "LCK0"); }), Errc::StackIsLocked);
    EXPECT_EQ(refusal([&] { Segment::find(device, "OVF0"); }), Errc::StackOverflows);
}

// Threads ---------------------------------------------------------------------------------------

TEST_F(SafeBlock, ThreadsShareASegment)
{
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < 4; ++i)
        threads.emplace_back([&, owner = ownerIds(8)[i]] {
            for (int round = 0; round < 50; ++round) {
                std::optional<Block> block = segment.allocate(0x1000 + round, owner);
                ASSERT_TRUE(block);
                const Mapping view = block->map();
                std::ranges::fill(view.bytes(), std::byte(owner));
                EXPECT_EQ(std::ranges::count(view.bytes(), std::byte(owner)), 0x1000 + round);
                if (round % 10 == 9) {
                    segment.collect(owner);
                    EXPECT_FALSE(block->held());
                }
                EXPECT_TRUE(segment.bytes());
                owners(segment);
            }
        });
    for (std::thread& one : threads)
        one.join();
    EXPECT_EQ(allocated(Handle{5}), 0u);
}

TEST_F(SafeBlock, GoesFromThreadToThread)
{
    std::mutex lock;
    std::vector<std::pair<Block, Mapping>> ready;
    std::thread producer([&] {
        for (int i = 0; i < 10; ++i) {
            Block block = segment.allocate(0x1000, Owner{15}).value();
            Mapping view = block.map();
            std::ranges::fill(view.bytes(), std::byte(i));
            const std::lock_guard guard(lock);
            ready.emplace_back(std::move(block), std::move(view));
        }
    });
    for (int taken = 0; taken < 10;) {
        const std::lock_guard guard(lock);
        for (const auto& [block, view] : ready)
            EXPECT_EQ(view.bytes()[0], std::byte(taken++));
        ready.clear();
    }
    producer.join();
    EXPECT_EQ(allocated(Handle{5}), 0u);
}

TEST_F(Safe, ThreadsShareADevice)
{
    const Segment segment = Segment::create(device, {.name = "PAGE", .bytes = 0x10000, .ownerBits = 8});
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (int round = 0; round < 50; ++round) {
                EXPECT_EQ(device.tableRow(2).value().ulSize, 65536u);
                EXPECT_EQ(segments(device).size(), 1u);
                EXPECT_EQ(freeRuns(segment).size(), 1u);
                EXPECT_EQ(fragmentation(segment).ratio, 0);
            }
        });
    for (std::thread& one : threads)
        one.join();
}

} // namespace
} // namespace velmora::test
