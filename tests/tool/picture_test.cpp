// What lies where in a segment, as the tool reads it through a mapping, against what the manager's own list says.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <ostream>
#include <random>

#include "controller/device.h"
#include "kernel/mm/mm/MM_Core.h"
#include "tools/free_list.hpp"
#include "tools/picture.hpp"

namespace velmora::tools {

void PrintTo(const Run& run, std::ostream* out)
{
    *out << "0x" << std::hex << run.start << std::dec << " x " << run.blocks << (run.free ? " free" : " of ")
         << (run.free ? "" : std::to_string(static_cast<unsigned>(run.owner)));
}

namespace {

using Runs = std::vector<Run>;

constexpr const char* kAlike = "free runs cannot be told from earlier ones, which left the same headers";

// Owner 0: allocated for nobody.
Run taken(MM_TAddr start, std::uint32_t blocks, unsigned owner = 0)
{
    return {start, blocks, false, static_cast<Owner>(owner)};
}

Run unused(MM_TAddr start, std::uint32_t blocks)
{
    return {start, blocks, true};
}

class PictureTest : public ::testing::Test
{
protected:
    PictureTest()
    {
        device.buildTable();
        device.startLibrary(MM_SM_BKUP_OK);
    }

    std::uint32_t create(const SegmentRequest& request) { return device.createSegment(request).hulHandle; }

    // Writes over all of it, as whoever has the memory does.
    MM_TAddr allocateAndWrite(std::uint32_t handle, std::uint32_t bytes, std::uint8_t owner = 0)
    {
        const MM_TAddr address = device.allocate(handle, bytes, owner).value();
        const Mapping view = device.map(address, bytes);
        std::memset(view.bytes().data(), 0x5A, bytes);
        return address;
    }

    Picture picture(std::uint32_t handle) { return pictureOf(device, handle).value(); }

    // The manager's own list.
    static std::vector<FreeRun> listOf(std::uint32_t handle)
    {
        std::vector<FreeRun> runs;
        for (const TMMBlkStr* run = astBlkHead[handle].pstBlk; run != nullptr; run = run->pstNext)
            runs.push_back({MM_Addr(run), run->ulSize});
        return runs;
    }

