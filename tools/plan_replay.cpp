#include "plan_replay.hpp"

#include <algorithm>
#include <cstring>
#include <functional>
#include <optional>
#include <stdexcept>

#include "kernel/mm/mm/MM_Core.h"
#include "kernel/mm/mmi/MM_Interface.h"
#include "controller/device.h"
#include "host/machine.h"
#include "units.hpp"

namespace velmora::tools {

namespace {

using Kind = PlanOperation::Kind;

constexpr std::uint32_t kAreaStart = 0x95000000, kAreaMargins = 2U << 20;

void boot(std::uint32_t area)
{
    const std::uint32_t end = kAreaStart + kAreaMargins + area;
    sim::bootController(kAreaStart, end, std::max(sim::kRamBytes, end - sim::kPageOffset));
    sim::machine().faults.touchLimit = 1UL << 28; // a command that makes more accesses does not end
}

class Play
{
public:
    Play(const PlanRecording& recording, const PlanLayout& layout, PlanDepth depth)
        : recording_(recording), layout_(layout), depth_(depth), handles_(recording.segments.size()),
          asked_(recording.segments.size()), live_(recording.freed.size())
    {
        result_.use.resize(recording.segments.size());
    }

    PlanResult run()
    {
        result_.impossible = unfit(layout_, recording_);
        if (!result_.impossible.empty())
            return std::move(result_);
        boot(layout_.area);
        for (const PlanOperation& operation : recording_.operations) {
            play(operation);
            if (!result_.impossible.empty() || (depth_ == PlanDepth::Verdict && result_.refused != 0))
                break;
            watch(operation.line);
            sim::machine().takeLog();
        }
        return std::move(result_);
    }

private:
    struct Live {
        U32 address = 0; // 0: nothing, or released
        std::uint32_t bytes = 0;
        std::uint32_t segment = 0; // that was asked
        std::uint32_t place = 0;   // that served it
        std::uint8_t owner = 0;
    };

    // What an entry of the manager answers.
    U32 ask(const PlanOperation& operation, const std::function<U32()>& entry)
    {
        const sim::Outcome outcome = sim::machine().run(entry);
        if (outcome.returned())
            return outcome.value;
        result_.impossible = outcome.describe("line " + std::to_string(operation.line)) + " and stops the controller";
        return EERR;
    }

    void play(const PlanOperation& operation)
    {
        switch (operation.kind) {
        case Kind::Table: ask(operation, [&] { return MM_Entry(operation.owner); }); break;
        case Kind::Start: start(operation); break;
        case Kind::Create: create(operation); break;
        case Kind::Malloc: allocate(operation); break;
        case Kind::Free: release(operation); break;
        case Kind::Collect: collect(operation); break;
        case Kind::Delete:
        case Kind::Clear: {
            MM_U8 name[4];
            std::memcpy(name, operation.name, sizeof name);
            ask(operation, [&] {
                operation.kind == Kind::Delete ? MM_DeleteSegment(name) : MM_ClearSegment(name);
                return U32(ENOERR);
            });
        }
        }
    }

    void start(const PlanOperation& operation)
    {
        if (ask(operation, [&] { return MM_LibEntry(operation.owner, nullptr); }) != ENOERR &&
            result_.impossible.empty())
            result_.impossible =
                "the area is too small for the fixed segments (line " + std::to_string(operation.line) + ")";
        std::ranges::fill(handles_, std::nullopt);
        std::ranges::fill(live_, Live{});
        std::ranges::fill(asked_, 0);
    }

    void create(const PlanOperation& operation)
    {
        const PlanSegment& planned = layout_.segments[operation.segment];
        TSegInfoFromApp request = recording_.segments[operation.segment].request;
        if (request.ubType != FIXED)
            request.ulSegSize = planned.bytes;
        request.ulBlkSize = planned.block;
        request.ubMap = static_cast<U8>(planned.map);
        request.ubVM = planned.overflow ? 1 : 0;
        const U32 result = ask(operation, [&] { return MM_CreateSegment(&request); });
        if (!result_.impossible.empty())
            return;
        if (result != ENOERR || !servesRequests(request)) {
            result_.impossible = "the layout cannot hold its segments: there is no room for " +
                                 recording_.segments[operation.segment].name + " (line " +
                                 std::to_string(operation.line) + ")";
            return;
        }
        handles_[operation.segment] = request.hulHandle;
        PlanUse& use = result_.use[operation.segment];
        use.usable = stSegTable[request.hulHandle].ulTotalBlkNum << stSegTable[request.hulHandle].ubBlkBit;
        use.longest = use.longestLine == 0 ? 0xFFFFFFFF : use.longest;
    }

    // A creation may succeed although the segment could not be started.
    static bool servesRequests(const TSegInfoFromApp& request)
    {
        const TMMSegInfo& entry = stSegTable[request.hulHandle];
        return entry.pfnAlloc != nullptr && entry.ulTotalBlkNum != 0;
    }

