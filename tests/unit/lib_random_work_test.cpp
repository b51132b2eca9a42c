// Random work on all kinds of segments, compared after every step with a plain picture of memory: for each block, whom
// it belongs to. A failure names the seed and the step; the seed is also the test's parameter.
#include <memory>
#include <random>

#include "support/allocator_fixture.h"

namespace velmora::test {
namespace {

constexpr U32 kSteps = 300;
constexpr U32 kBlockSizes[] = {16, 64, 100, 1024, 4096};
constexpr U8 kMapWidths[] = {0, 1, 2, 4, 8};

class Picture;

// Memory that somebody was given: in which segment, for which owner, and the byte that he wrote all over it.
struct Grant {
    Picture* segment;
    U32 address;
    U32 blocks;
    U8 owner;
    U8 content;
};

// What a segment must look like.
class Picture
{
public:
    Picture(U32 handle, U32 unitBytes, bool overflows) : handle(handle), unitBytes(unitBytes), overflows(overflows) {}
    virtual ~Picture() = default;

    // Where blocks must be found, 0 when there is no room; takes them.
    virtual U32 take(U32 blocks, U8 owner) = 0;
    virtual void giveBack(U32 address, U32 blocks) = 0;
    virtual bool mayGiveBack(const Grant&) const { return true; }
    virtual U32 total() const = 0;
    virtual U32 free() const = 0;
    virtual U32 largest() const = 0;
    virtual U8 mapBits() const { return 0; }

    const U32 handle;
    const U32 unitBytes; // of a block in memory: the power of two at or below the block size
    const bool overflows;
};

// A block segment or the heap: stretches of blocks, each block with its owner.
class BlockPicture : public Picture
{
public:
    static constexpr int kFree = -1;
    struct Stretch {
        U32 start, end; // of the blocks; part of a block may remain before the end
        U32 mapStart, mapEnd;
        std::vector<int> owner; // by block, kFree when nobody has it
    };
    struct Run {
        U32 address, blocks;
        bool operator==(const Run&) const = default;
    };

    BlockPicture(U32 handle, U32 unitBytes, bool overflows, U8 bits, std::vector<Stretch> stretches)
        : Picture(handle, unitBytes, overflows), bits_(bits), stretches_(std::move(stretches))
    {
        for (Stretch& stretch : stretches_)
            stretch.owner.assign((stretch.end - stretch.start) / unitBytes, kFree);
    }

    // The top of the highest run that is long enough.
    U32 take(U32 blocks, U8 owner) override
    {
        const std::vector<Run> free = runs();
        for (auto run = free.rbegin(); run != free.rend(); ++run)
            if (run->blocks >= blocks) {
                const U32 address = run->address + (run->blocks - blocks) * unitBytes;
                mark(address, blocks, kFree, owner);
                return address;
            }
        return 0;
    }
    void giveBack(U32 address, U32 blocks) override { mark(address, blocks, -2, kFree); }

    void claim(U32 address, U32 blocks) { mark(address, blocks, kFree, 0); }

    std::vector<Run> runs() const
    {
        std::vector<Run> found;
        for (const Stretch& stretch : stretches_)
            for (U32 i = 0; i < stretch.owner.size(); ++i) {
                if (stretch.owner[i] != kFree)
                    continue;
                if (i == 0 || stretch.owner[i - 1] != kFree)
                    found.push_back({stretch.start + i * unitBytes, 0});
                ++found.back().blocks;
            }
        return found;
    }
    U32 total() const override
    {
        std::size_t blocks = 0;
        for (const Stretch& stretch : stretches_)
            blocks += stretch.owner.size();
        return static_cast<U32>(blocks);
    }
    U32 free() const override
    {
        U32 blocks = 0;
        for (const Run& run : runs())
            blocks += run.blocks;
        return blocks;
    }
    U32 largest() const override
    {
        U32 blocks = 0;
        for (const Run& run : runs())
            blocks = std::max(blocks, run.blocks);
        return blocks;
    }

