// Areas that are damaged in one byte, each of which "velmora-mm verify" has to find; and areas on which random work was done, in
// which it must find nothing.
//
// What damage cannot be found, because the damaged area is as good as another one that is whole:
//   - an owner's ID that became another owner's;
//   - in an owner map of one bit, the entry of an allocated block, which may be 0 or 1.
// So a changed byte of a map has to be found when the entry of a free block, or a bit of no block, is set in it, or in a map of
// 2 bits and more an allocated block's entry is 0. Every changed byte of a header has to be found.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <random>

#include "controller/device.h"
#include "kernel/mm/mm/MM_Core.h"
#include "tools/area_memory.hpp"
#include "tools/owner_map.hpp"
#include "tools/segment_entry.hpp"
#include "tools/verify_area.hpp"
#include "tools/verify_segment.hpp"

namespace velmora::tools {
namespace {

using Random = std::mt19937;

const std::vector<std::string> kLog = {"bigphysares : 0x95100000 ~ 0x9df00000"};

struct Held {
    MM_TAddr address;
    std::uint32_t bytes;
};

class DamagedAreas : public ::testing::Test
{
protected:
    DamagedAreas() { device.buildTable(); }

    void restart() { device.startLibrary(MM_SM_BKUP_OK); }

    std::optional<Held> allocate(std::uint32_t handle, std::uint32_t bytes, std::uint8_t bits, Random& random)
    {
        const std::uint32_t owners = bits == 0 ? 1 : 1U << bits;
        const std::uint32_t owner = bits > 1 ? 1 + random() % (owners - 1) : random() % owners;
        const auto address = device.allocate(handle, bytes, static_cast<std::uint8_t>(owner));
        return address ? std::optional(Held{*address, bytes}) : std::nullopt;
    }

    // Full, written over, and then free again here and there, no two next to each other: no header of an earlier run is left.
    std::uint32_t cutUp(std::uint8_t bits, std::uint32_t blockBytes, std::uint32_t blocks, Random& random)
    {
        restart();
        const std::uint32_t handle =
            device
                .createSegment(
                    {.name = "CUTS", .bytes = blocks * blockBytes, .blockBytes = blockBytes, .mapBits = bits})
                .hulHandle;
        std::vector<Held> held;
        for (std::uint32_t size = 4; size > 0;)
            if (const auto block = allocate(handle, (random() % size + 1) * blockBytes, bits, random)) {
                device.fill(block->address, 0x5A, block->bytes);
                held.push_back(*block);
            } else {
                --size;
            }
        for (std::size_t index = random() % 2; index < held.size(); index += 2 + random() % 3)
            device.release(handle, held[index].address, held[index].bytes);
        return handle;
    }

    // Work of which nothing was written over, so that headers of all ages lie about.
    std::uint32_t workedOn(std::uint8_t bits, std::uint32_t blockBytes, std::uint32_t blocks, Random& random)
    {
        restart();
        const std::uint32_t handle =
            device
                .createSegment(
                    {.name = "WORK", .bytes = blocks * blockBytes, .blockBytes = blockBytes, .mapBits = bits})
                .hulHandle;
        std::vector<Held> held;
        for (unsigned step = 0; step < 200; ++step)
            if (random() % 2 == 0 && !held.empty()) {
                std::swap(held[random() % held.size()], held.back());
                device.release(handle, held.back().address, held.back().bytes);
                held.pop_back();
            } else if (const auto block = allocate(handle, (random() % 4 + 1) * blockBytes, bits, random)) {
                held.push_back(*block);
            }
        return handle;
    }

    // The manager's own lists: where headers stand.
    static std::vector<MM_TAddr> headersOf(const TMMBlkStr* head)
    {
        std::vector<MM_TAddr> headers;
        for (; head != nullptr; head = head->pstNext)
            headers.push_back(MM_Addr(head));
        return headers;
    }

    static std::uint8_t& byteAt(MM_TAddr address) { return *MM_At(address); }

