#include "behaved.hpp"

#include "../harness.hpp"
#include "random.hpp"
#include "segments.hpp"

namespace target::hostile {

namespace {

struct Block {
    std::uint32_t handle, address, bytes, pattern;
};

// Runs a function on each word of a block; the device maps whole pages.
template <class Visit> void visitWords(const Descriptor& device, const Block& block, Visit visit)
{
    const std::uint32_t first = block.address & ~(kPageBytes - 1);
    const std::uint32_t past = (block.address + block.bytes + kPageBytes - 1) & ~(kPageBytes - 1);
    const View view(device, first, past - first);
    auto* const words = reinterpret_cast<volatile std::uint32_t*>(&view[block.address - first]);
    for (std::uint32_t i = 0; i < block.bytes / 4; ++i)
        visit(words[i], block.pattern + i);
}

void giveBack(const Descriptor& device, const Block& block)
{
    visitWords(device, block, [&block](volatile std::uint32_t& word, std::uint32_t expected) {
        if (word != expected)
            throw Failure("the block at " + shown(block.address) + " is not as it was left");
    });
    CHECK_EQUAL(release(device, block.handle, block.address, block.bytes), 0);
}

} // namespace

void behave(std::uint32_t seed, std::uint8_t owner, const std::vector<std::uint32_t>& segments,
            std::chrono::steady_clock::time_point until, Ledger& ledger)
{
    const Descriptor device;
    Random random(seed);
    std::vector<Block> held;
    for (unsigned steps = 0; steps < 100 || std::chrono::steady_clock::now() < until; ++steps) {
        ledger.countStep();
        if (held.size() < 40 && random.below(5) < 3) {
            const std::uint32_t handle = segments[random.below(static_cast<std::uint32_t>(segments.size()))];
            Block block = {handle, 0, 4 * (1 + random.below(1500)), random.any()};
            block.address = allocate(device, block.handle, block.bytes, owner);
            CHECK(block.address != 0xFFFFFFFF);
            if (block.address == 0)
                continue;
            visitWords(device, block, [](volatile std::uint32_t& word, std::uint32_t value) { word = value; });
            held.push_back(block);
        } else if (!held.empty()) {
            Block& block = held[random.below(static_cast<std::uint32_t>(held.size()))];
            giveBack(device, block);
            block = held.back();
            held.pop_back();
        }
    }
    for (const Block& block : held)
        giveBack(device, block);
}

} // namespace target::hostile