    U8 mapBits() const override { return bits_; }
    // Clean-up counts from the end of the data: it meets the blocks only when they reach that end.
    bool canBeCleaned() const
    {
        return bits_ != 0 && std::all_of(stretches_.begin(), stretches_.end(), [this](const Stretch& stretch) {
                   return (stretch.end - stretch.start) % unitBytes == 0;
               });
    }
    // Clean-up by an owner: takes from everybody whose mark holds all the owner's bits.
    static bool isCleaned(int mark, U8 owner) { return owner != 0 && mark > 0 && (mark & owner) == owner; }
    void clean(U8 owner)
    {
        for (Stretch& stretch : stretches_)
            for (int& mark : stretch.owner)
                if (isCleaned(mark, owner))
                    mark = kFree;
    }

    // What the map of a stretch must hold: the last block in the lowest bits of the last byte.
    std::vector<U8> map(const Stretch& stretch) const
    {
        std::vector<U8> bytes(stretch.mapEnd - stretch.mapStart);
        const std::size_t blocks = stretch.owner.size();
        for (std::size_t i = 0; i < blocks; ++i) {
            const std::size_t bit = (blocks - 1 - i) * bits_;
            if (stretch.owner[i] > 0)
                bytes[bytes.size() - 1 - bit / 8] |= static_cast<U8>(stretch.owner[i] << bit % 8);
        }
        return bytes;
    }
    const std::vector<Stretch>& stretches() const { return stretches_; }

private:
    void mark(U32 address, U32 blocks, int expected, int owner)
    {
        for (Stretch& stretch : stretches_) {
            if (address < stretch.start || address >= stretch.end)
                continue;
            for (U32 i = (address - stretch.start) / unitBytes; blocks > 0; ++i, --blocks) {
                ASSERT_TRUE(expected == kFree ? stretch.owner.at(i) == kFree : stretch.owner.at(i) != kFree);
                stretch.owner[i] = owner;
            }
        }
        ASSERT_EQ(blocks, 0U);
    }

    U8 bits_;
    std::vector<Stretch> stretches_;
};

// A stack: pieces from the end downwards, each a multiple of four bytes.
class StackPicture : public Picture
{
public:
    StackPicture(U32 handle, U32 unitBytes, bool overflows, U32 total, U32 start, U32 end)
        : Picture(handle, unitBytes, overflows), total_(total), start_(start), end_(end)
    {
    }

    U32 take(U32 blocks, U8) override
    {
        if (largest() < blocks)
            return 0;
        pieces_.push_back(blocks);
        return top();
    }
    void giveBack(U32, U32) override { pieces_.pop_back(); }
    bool mayGiveBack(const Grant& grant) const override { return grant.address == top(); }
    U32 total() const override { return total_; }
    U32 free() const override
    {
        U32 blocks = total();
        for (const U32 piece : pieces_)
            blocks -= piece;
        return blocks;
    }
    U32 largest() const override { return (top() - start_) / unitBytes; }
    U32 top() const
    {
        U32 address = end_;
        for (const U32 piece : pieces_)
            address -= (piece * unitBytes + 3) / 4 * 4;
        return address;
    }

private:
    U32 total_, start_, end_;
    std::vector<U32> pieces_;
};

class RandomWork : public AllocatorTest, public ::testing::WithParamInterface<U32>
{
protected:
    // A number below the limit.
    U32 any(U32 limit) { return random() % limit; }

    static U32 unitOf(U32 blockBytes)
    {
        U32 unit = 1;
        while (unit * 2 <= blockBytes)
            unit *= 2;
        return unit;
    }

    struct Kind {
        U32 blockBytes;
        U8 mapBits;
        U8 semaphore;
        bool overflows;
    };
    Kind anyKind() { return {kBlockSizes[any(5)], kMapWidths[any(5)], static_cast<U8>(any(2)), any(2) == 0}; }