    // What a byte becomes: other bits, nothing, everything, one more, one less.
    static std::vector<std::uint8_t> damagesTo(std::uint8_t byte)
    {
        std::vector<std::uint8_t> values = {0, 0xFF, static_cast<std::uint8_t>(byte + 1),
                                            static_cast<std::uint8_t>(byte - 1)};
        for (unsigned bit = 0; bit < 8; ++bit)
            values.push_back(static_cast<std::uint8_t>(byte ^ 1U << bit));
        std::sort(values.begin(), values.end());
        values.erase(std::unique(values.begin(), values.end()), values.end());
        std::erase(values, byte);
        return values;
    }

    // Each value that the byte can be damaged to: whether it is found is as it should be.
    template <class IsFound, class IsToBeFound> void damage(MM_TAddr address, IsFound isFound, IsToBeFound isToBeFound)
    {
        const std::uint8_t sound = byteAt(address);
        for (const std::uint8_t value : damagesTo(sound)) {
            if (!isToBeFound(value))
                continue;
            byteAt(address) = value;
            EXPECT_TRUE(isFound()) << "0x" << std::hex << address << ": " << unsigned(sound) << " became "
                                   << unsigned(value);
            ++damages;
        }
        byteAt(address) = sound;
    }

    void damageHeaders(std::uint32_t handle)
    {
        ASSERT_EQ(checkSegment(device, handle).findings.size(), 0U);
        ASSERT_EQ(checkSegment(device, handle).unchecked.size(), 0U);
        const auto found = [&] { return !checkSegment(device, handle).findings.empty(); };
        for (const MM_TAddr header : headersOf(astBlkHead[handle].pstBlk))
            for (std::uint32_t byte = 0; byte < kHeaderBytes; ++byte)
                damage(header + byte, found, [](std::uint8_t) { return true; });
    }

    void damageMap(std::uint32_t handle)
    {
        const MM_TMMSegInfoWire entry = usedEntry(device, handle).value();
        const OwnerMap map(device, entry);
        std::vector<bool> free(map.blocks());
        for (const TMMBlkStr* run = astBlkHead[handle].pstBlk; run != nullptr; run = run->pstNext)
            for (std::uint32_t block = 0; block < run->ulSize; ++block)
                free[(MM_Addr(run) - entry.pubStartAddr) / strideOf(entry) + block] = true;
        const auto found = [&] { return !checkSegment(device, handle).findings.empty(); };
        const unsigned bits = map.bits(), perByte = 8 / bits;
        const auto bytes = static_cast<std::uint32_t>(map.bytes().size());
        for (std::uint32_t byte = 0; byte < bytes; byte += byte < 4 || byte + 20 > bytes ? 1 : 11)
            damage(entry.pubMapStartAddr + byte, found, [&](std::uint8_t value) {
                for (unsigned index = 0; index < perByte; ++index) {
                    const std::uint32_t fromEnd = (bytes - 1 - byte) * perByte + index;
                    const unsigned owner = value >> index * bits & ((1U << bits) - 1);
                    const bool isBlock = fromEnd < map.blocks();
                    if (owner != 0 ? !isBlock || free[map.blocks() - 1 - fromEnd]
                                   : isBlock && bits > 1 && !free[map.blocks() - 1 - fromEnd])
                        return true;
                }
                return false;
            });
    }

