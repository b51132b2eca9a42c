#include "plan_search.hpp"

#include <algorithm>
#include <map>
#include <numeric>

#include "units.hpp"

namespace velmora::tools {

namespace {

constexpr std::uint32_t kPageBytes = 4096;
constexpr std::uint32_t kMostArea = 960U << 20;
constexpr std::uint32_t kPortions = 16; // sizes that are tried at a time, however many processes there are
constexpr unsigned kMostPasses = 16;

// Sizes that can be chosen: those of the float segments, and the rest of the area: fixed segments, heap, gaps.
struct Sizes {
    std::vector<std::uint32_t> segments; // 0: not to be chosen
    std::uint32_t rest = 0;
    bool operator==(const Sizes&) const = default;
    bool operator<(const Sizes& other) const
    {
        return segments == other.segments ? rest < other.rest : segments < other.segments;
    }

    std::uint64_t area() const
    {
        const std::uint64_t sum = std::accumulate(segments.begin(), segments.end(), std::uint64_t(rest));
        return (sum + kPageBytes - 1) / kPageBytes * kPageBytes;
    }
};

Sizes sizesOf(const PlanLayout& layout)
{
    Sizes sizes;
    for (const PlanSegment& segment : layout.segments)
        sizes.segments.push_back(segment.bytes);
    const auto sum = std::accumulate(sizes.segments.begin(), sizes.segments.end(), std::uint64_t(0));
    sizes.rest = layout.area > sum ? static_cast<std::uint32_t>(layout.area - sum) : kPageBytes;
    return sizes;
}

class Search
{
public:
    Search(const PlanRecording& recording, const PlanLayout& layout, PlanWorkers& workers)
        : recording_(recording), layout_(layout), workers_(workers)
    {
    }

    PlanSearch run()
    {
        const Sizes own = sizesOf(layout_);
        descend(enough(own), false);
        if (const auto wide = withoutOverflow(own); wide != own)
            descend(enough(wide), true);
        return std::move(search_);
    }

private:
    // The same with more and more rest, until nothing is refused.
    Sizes enough(Sizes sizes)
    {
        while (!good({sizes}).front()) {
            const std::uint64_t rest = std::uint64_t(sizes.rest) * 2;
            if (sizes.area() + sizes.rest > kMostArea)
                return {};
            sizes.rest = static_cast<std::uint32_t>(rest);
        }
        return sizes;
    }

    // Segments that overflow have room for what they now ask of the heap.
    Sizes withoutOverflow(Sizes sizes)
    {
        for (std::size_t at = 0; at < sizes.segments.size(); ++at) {
            const std::uint64_t room = kMostArea - std::min<std::uint64_t>(kMostArea, sizes.area());
            if (layout_.segments[at].overflow && sizes.segments[at] != 0)
                sizes.segments[at] +=
                    static_cast<std::uint32_t>(std::min<std::uint64_t>(sizes.rest, room)) / kPageBytes * kPageBytes;
        }
        return sizes;
    }

    // Makes one size after the other as small as it can be, until none can be smaller.
    void descend(Sizes sizes, bool restFirst)
    {
        if (sizes.segments.empty() && sizes.rest == 0)
            return;
        std::vector<std::uint32_t*> order;
        for (std::uint32_t& segment : sizes.segments)
            if (segment != 0)
                order.push_back(&segment);
        std::ranges::stable_sort(order, [](const auto* a, const auto* b) { return *a > *b; });
        order.insert(restFirst ? order.begin() : order.end(), &sizes.rest);
        Sizes before;
        for (unsigned pass = 0; pass < kMostPasses && before != sizes; ++pass) {
            before = sizes;
            for (std::uint32_t* const size : order)
                shrink(sizes, *size);
        }
        const PlanLayout layout = layoutWith(sizes);
        if (!search_.found || layout.area < search_.smallest.area)
            search_.smallest = layout;
        search_.found = true;
    }

    // size is part of sizes, and good as it is.
    void shrink(Sizes& sizes, std::uint32_t& size)
    {
        std::uint32_t refused = 0; // the nearest below that was
        for (;;) {
            std::vector<std::uint32_t> candidates;
            for (std::uint32_t part = 1; part <= kPortions; ++part) {
                const auto between = static_cast<std::uint32_t>(std::uint64_t(size - refused) * part / (kPortions + 1));
                const std::uint32_t candidate = (refused + between) / kPageBytes * kPageBytes;
                if (candidate > refused && candidate < size && (candidates.empty() || candidate != candidates.back()))
                    candidates.push_back(candidate);
            }
            if (size > refused + kPageBytes && candidates.empty())
                candidates.push_back((size - 1) / kPageBytes * kPageBytes);
            if (candidates.empty())
                return;
            std::vector<Sizes> tried;
            const std::uint32_t whole = size;
            for (const std::uint32_t candidate : candidates) {
                size = candidate;
                tried.push_back(sizes);
            }
            const std::vector<bool> served = good(tried);
            const auto first = static_cast<std::size_t>(std::ranges::find(served, true) - served.begin());
            size = first == candidates.size() ? whole : candidates[first];
            refused = first == 0 ? refused : candidates[first - 1];
        }
    }

    PlanLayout layoutWith(const Sizes& sizes) const
    {
        PlanLayout layout = layout_;
        layout.area = static_cast<std::uint32_t>(sizes.area());
        for (std::size_t at = 0; at < layout.segments.size(); ++at)
            layout.segments[at].bytes = sizes.segments[at];
        return layout;
    }

    // Which of them serve the recording. What was tried before is not tried again.
    std::vector<bool> good(const std::vector<Sizes>& all)
    {
        std::vector<PlanJob> jobs;
        std::vector<const Sizes*> asked;
        for (const Sizes& sizes : all)
            if (!known_.contains(sizes)) {
                jobs.push_back({layoutWith(sizes), PlanDepth::Verdict});
                asked.push_back(&sizes);
            }
        const std::vector<PlanResult> results = workers_.run(jobs);
        for (std::size_t at = 0; at < jobs.size(); ++at) {
            known_[*asked[at]] = results[at].good();
            search_.tries.push_back({jobs[at].layout, verdictOf(results[at], recording_)});
        }
        std::vector<bool> served;
        served.reserve(all.size());
        for (const Sizes& sizes : all)
            served.push_back(known_.at(sizes));
        return served;
    }

    const PlanRecording& recording_;
    const PlanLayout& layout_;
    PlanWorkers& workers_;
    PlanSearch search_;
    std::map<Sizes, bool> known_;
};

} // namespace

std::string verdictOf(const PlanResult& result, const PlanRecording& recording)
{
    if (!result.impossible.empty())
        return result.impossible;
    if (result.refusals.empty())
        return "";
    const PlanRefusal& first = result.refusals.front();
    return "line " + std::to_string(first.line) + ": " + recording.segments[first.segment].name + " refused " +
           bytesText(first.bytes);
}

PlanSearch searchSmallest(const PlanRecording& recording, const PlanLayout& layout, PlanWorkers& workers)
{
    return Search(recording, layout, workers).run();
}

} // namespace velmora::tools
