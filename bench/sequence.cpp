#include "sequence.hpp"

#include <fstream>
#include <numeric>
#include <random>
#include <sstream>
#include <stdexcept>

namespace bench {

namespace {

constexpr unsigned kSeed = 20110614;

// Half of the sizes up to 4 units, a third up to 16, the rest up to 64.
std::uint32_t mixedSize(std::mt19937& random)
{
    const auto between = [&](unsigned low, unsigned high) {
        return std::uniform_int_distribution<std::uint32_t>(low, high)(random);
    };
    const unsigned kind = between(0, 99);
    return kind < 50 ? between(1, 4) : kind < 85 ? between(5, 16) : between(17, 64);
}

} // namespace

std::uint64_t Sequence::liveUnits() const
{
    std::vector<std::uint32_t> held(slots);
    for (const auto* part : {&build, &ops})
        for (const Op& op : *part)
            held[op.slot] = op.units;
    return std::accumulate(held.begin(), held.end(), std::uint64_t(0));
}

Sequence churn(std::uint32_t live, unsigned occupancyPercent, std::size_t operations)
{
    std::mt19937 random(kSeed);
    Sequence sequence;
    std::vector<std::uint32_t> size(live);
    for (std::uint32_t& units : size)
        units = mixedSize(random);
    const std::uint64_t total = std::accumulate(size.begin(), size.end(), std::uint64_t(0));
    sequence.slots = live;
    sequence.areaUnits = static_cast<std::uint32_t>((total * 100 + occupancyPercent - 1) / occupancyPercent);
    for (std::uint32_t slot = 0; slot < live; ++slot)
        sequence.build.push_back({slot, size[slot]});

    struct Swap {
        std::uint32_t first, second;
    };
    std::vector<Swap> swaps(operations / 8);
    std::uniform_int_distribution<std::uint32_t> anySlot(0, live - 1);
    for (Swap& swap : swaps)
        do
            swap = {anySlot(random), anySlot(random)};
        while (swap.first == swap.second);
    const auto append = [&](const Swap& swap) {
        std::swap(size[swap.first], size[swap.second]);
        sequence.ops.insert(
            sequence.ops.end(),
            {{swap.first, 0}, {swap.second, 0}, {swap.first, size[swap.first]}, {swap.second, size[swap.second]}});
    };
    for (const Swap& swap : swaps)
        append(swap);
    for (auto swap = swaps.rbegin(); swap != swaps.rend(); ++swap)
        append(*swap); // backwards: every slot gets its first size again

    // Run in: what is measured is the steady state, not the fresh area.
    sequence.build.insert(sequence.build.end(), sequence.ops.begin(), sequence.ops.end());
    return sequence;
}

Sequence comb(std::uint32_t freeRuns, std::size_t operations)
{
    std::mt19937 random(kSeed);
    Sequence sequence;
    const std::uint32_t teeth = 2 * freeRuns - 1;
    const std::uint32_t farEnd = 16 + teeth / 6; // room for the headers of those who keep them beside each block
    const std::uint32_t guest = teeth;
    sequence.slots = teeth + 1;
    sequence.areaUnits = teeth + farEnd;
    for (std::uint32_t slot = 0; slot < teeth; ++slot)
        sequence.build.push_back({slot, 1});
    for (std::uint32_t slot = 1; slot < teeth; slot += 2)
        sequence.build.push_back({slot, 0});
    std::uniform_int_distribution<std::uint32_t> units(2, 8);
    for (std::size_t i = 0; i < operations / 2; ++i)
        sequence.ops.insert(sequence.ops.end(), {{guest, units(random)}, {guest, 0}});
    return sequence;
}

PrintJob PrintJob::read(const std::filesystem::path& file)
{
    std::ifstream stream(file);
    if (!stream)
        throw std::runtime_error("cannot read " + file.string());
    PrintJob job;
    std::vector<Step> allocation;
    for (std::string line; std::getline(stream, line);) {
        std::istringstream words(line);
        std::string kind;
        words >> kind;
        if (kind == "segment") {
            Segment& segment = job.segments.emplace_back();
            words >> segment.name >> segment.type >> segment.bytes >> segment.blockBytes >> segment.mapBits >>
                segment.overflows;
        } else if (kind == "a") {
            unsigned owner = 0;
            Step step{true, job.slots++, 0, 0, 0};
            words >> step.segment >> step.bytes >> owner;
            step.owner = static_cast<std::uint8_t>(owner);
            allocation.push_back(step);
            job.steps.push_back(step);
        } else if (kind == "r") {
            std::uint32_t slot = 0;
            words >> slot;
            Step step = allocation.at(slot);
            step.allocates = false;
            job.steps.push_back(step);
        }
        if (words.fail())
            throw std::runtime_error(file.string() + ": not understood: " + line);
    }
    return job;
}

} // namespace bench