    Device device = [] {
        sim::bootController();
        return Device(sim::openDevice());
    }();
};

// Free memory begins at 0x95312000.
TEST_F(PictureTest, FreeRunsAreKnownWithoutAnOwnerMap)
{
    const std::uint32_t handle = create({.name = "BAND", .bytes = 0x8000, .blockBytes = 0x1000});
    EXPECT_EQ(picture(handle).runs, (Runs{unused(0x95312000, 8)}));
    allocateAndWrite(handle, 0x1000);                       // 0x95319000
    const MM_TAddr hole = allocateAndWrite(handle, 0x2000); // 0x95317000
    allocateAndWrite(handle, 0x3000);                       // 0x95314000
    EXPECT_EQ(picture(handle).runs, (Runs{unused(0x95312000, 2), taken(0x95314000, 6)}));
    device.release(handle, hole, 0x2000);
    EXPECT_EQ(picture(handle).runs,
              (Runs{unused(0x95312000, 2), taken(0x95314000, 3), unused(0x95317000, 2), taken(0x95319000, 1)}));
    allocateAndWrite(handle, 0x2000);
    allocateAndWrite(handle, 0x2000);
    EXPECT_EQ(picture(handle).runs, (Runs{taken(0x95312000, 8)}));
}

// 17 blocks from 0x95313000, behind the page that the map took.
TEST_F(PictureTest, BlocksForNobodyAreToldFromFreeOnesBesideAMap)
{
    const std::uint32_t handle = create({.name = "BITS", .bytes = 0x12000, .blockBytes = 0x1000, .mapBits = 1});
    ASSERT_EQ(picture(handle).runs, (Runs{unused(0x95313000, 17)}));
    allocateAndWrite(handle, 0x4000, 1);                       // 0x95320000
    allocateAndWrite(handle, 0x2000, 0);                       // 0x9531E000
    const MM_TAddr hole = allocateAndWrite(handle, 0x1000, 1); // 0x9531D000
    allocateAndWrite(handle, 0x1000, 0);                       // 0x9531C000
    device.release(handle, hole, 0x1000);
    EXPECT_EQ(picture(handle).runs, (Runs{unused(0x95313000, 9), taken(0x9531C000, 1), unused(0x9531D000, 1),
                                          taken(0x9531E000, 2), taken(0x95320000, 4, 1)}));
}

TEST_F(PictureTest, WithAnOwnerForEachBlockTheMapTellsAll)
{
    const std::uint32_t handle = create({.name = "PAGE", .bytes = 0x12000, .blockBytes = 0x1000, .mapBits = 4});
    device.allocate(handle, 0x3000, 7);
    const MM_TAddr hole = device.allocate(handle, 0x1000, 9).value();
    device.allocate(handle, 0x1000, 9);
    device.release(handle, hole, 0x1000);
    EXPECT_EQ(picture(handle).runs,
              (Runs{unused(0x95313000, 12), taken(0x9531F000, 1, 9), unused(0x95320000, 1), taken(0x95321000, 3, 7)}));
}

// Two halves that took turns: either header may be the present one.
TEST_F(PictureTest, HeadersOfThePastThatLookLikeThePresentAreNotBelieved)
{
    const std::uint32_t handle = create({.name = "TURN", .bytes = 0x8000, .blockBytes = 0x1000});
    const MM_TAddr upper = device.allocate(handle, 0x4000).value();
    const MM_TAddr lower = device.allocate(handle, 0x4000).value();
    device.release(handle, upper, 0x4000);
    EXPECT_EQ(picture(handle).runs, Runs());
    EXPECT_EQ(picture(handle).unknown, kAlike);
    device.fill(lower, 0xFF, 12);
    EXPECT_EQ(picture(handle).runs, (Runs{taken(lower, 4), unused(upper, 4)}));
    EXPECT_EQ(picture(handle).unknown, "");
}

// The lower run of two is taken, and what replaces it in the list has its size: the old header still leads to the upper one.
TEST_F(PictureTest, AHeaderOfThePastThatLeadsToThePresentListIsNoneOfIt)
{
    const std::uint32_t handle = create({.name = "LEAD", .bytes = 0x8000, .blockBytes = 0x1000});
    const MM_TAddr last = allocateAndWrite(handle, 0x1000); // 0x95319000
    allocateAndWrite(handle, 0x1000);
    const MM_TAddr upper = allocateAndWrite(handle, 0x2000); // 0x95316000
    allocateAndWrite(handle, 0x1000);
    const MM_TAddr lower = allocateAndWrite(handle, 0x2000); // 0x95313000
    allocateAndWrite(handle, 0x1000);
    device.release(handle, last, 0x1000);
    device.release(handle, lower, 0x2000);
    ASSERT_EQ(device.allocate(handle, 0x2000), lower);
    device.release(handle, upper, 0x2000);
    EXPECT_EQ(picture(handle).runs,
              (Runs{taken(0x95312000, 4), unused(0x95316000, 2), taken(0x95318000, 1), unused(0x95319000, 1)}));
}

TEST_F(PictureTest, AListThatIsNotWholeIsSaidNotToBe)
{
    const std::uint32_t handle = create({.name = "BAND", .bytes = 0x8000, .blockBytes = 0x1000});
    allocateAndWrite(handle, 0x1000);
    device.fill(0x95312004, 0x95, 1); // the first run's link back
    EXPECT_EQ(picture(handle).unknown, "its list of free runs is not whole");
}

TEST_F(PictureTest, AStackGivesFromItsEnd)
{
    const std::uint32_t handle = create({.name = "STCK", .bytes = 0x1000, .blockBytes = 64, .discipline = MM_STACK});
    EXPECT_EQ(picture(handle).runs, (Runs{unused(0x95312000, 64)}));
    device.allocate(handle, 640);
    EXPECT_EQ(picture(handle).runs, (Runs{unused(0x95312000, 54), taken(0x95312D80, 10)}));
}

TEST_F(PictureTest, HandlesWithoutASegmentHaveNoPicture)
{
    create({.name = "HEAP", .bytes = 0});
    EXPECT_EQ(pictureOf(device, 5), std::nullopt);
    EXPECT_EQ(pictureOf(device, MM_HEAPHANDLE), std::nullopt);
    EXPECT_TRUE(pictures(device).empty());
}

// A device on which somebody else works between this program's looks.
class BusyChannel : public Channel
{
public:
    explicit BusyChannel(std::function<void()> work) : work_(std::move(work)) {}
    int command(std::uint32_t number, void* record, std::size_t bytes) override
    {
        work_();
        return inner_->command(number, record, bytes);
    }
    void* map(MM_TAddr address, std::size_t bytes, Caching caching) override
    {
        return inner_->map(address, bytes, caching);
    }
    void unmap(void* start, std::size_t bytes) override { inner_->unmap(start, bytes); }

private:
    std::unique_ptr<Channel> inner_ = sim::openDevice();
    std::function<void()> work_;
};

TEST_F(PictureTest, ASegmentThatChangesIsReadAgainAndAnEndlessOneIsSaidToChange)
{
    const std::uint32_t handle = create({.name = "BUSY", .bytes = 0x10000, .blockBytes = 0x1000});
    int left = 5;
    Device busy(std::make_unique<BusyChannel>([&] {
        if (left-- > 0)
            allocateAndWrite(handle, 0x1000);
    }));
    EXPECT_EQ(pictureOf(busy, handle)->runs, (Runs{unused(0x95312000, 11), taken(0x9531D000, 5)}));
    left = 1000;
    Device endless(std::make_unique<BusyChannel>([&] {
        if (--left % 2 == 0)
            allocateAndWrite(handle, 0x1000);
        else
            device.release(handle, 0x9531C000, 0x1000);
    }));
    left = 1001;
    EXPECT_EQ(pictureOf(endless, handle)->unknown, "it changed each time that it was read");
    EXPECT_EQ(pictureOf(endless, handle)->runs, Runs());
}

// Compares with the manager's list after every few steps of random work.
void playAgainstTheList(Device& device, std::uint32_t handle, std::uint8_t bits, unsigned seed, unsigned writeOneIn,
                        const std::function<std::vector<FreeRun>(std::uint32_t)>& listOf, unsigned& known)
{
    std::mt19937 random(seed);
    std::vector<std::pair<MM_TAddr, std::uint32_t>> held;
    const std::uint32_t stride = pictureOf(device, handle)->stride();
    for (unsigned step = 0; step < 120; ++step) {
        if (random() % 5 < 3 || held.empty()) {
            const std::uint32_t blocks = 1 + random() % 6;
            const auto owner = static_cast<std::uint8_t>(bits == 0 ? 0 : bits == 1 ? random() % 2 : 1);
            if (const auto address = device.allocate(handle, blocks * stride, owner)) {
                held.push_back({*address, blocks});
                if (random() % writeOneIn == 0)
                    device.fill(*address, static_cast<std::uint8_t>(random()), blocks * stride);
            }
        } else {
            std::swap(held[random() % held.size()], held.back());
            device.release(handle, held.back().first, held.back().second * stride);
            held.pop_back();
        }
        const Picture picture = pictureOf(device, handle).value();
        if (!picture.unknown.empty()) {
            EXPECT_EQ(picture.unknown, kAlike);
            continue;
        }
        ++known;
        std::vector<FreeRun> free;
        std::uint32_t blocks = 0;
        for (const Run& run : picture.runs) {
            EXPECT_EQ(run.start, picture.entry.pubStartAddr + blocks * stride);
            blocks += run.blocks;
            if (run.free)
                free.push_back({run.start, run.blocks});
        }
        EXPECT_EQ(blocks, picture.entry.ulTotalBlkNum);
        ASSERT_EQ(free, listOf(handle)) << "step " << step;
    }
}

TEST_F(PictureTest, RandomWorkIsSeenAsTheManagersListHasIt)
{
    for (const std::uint8_t bits : {0, 1, 8})
        for (unsigned seed = 1; seed <= 40; ++seed) {
            SCOPED_TRACE("map " + std::to_string(bits) + ", seed " + std::to_string(seed));
            device.startLibrary(MM_SM_BKUP_OK);
            const std::uint32_t handle =
                create({.name = "WORK", .bytes = 0x1200, .blockBytes = seed % 2 ? 64U : 16U, .mapBits = bits});
            unsigned known = 0;
            playAgainstTheList(device, handle, bits, seed, seed % 3 + 1, listOf, known);
            if (bits == 8 || seed % 3 == 0) { // owners, or everybody writes
                EXPECT_EQ(known, 120U);
            }
        }
}

TEST_F(PictureTest, ALargeSegmentWithManyRunsIsRead)
{
#ifdef MM_CHECK_RUN_INDEX // each release looks at every run then
    constexpr unsigned kRuns = 1000;
#else
    constexpr unsigned kRuns = 100000;
#endif
    for (const std::uint8_t bits : {0, 8}) {
        device.startLibrary(MM_SM_BKUP_OK);
        const std::uint32_t handle = create({.name = "HUGE", .bytes = 128U << 20, .blockBytes = 64, .mapBits = bits});
        std::vector<MM_TAddr> holes;
        for (unsigned run = 0; run < kRuns; ++run) {
            holes.push_back(device.allocate(handle, 640, bits == 0 ? 0 : 1).value());
            allocateAndWrite(handle, 640, bits == 0 ? 0 : 2);
        }
        for (const MM_TAddr hole : holes)
            device.release(handle, hole, 640);
        const Picture seen = picture(handle);
        EXPECT_EQ(seen.unknown, "");
        EXPECT_EQ(std::count_if(seen.runs.begin(), seen.runs.end(), [](const auto& run) { return run.free; }),
                  kRuns + 1);
    }
}

TEST(OwnerMapTest, ReadsEntriesFromTheEndAndRunsByWords)
{
    // 21 blocks of 2 bits: 6 bytes, of which the first has one entry, in its lowest bits.
    const OwnerMap map(2, 21, {0x01, 0x00, 0x00, 0xAA, 0xAA, 0xA4});
    EXPECT_EQ(map.owner(0), Owner{1});
    EXPECT_EQ(map.owner(1), Owner{0});
    EXPECT_EQ(map.owner(9), Owner{2});
    EXPECT_EQ(map.owner(19), Owner{1});
    EXPECT_EQ(map.owner(20), Owner{0});
    EXPECT_EQ(map.endOfSame(0), 1U);
    EXPECT_EQ(map.endOfSame(1), 9U);
    EXPECT_EQ(map.endOfSame(9), 19U);
    EXPECT_EQ(map.endOfSame(19), 20U);
    EXPECT_EQ(map.endOfSame(20), 21U);
    EXPECT_EQ(map.unusedBits(0), 0xFC);
    EXPECT_EQ(map.unusedBits(1), 0);
    const OwnerMap padded(1, 3, {0, 0, 0});
    EXPECT_EQ(padded.unusedBits(0), 0xFF);
    EXPECT_EQ(padded.unusedBits(2), 0xF8);
    EXPECT_EQ(padded.endOfSame(0), 3U);
}

TEST(OwnerMapTest, RunsAreTheSameByWordsAndByEntries)
{
    std::mt19937 random(7);
    for (const unsigned bits : {1U, 2U, 4U, 8U})
        for (unsigned round = 0; round < 300; ++round) {
            const std::uint32_t blocks = 1 + random() % 400;
            std::vector<std::uint8_t> bytes((blocks * bits + 7) / 8);
            for (std::size_t at = 0; at < bytes.size();) {
                const auto value = static_cast<std::uint8_t>(random() % 3 == 0 ? random() : random() % 2 * 0xFF);
                for (std::size_t end = std::min(bytes.size(), at + 1 + random() % 20); at < end; ++at)
                    bytes[at] = value;
            }
            const OwnerMap map(bits, blocks, bytes);
            for (std::uint32_t block = 0; block < blocks; ++block) {
                std::uint32_t end = block + 1;
                while (end < blocks && map.owner(end) == map.owner(block))
                    ++end;
                ASSERT_EQ(map.endOfSame(block), end) << bits << " bits, block " << block << " of " << blocks;
            }
        }
}

} // namespace
} // namespace velmora::tools