    unsigned damages = 0;
    Device device = [] {
        sim::bootController();
        return Device(sim::openDevice());
    }();
};

TEST_F(DamagedAreas, EveryByteOfEveryHeaderIsFound)
{
    Random random(1);
    for (const std::uint8_t bits : {0, 1, 2, 4, 8})
        for (const std::uint32_t blockBytes : {16, 64, 4096}) {
            SCOPED_TRACE("map " + std::to_string(bits) + ", blocks of " + std::to_string(blockBytes));
            damageHeaders(cutUp(bits, blockBytes, 40, random));
        }
    EXPECT_GT(damages, 9000U);
}

TEST_F(DamagedAreas, EveryByteOfEveryHeaderOfManyRunsIsFound)
{
    Random random(2);
    for (const std::uint8_t bits : {0, 8})
        damageHeaders(cutUp(bits, 64, 500, random));
}

TEST_F(DamagedAreas, HeadersAreFoundAmongThoseOfThePastWhereEveryBlockHasAnOwner)
{
    Random random(3);
    for (const std::uint8_t bits : {2, 4, 8})
        damageHeaders(workedOn(bits, 64, 60, random));
}

TEST_F(DamagedAreas, BytesOfOwnerMapsAreFoundWhereTheyCan)
{
    Random random(4);
    for (const std::uint8_t bits : {1, 2, 4, 8})
        for (const std::uint32_t blockBytes : {16, 4096}) {
            SCOPED_TRACE("map " + std::to_string(bits) + ", blocks of " + std::to_string(blockBytes));
            damageMap(cutUp(bits, blockBytes, 150, random));
            if (bits > 1 && blockBytes == 16)
                damageMap(workedOn(bits, blockBytes, 150, random));
        }
    EXPECT_GT(damages, 1500U);
}

TEST_F(DamagedAreas, EveryByteOfFreeMemorysHeadersIsFound)
{
    restart();
    device.createSegment({.name = "FRST", .bytes = 0x8000, .blockBytes = 0x1000});
    device.createSegment({.name = "ALGN", .bytes = 0x8000, .blockBytes = 0x10000, .type = MM_FLOATALIGN});
    device.createSegment({.name = "MORE", .bytes = 0x10000, .blockBytes = 0x20000, .type = MM_FLOATALIGN});
    device.createSegment({.name = "STCK", .bytes = 0x1000, .blockBytes = 64, .discipline = MM_STACK});
    ASSERT_EQ(headersOf(pstSegBlkHead).size(), 3U);
    ASSERT_EQ(checkArea(device, kLog).findings.size(), 0U);
    ASSERT_EQ(checkArea(device, kLog).memory, 3U);
    for (const MM_TAddr header : headersOf(pstSegBlkHead))
        for (std::uint32_t byte = 0; byte < kHeaderBytes; ++byte)
            damage(
                header + byte, [&] { return !checkArea(device, kLog).findings.empty(); },
                [](std::uint8_t) { return true; });
}

// Links that would lead a reader astray.
TEST_F(DamagedAreas, LinksThatNeverEndOrLeadOutOfMemoryAreComeBackFrom)
{
    Random random(5);
    for (const std::uint8_t bits : {0, 8}) {
        const std::uint32_t handle = cutUp(bits, 64, 200, random);
        const std::vector<MM_TAddr> headers = headersOf(astBlkHead[handle].pstBlk);
        const MM_TAddr first = headers.front(), last = headers.back();
        const std::vector<std::array<MM_TAddr, 2>> links = {{first, first},
                                                            {last, first},
                                                            {last, last},
                                                            {first, 0xFFFFFFFC},
                                                            {first, 1},
                                                            {first, 3},
                                                            {first + 4, 12},
                                                            {last + 4, 0x8000},
                                                            {headers[3], headers[2]},
                                                            {headers[3] + 8, 0},
                                                            {last + 8, ~0U},
                                                            {first + 8, 0x80000000},
                                                            {headers[1], headers[2] + 1},
                                                            {headers[1], headers[2] + 4}};
        for (const auto& [field, link] : links) {
            const MM_TAddr before = *MM_At<U32>(field);
            *MM_At<U32>(field) = link;
            EXPECT_FALSE(checkSegment(device, handle).findings.empty());
            *MM_At<U32>(field) = before;
        }
        // All of them at once lead in a circle.
        for (std::size_t index = 0; index < headers.size(); ++index) {
            *MM_At<U32>(headers[index]) = headers[(index + 1) % headers.size()];
            *MM_At<U32>(headers[index] + 4) = headers[(index + headers.size() - 1) % headers.size()];
        }
        EXPECT_FALSE(checkSegment(device, handle).findings.empty());
    }
}

// Random work without a mistake of the clients: no gap in front of an aligned segment is smaller than the 12 bytes that the
// manager writes into it, and no heap is made of gaps that are smaller than its blocks.
class RandomWork
{
public:
    RandomWork(Device& device, unsigned seed) : device_(device), random_(seed)
    {
        device.startLibrary(MM_SM_BKUP_OK);
        if (chance(2))
            create({.name = "$JCB", .bytes = 0, .blockBytes = 256, .type = MM_FIXED});
        for (unsigned index = 0, segments = 1 + random_() % 5; index < segments; ++index)
            create(request(index));
        if (chance(3) && !hasGaps_)
            create({.name = "HEAP", .bytes = 0, .blockBytes = 0x1000, .mapBits = bits(), .locked = false});
    }