    void allocate(const PlanOperation& operation)
    {
        const auto handle = handles_[operation.segment];
        const auto owner = static_cast<U8>(operation.owner);
        const U32 address =
            handle ? ask(operation, [&] { return MM_Malloc(*handle, operation.bytes, owner); }) : MM_FAILED;
        if (!result_.impossible.empty())
            return;
        if (address == 0 || address == MM_FAILED) {
            refuse(operation);
            return;
        }
        const bool overflowed = !recording_.segments[operation.segment].isHeap() &&
                                ask(operation, [&] { return U32(MM_CheckHeapArea(MM_At(address))); }) != 0;
        const std::uint32_t place = overflowed ? heap() : operation.segment;
        live_[operation.allocation] = {address, operation.bytes, operation.segment, place, owner};
        asked_[place] += operation.bytes;
        result_.use[operation.segment].overflowed += overflowed ? 1 : 0;
    }

    std::uint32_t heap() const
    {
        const auto found = std::ranges::find_if(recording_.segments, &PlanRecording::Segment::isHeap);
        return static_cast<std::uint32_t>(found - recording_.segments.begin());
    }

    void refuse(const PlanOperation& operation)
    {
        ++result_.refused;
        ++result_.use[operation.segment].refused;
        if (result_.refusals.size() < kMostRefusals)
            result_.refusals.push_back({operation.line, operation.asker, operation.segment, operation.bytes});
    }

    void release(const PlanOperation& operation)
    {
        Live& live = live_[operation.allocation];
        const auto handle = handles_[operation.segment];
        if (live.address == 0 || !handle)
            return; // it was refused here, or collected before
        const U32 address = live.address + operation.offset;
        ask(operation, [&] { return MM_Free(*handle, MM_At(address), operation.bytes); });
        forget(live, operation.bytes);
    }

    // Of what it has, so many bytes.
    void forget(Live& live, std::uint32_t bytes)
    {
        const std::uint32_t gone = std::min(bytes, live.bytes);
        live.bytes -= gone;
        asked_[live.place] -= gone;
        if (live.bytes == 0)
            live.address = 0;
    }

    // Blocks that came to lie in the heap here are no owner's: the program would have released them one by one, where it does
    // not do so anyway.
    void collect(const PlanOperation& operation)
    {
        const auto handle = handles_[operation.segment];
        if (!handle)
            return;
        ask(operation, [&] { return MM_CollectGarbage(*handle, static_cast<U8>(operation.owner)); });
        if (layout_.segments[operation.segment].map == 0)
            return; // nothing is collected without owners
        for (std::size_t number = 0; number < live_.size(); ++number) {
            Live& live = live_[number];
            if (live.address == 0 || live.segment != operation.segment ||
                (live.owner & operation.owner) != operation.owner)
                continue;
            if (live.place != live.segment) {
                if (recording_.freed[number])
                    continue;
                ask(operation, [&] { return MM_Free(*handle, MM_At(live.address), live.bytes); });
            }
            forget(live, live.bytes);
        }
    }

    void watch(unsigned line)
    {
        bool changed = false;
        for (std::size_t at = 0; at < handles_.size(); ++at) {
            if (!handles_[at])
                continue;
            const TMMSegInfo& entry = stSegTable[*handles_[at]];
            PlanUse& use = result_.use[at];
            const std::uint32_t used = entry.ulTotalAllocBlkNum << entry.ubBlkBit;
            if (used > use.peak) {
                use.peak = used;
                use.peakLine = line;
                use.waste = used - std::min(used, asked_[at]);
            }
            const std::uint32_t longest = entry.ulLargestBlkSize << entry.ubBlkBit;
            if (longest < use.longest) {
                use.longest = longest;
                use.longestLine = line;
            }
            changed = true;
        }
        if (depth_ == PlanDepth::WithMoments && changed)
            note(line);
    }

    void note(unsigned line)
    {
        PlanMoment moment{line, std::vector<std::uint32_t>(handles_.size())};
        for (std::size_t at = 0; at < handles_.size(); ++at)
            if (handles_[at])
                moment.used[at] = stSegTable[*handles_[at]].ulTotalAllocBlkNum << stSegTable[*handles_[at]].ubBlkBit;
        if (result_.moments.empty() || result_.moments.back().used != moment.used)
            result_.moments.push_back(std::move(moment));
    }

    const PlanRecording& recording_;
    const PlanLayout& layout_;
    PlanDepth depth_;
    PlanResult result_;
    std::vector<std::optional<U32>> handles_; // of each segment, while it is there
    std::vector<std::uint32_t> asked_;        // bytes in each segment that somebody asked for
    std::vector<Live> live_;                  // of each allocation
};

} // namespace

PlanResult playRecording(const PlanRecording& recording, const PlanLayout& layout, PlanDepth depth)
{
    try {
        PlanResult result = Play(recording, layout, depth).run();
        for (PlanUse& use : result.use)
            if (use.longest == 0xFFFFFFFF)
                use.longest = 0; // it never served
        return result;
    } catch (const Error& error) {
        PlanResult result;
        result.impossible = error.what();
        result.use.resize(recording.segments.size());
        return result;
    }
}

} // namespace velmora::tools