    static const TMMSegInfo& create(const char* name, U8 discipline, U32 bytes, const Kind& kind)
    {
        TSegInfoFromApp info = request(name, bytes, kind.blockBytes);
        info.ubSegDSType = discipline;
        info.ubMap = discipline == STACK ? 0 : kind.mapBits;
        info.ubSemaphore = kind.semaphore;
        info.ubVM = kind.overflows ? 1 : 0;
        EXPECT_EQ(MM_CreateSegment(&info), U32(ENOERR));
        return stSegTable[info.hulHandle];
    }

    void createBlockSegment(const char* name, const Kind& kind)
    {
        const U32 unit = unitOf(kind.blockBytes);
        const U32 units = 30 + any(kind.blockBytes <= 100 && any(4) == 0 ? 500 : 40);
        // The bytes beyond whole units keep the last block inside when the start is aligned to 100.
        const TMMSegInfo& seg = create(name, LINKEDLIST, unit * units + (kind.blockBytes == unit ? 0 : 60), kind);
        const U32 start = MM_Addr(seg.pubStartAddr);
        const U32 end = kind.mapBits != 0 ? MM_Addr(seg.pubEndAddr) : start + seg.ulTotalBlkNum * unit;
        const BlockPicture::Stretch stretch{start, end, MM_Addr(seg.pubMapStartAddr), MM_Addr(seg.pubMapEndAddr), {}};
        blockSegments.push_back(std::make_unique<BlockPicture>(seg.stInfoFromApp.hulHandle, unit, kind.overflows,
                                                               kind.mapBits, std::vector{stretch}));
    }

    void createStackSegment(const Kind& kind)
    {
        const TMMSegInfo& seg = create("STCK", STACK, kind.blockBytes * (16 + any(48)), kind);
        stack = std::make_unique<StackPicture>(seg.stInfoFromApp.hulHandle, unitOf(kind.blockBytes), kind.overflows,
                                               seg.ulTotalBlkNum, MM_Addr(seg.pubStartAddr), MM_Addr(seg.pubEndAddr));
    }

    void createHeapInPieces(const Kind& kind)
    {
        std::vector<FreeNode> pieces;
        const U32 count = 1 + any(MAX_PIECE_NUM); // each above the 128 bytes that are left out of the heap
        for (U32 i = 0; i < count; ++i)
            pieces.push_back({kHeap + i * 0x100000 + 4 * any(64), 132 + kind.blockBytes * (6 + any(20)) + 4 * any(40)});
        createHeapOf(pieces, kind.blockBytes, kind.mapBits, kind.semaphore);

        std::vector<BlockPicture::Stretch> stretches;
        for (U32 i = 0; i < count; ++i)
            stretches.push_back({stSegStartAddr.aulHeapAddr[i],
                                 stSegEndAddr.aulHeapAddr[i],
                                 stSegMapStartAddr.aulHeapAddr[i],
                                 stSegMapEndAddr.aulHeapAddr[i],
                                 {}});
        heap = std::make_unique<BlockPicture>(HEAPHANDLE, unitOf(kind.blockBytes), false, kind.mapBits, stretches);
    }

    std::vector<Picture*> segments() const
    {
        std::vector<Picture*> all{heap.get(), stack.get()};
        for (const auto& seg : blockSegments)
            all.push_back(seg.get());
        return all;
    }

    // Steps ---------------------------------------------------------------------------------------------------