    void step()
    {
        Party& party = parties_[random_() % parties_.size()];
        const bool isStack = party.request.discipline == MM_STACK;
        if (chance(2) && !party.held.empty()) {
            if (!isStack)
                std::swap(party.held[random_() % party.held.size()], party.held.back());
            device_.release(party.handle, party.held.back().address, party.held.back().bytes);
            party.held.pop_back();
            return;
        }
        const std::uint32_t bytes = (1 + random_() % 5) * party.request.blockBytes;
        const unsigned width = party.request.mapBits;
        const std::uint32_t owner = width > 1 ? 1 + random_() % ((1U << width) - 1) : width == 1 ? random_() % 2 : 0;
        const auto address = device_.allocate(party.handle, bytes, static_cast<std::uint8_t>(owner));
        if (!address)
            return;
        party.held.push_back({*address, bytes});
        if (std::has_single_bit(party.request.blockBytes) && chance(2)) // else a block reaches into the next
            device_.fill(*address, static_cast<std::uint8_t>(chance(2) ? random_() : 0), bytes);
    }

private:
    struct Party {
        std::uint32_t handle;
        SegmentRequest request;
        std::vector<Held> held;
    };

    bool chance(unsigned of) { return random_() % of == 0; }
    std::uint8_t bits()
    {
        constexpr std::uint8_t kBits[] = {0, 1, 2, 4, 8};
        return kBits[random_() % 5];
    }

    SegmentRequest request(unsigned index)
    {
        constexpr std::uint32_t kBlocks[] = {16, 64, 256, 4096, 100, 3000};
        SegmentRequest request{.name = "SEG" + std::to_string(index), .locked = false};
        request.blockBytes = kBlocks[random_() % 6];
        request.bytes = (request.blockBytes * (8 + random_() % 60) + random_() % 4 * 4 + 63) / 64 * 64;
        if (chance(5)) {
            request.discipline = MM_STACK;
        } else {
            request.mapBits = bits();
            if (chance(4) && std::has_single_bit(request.blockBytes))
                request.type = MM_FLOATALIGN;
            hasGaps_ = hasGaps_ || request.type == MM_FLOATALIGN;
        }
        return request;
    }

    void create(const SegmentRequest& request)
    {
        parties_.push_back({device_.createSegment(request).hulHandle, request, {}});
    }

    Device& device_;
    Random random_;
    bool hasGaps_ = false; // in free memory
    std::vector<Party> parties_;
};

TEST_F(DamagedAreas, NothingIsFoundAfterRandomWork)
{
    for (unsigned seed = 1; seed <= 2000 && !HasFailure(); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        RandomWork work(device, seed);
        for (unsigned step = 0; step < 60; ++step) {
            work.step();
            if (step % 20 != 19)
                continue;
            Report report = checkArea(device, kLog);
            for (std::uint32_t handle = 0; handle < MM_HEAPHANDLE; ++handle)
                report.add(checkSegment(device, handle));
            for (const Finding& finding : report.findings)
                ADD_FAILURE() << "step " << step << ": " << finding.subject.segment << " 0x" << std::hex
                              << finding.address << " " << nameOf(finding.rule) << ": " << finding.what;
        }
    }
}

} // namespace
} // namespace velmora::tools