    void allocate()
    {
        Picture* seg = segments()[any(static_cast<U32>(segments().size()))];
        const U32 blocks = 1 + any(any(10) == 0 ? 2 * seg->total() : 6);
        const U8 bits = seg->mapBits();
        const U8 owner = static_cast<U8>(bits == 0 ? 0 : bits == 1 ? any(2) : 1 + any(std::min(6U, (1U << bits) - 1)));
        const U32 blockBytes = stSegTable[seg->handle].stInfoFromApp.ulBlkSize;
        const U32 handle = seg->handle == HEAPHANDLE && any(2) == 0 ? U32(HEAPHANDLE_ALIAS) : seg->handle;
        const U32 got = any(2) == 0 ? MM_AllocBlock(handle, blocks, owner)
                                    : MM_Malloc(handle, (blocks - 1) * blockBytes + 1 + any(blockBytes), owner);
        U8 marked = owner;
        U32 expected = seg->take(blocks, owner);
        if (expected == 0 && seg->overflows) {
            seg = heap.get();
            marked = 0;
            expected = seg->take(blocks, 0);
        }
        ASSERT_EQ(got, expected) << blocks << " blocks of segment " << seg->handle;
        if (got == 0)
            return;
        grants.push_back({seg, got, blocks, marked, static_cast<U8>(1 + any(255))});
        fill(got, grants.back().content, blocks * seg->unitBytes);
    }

    // A release, whole or in part, under the segment's handle or, of heap memory, under a block segment's.
    void giveBack()
    {
        if (grants.empty())
            return;
        const auto index = any(static_cast<U32>(grants.size()));
        const Grant grant = grants[index];
        if (!grant.segment->mayGiveBack(grant))
            return;
        U32 first = 0, blocks = grant.blocks;
        if (grant.segment != stack.get() && any(3) == 0) {
            first = any(grant.blocks);
            blocks = 1 + any(grant.blocks - first);
        }
        U32 handle = grant.segment->handle;
        if (grant.segment == heap.get())
            handle = any(3) == 0 ? U32(HEAPHANDLE_ALIAS) : any(2) == 0 ? blockSegments[0]->handle : U32(HEAPHANDLE);
        const U32 bytes = grant.segment->unitBytes;
        EXPECT_EQ(MM_FreeBlock(handle, at(grant.address + first * bytes), blocks), U32(ENOERR));
        grant.segment->giveBack(grant.address + first * bytes, blocks);
        grants.erase(grants.begin() + static_cast<std::ptrdiff_t>(index));
        const U32 behind = grant.blocks - first - blocks;
        if (first > 0)
            grants.push_back({grant.segment, grant.address, first, grant.owner, grant.content});
        if (behind > 0)
            grants.push_back(
                {grant.segment, grant.address + (first + blocks) * bytes, behind, grant.owner, grant.content});
        // Entries of nobody are reported by maps wider than a bit.
        if (grant.segment->mapBits() > 1 && grant.owner == 0) {
            EXPECT_EQ(log(),
                      (Lines{check("((*(stTempBlk.pubyiscp) & ubBitMask ) != 0) && \"This bit is already freed!!\"",
                                   "mm/MM_FreeBlk", "MM_ClearMap")}));
        }
    }

    void collect()
    {
        const auto index = any(static_cast<U32>(blockSegments.size()) + 1);
        BlockPicture* const seg = index == 0 ? heap.get() : blockSegments[index - 1].get();
        if (!seg->canBeCleaned())
            return;
        const U8 owner = static_cast<U8>(any(std::min(7U, 1U << seg->mapBits())));
        EXPECT_EQ(MM_CollectGarbage(seg->handle, owner), U32(ENOERR));
        seg->clean(owner);
        std::erase_if(grants, [=](const Grant& grant) {
            return grant.segment == seg && BlockPicture::isCleaned(grant.owner, owner);
        });
    }

    // The last blocks of a free run, claimed by address.
    void claim()
    {
        const auto index = any(static_cast<U32>(blockSegments.size()));
        BlockPicture* const seg = blockSegments[index].get();
        const auto free = seg->runs();
        if (seg->mapBits() > 1 || free.empty())
            return;
        const auto run = free[any(static_cast<U32>(free.size()))];
        const U32 blocks = 1 + any(run.blocks);
        const U32 address = run.address + (run.blocks - blocks) * seg->unitBytes;
        const TMMSegInfo& info = stSegTable[seg->handle];
        if (address == MM_Addr(info.pubStartAddr) || address + blocks * seg->unitBytes > MM_Addr(info.pubEndAddr))
            return;
        EXPECT_EQ(MM_ReallocBlock(seg->handle, at(address), blocks), U32(ENOERR));
        seg->claim(address, blocks);
        grants.push_back({seg, address, blocks, 0, static_cast<U8>(1 + any(255))});
        fill(address, grants.back().content, blocks * seg->unitBytes);
    }

    // Comparison ------------------------------------------------------------------------------------------------

    void expectPicture(const BlockPicture& seg) const
    {
        std::vector<BlockPicture::Run> found;
        for (const Run& run : runs(seg.handle))
            found.push_back({run.first, run.blocks});
        EXPECT_TRUE(found == seg.runs()) << "free runs of segment " << seg.handle;
        if (seg.mapBits() == 0)
            return;
        for (const auto& stretch : seg.stretches()) {
            const std::vector<U8> map = seg.map(stretch);
            EXPECT_EQ(std::memcmp(at(stretch.mapStart), map.data(), map.size()), 0) << "map of segment " << seg.handle;
        }
    }
    void compare() const
    {
        for (const Picture* seg : segments()) {
            const U32 total = seg->total(), free = seg->free();
            EXPECT_EQ(counts(seg->handle), (std::vector<U32>{total, total - free, free, seg->largest()}))
                << "segment " << seg->handle;
        }
        expectPicture(*heap);
        for (const auto& seg : blockSegments)
            expectPicture(*seg);
        EXPECT_EQ(MM_Addr(astStackStr[stack->handle].pubStackHead), stack->top());

        for (const Grant& grant : grants) {
            const U32 bytes = grant.blocks * grant.segment->unitBytes;
            const U8* const memory = at(grant.address);
            EXPECT_TRUE(memory[0] == grant.content && std::memcmp(memory, memory + 1, bytes - 1) == 0)
                << "memory at 0x" << std::hex << grant.address << " was written to";
        }
        EXPECT_FALSE(anyLockHeld());
        EXPECT_FALSE(machine().interruptsOff());
    }
    // No two of them overlap.
    void expectApart()
    {
        std::sort(grants.begin(), grants.end(), [](const Grant& a, const Grant& b) { return a.address < b.address; });
        for (std::size_t i = 1; i < grants.size(); ++i) {
            const Grant& below = grants[i - 1];
            EXPECT_LE(below.address + below.blocks * below.segment->unitBytes, grants[i].address);
        }
    }

    static constexpr U32 kHeap = 0x96000000;
    std::mt19937 random;
    std::unique_ptr<BlockPicture> heap;
    std::unique_ptr<StackPicture> stack;
    std::vector<std::unique_ptr<BlockPicture>> blockSegments;
    std::vector<Grant> grants;
};

// The seed's digits choose the first segment's block size, map width and semaphore; the rest is random.
TEST_P(RandomWork, LeavesMemoryAsThePlainPictureHasIt)
{
    const U32 seed = GetParam();
    random.seed(seed);
    start();
    createBlockSegment("MAIN",
                       {kBlockSizes[seed % 5], kMapWidths[seed / 5 % 5], static_cast<U8>(seed / 25 % 2), any(2) == 0});
    createBlockSegment("MORE", anyKind());
    Kind stackKind = anyKind();
    if (any(3) == 0)
        stackKind.blockBytes = 1 + any(3);
    createStackSegment(stackKind);
    createHeapInPieces(anyKind());
    machine().takeLog();

    for (U32 step = 0; step < kSteps && !HasFailure(); ++step) {
        SCOPED_TRACE(::testing::Message() << "seed " << seed << ", step " << step);
        const U32 choice = any(100);
        if (choice < 50)
            allocate();
        else if (choice < 85)
            giveBack();
        else if (choice < 93)
            claim();
        else
            collect();
        compare();
        expectApart();
        for (const std::string& line : log()) // nothing but a stack's rounding
            EXPECT_NE(line.find(" Push Bef ("), std::string::npos) << line;
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomWork, ::testing::Range(0U, 100U));

} // namespace
} // namespace velmora::test
