#include "plan_recording.hpp"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <map>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "recording.hpp"
#include "units.hpp"

namespace velmora::tools {

namespace {

using Kind = PlanOperation::Kind;

constexpr std::string_view kAskedBy = "# asked by ";
constexpr std::uint32_t kBase = 0x10000000;  // where each allocation starts while offsets are read
constexpr std::uint32_t kIndex = 0x80000000; // marks a segment's index among handles
constexpr std::uint32_t kAreaMargins = 2 << 20;

std::uint32_t areaIn(const std::string& load)
{
    std::uint32_t start = 0, end = 0;
    const char* const last = load.data() + load.size();
    const auto dash = std::from_chars(load.data(), last, start, 16);
    if (dash.ec == std::errc() && dash.ptr != last && *dash.ptr == '-')
        std::from_chars(dash.ptr + 1, last, end, 16);
    if (end <= start || end - start <= kAreaMargins)
        throw sim::SyntaxError("'" + load + "' is no area");
    return end - start - kAreaMargins;
}

class Reader : public Meanings
{
public:
    explicit Reader(PlanRecording& recording) : recording_(recording) { recording_.askers.emplace_back("a program"); }

    void read(const std::string& line, unsigned number)
    {
        line_ = number;
        if (line.starts_with(kAskedBy)) {
            ask(line.substr(kAskedBy.size()));
            return;
        }
        const std::vector<sim::Word> words = sim::splitLine(line);
        if (words.empty())
            return;
        if (words.front().text == "expect") {
            expect(words);
            return;
        }
        finish();
        if (words.front().text == "load" && words.size() == 2)
            recording_.area = areaIn(words[1].text);
        else if (isNamed(words))
            take(parseNamed(words));
        else
            ++recording_.passedOver;
    }

    // The line before has no further expectation.
    void finish()
    {
        if (!pending_)
            return;
        const unsigned line = std::exchange(line_, pendingLine_);
        add(*std::exchange(pending_, std::nullopt));
        line_ = line;
    }

    unsigned line() const { return line_; } // that is read

    std::vector<bool> used; // of each allocation: did somebody map or fill it, or ask where it lies?

private:
    struct Known {
        Allocation allocation;
        std::uint32_t number;
        std::uint32_t recordedAt; // 0: the recording does not say
    };
    struct Stretch {
        std::uint32_t start, bytes;
        bool operator==(const Stretch&) const = default;
        bool meets(const Stretch& other) const
        {
            return other.start - start < bytes || start - other.start < other.bytes;
        }
    };
    struct Placed {
        std::uint32_t number;
        Stretch lies;
    };

    std::uint32_t handleOf(const std::string& name) override
    {
        for (std::uint32_t index = 0; index < recording_.segments.size(); ++index)
            if (recording_.segments[index].name == name)
                return kIndex | index;
        throw sim::SyntaxError("there is no segment '" + name + "'");
    }
    bool isKnown(const std::string& variable) override
    {
        return allocations_.contains(variable) || handles_.contains(variable);
    }
    std::uint32_t valueOf(const std::string& variable) override
    {
        if (const auto handle = handles_.find(variable); handle != handles_.end())
            return handle->second;
        allocationOf(variable);
        return kBase;
    }
    Allocation allocationOf(const std::string& variable) override
    {
        const auto found = allocations_.find(variable);
        if (found == allocations_.end())
            throw sim::SyntaxError("nothing was given to " + variable);
        return found->second.allocation;
    }

    struct Pending {
        NamedLine line;
        Request request;
        bool refused = false;
        std::optional<std::uint32_t> handle;  // that a creation was given
        std::optional<std::uint32_t> address; // that an allocation was given
    };

    void ask(const std::string& asker)
    {
        finish();
        const auto known = std::ranges::find(recording_.askers, asker);
        asker_ = static_cast<std::uint32_t>(known - recording_.askers.begin());
        if (known == recording_.askers.end())
            recording_.askers.push_back(asker);
    }

    void expect(const std::vector<sim::Word>& words)
    {
        if (!pending_ || words.size() < 2)
            return;
        pending_->refused = pending_->refused || words[1].text == "refused" || words[1].text == "no";
        pending_->address = parseNumber(words.back().text);
        constexpr std::string_view kHandle = "handle=";
        for (const sim::Word& word : words)
            if (word.text.starts_with(kHandle))
                pending_->handle = parseNumber(word.text.substr(kHandle.size()));
    }

    void take(NamedLine line)
    {
        const std::uint32_t number = line.number();
        if (number == MM_CMD_GET_MST || number == MM_CMD_DISPLAY_MST)
            return;
        Request request = requestOf(line, *this);
        if (number == kMapping || number == MM_CMD_MEMSET || number == MM_CMD_QUERY_PHYS_ADDR) {
            noteUse(line, request);
            return;
        }
        pending_ = Pending{std::move(line), std::move(request), false, std::nullopt, std::nullopt};
        pendingLine_ = line_;
    }

    // Somebody uses the memory there. A mapping that begins outside every allocation stays: what is allocated inside it later
    // is used as well.
    void noteUse(const NamedLine& line, const Request& request)
    {
        Stretch stretch{0, 1};
        if (request.number == kMapping)
            stretch = {as<MappingRecord>(request.record).address, as<MappingRecord>(request.record).bytes};
        else if (request.number == MM_CMD_MEMSET)
            stretch = {as<MM_TMemsetInfo>(request.record).s, as<MM_TMemsetInfo>(request.record).n};
        else
            stretch.start = as<MM_TQueryPhysAddrInfo>(request.record).ulStart;
        const auto known = allocations_.find(variableOf(line.values.at(0)));
        if (known != allocations_.end()) {
            used[known->second.number] = true;
            stretch.start += known->second.recordedAt - kBase;
        } else if (request.number == kMapping && std::ranges::find(mapped_, stretch) == mapped_.end()) {
            mapped_.push_back(stretch);
        }
        for (auto place = firstMeeting(stretch); place != placed_.end() && place->second.lies.meets(stretch); ++place)
            used[place->second.number] = true;
    }

    std::map<std::uint32_t, Placed>::iterator firstMeeting(const Stretch& stretch)
    {
        const auto next = placed_.upper_bound(stretch.start);
        const auto before = next == placed_.begin() ? next : std::prev(next);
        return before != placed_.end() && before->second.lies.meets(stretch) ? before : next;
    }

    // Where the allocation lay, in the recording.
    void place(std::uint32_t number, std::uint32_t address, std::uint32_t bytes)
    {
        const Stretch place{address, bytes};
        for (auto other = firstMeeting(place); other != placed_.end() && other->second.lies.meets(place);)
            other = placed_.erase(other);
        placed_[address] = {number, place};
        used[number] =
            used[number] || std::ranges::any_of(mapped_, [&](const Stretch& one) { return one.meets(place); });
    }

    void add(const Pending& pending)
    {
        if (pending.refused) {
            recording_.refusedThen += pending.request.number == MM_CMD_MALLOC;
            if (!pending.line.result.empty())
                allocations_.erase(pending.line.result);
            return;
        }
        PlanOperation operation;
        operation.line = pendingLine_;
        operation.asker = asker_;
        if (fill(operation, pending))
            recording_.operations.push_back(operation);
    }

    // False where the line asks nothing of the memory.
    bool fill(PlanOperation& operation, const Pending& pending)
    {
        const Request& request = pending.request;
        switch (request.number) {
        case MM_CMD_ENTRY:
        case MM_CMD_LIB_ENTRY:
            operation.kind = request.number == MM_CMD_ENTRY ? Kind::Table : Kind::Start;
            operation.owner = as<MM_TLibEntryInfo>(request.record).enStartOption;
            return true;
        case MM_CMD_CREATE_SEGMENT: create(operation, pending); return true;
        case MM_CMD_MALLOC: allocate(operation, pending); return true;
        case MM_CMD_FREE: return release(operation, pending);
        case MM_CMD_COLLECT_GARBAGE: {
            const auto record = as<MM_TCollectGarbageInfo>(request.record);
            operation.kind = Kind::Collect;
            operation.segment = segmentOf(record.hulHandle);
            operation.owner = record.ubMapID;
            return true;
        }
        case MM_CMD_DELETE_SEGMENT:
        case MM_CMD_CLEAR_SEGMENT:
            operation.kind = request.number == MM_CMD_DELETE_SEGMENT ? Kind::Delete : Kind::Clear;
            std::memcpy(operation.name, request.record.data(), sizeof operation.name);
            return true;
        default: return false;
        }
    }

    void create(PlanOperation& operation, const Pending& pending)
    {
        operation.kind = Kind::Create;
        const auto request = as<MM_TSegInfoFromApp>(pending.request.record);
        const PlanRecording::Segment segment{nameText(request.aubSegID), request};
        const std::string name = segment.isHeap() ? "heap" : segment.name;
        const auto known = std::ranges::find(recording_.segments, name, &PlanRecording::Segment::name);
        operation.segment = static_cast<std::uint32_t>(known - recording_.segments.begin());
        if (known == recording_.segments.end())
            recording_.segments.push_back({name, request});
        if (pending.handle)
            byHandle_[*pending.handle] = operation.segment;
        if (segment.isHeap())
            byHandle_[MM_HEAPHANDLE] = byHandle_[MM_HEAPHANDLE_ALIAS] = operation.segment;
        if (!pending.line.result.empty())
            handles_[pending.line.result] = kIndex | operation.segment;
    }

    void allocate(PlanOperation& operation, const Pending& pending)
    {
        const auto record = as<MM_TMallocInfo>(pending.request.record);
        operation.kind = Kind::Malloc;
        operation.segment = segmentOf(record.hulHandle);
        operation.bytes = record.ulReqBytes;
        operation.owner = record.ubMapID;
        operation.allocation = static_cast<std::uint32_t>(recording_.freed.size());
        recording_.freed.push_back(false);
        used.push_back(false);
        if (pending.address)
            place(operation.allocation, *pending.address, record.ulReqBytes);
        if (!pending.line.result.empty())
            allocations_[pending.line.result] = {
                {record.hulHandle, kBase, record.ulReqBytes}, operation.allocation, pending.address.value_or(0)};
    }

    bool release(PlanOperation& operation, const Pending& pending)
    {
        const auto known = allocations_.find(variableOf(pending.line.values.at(0)));
        if (known == allocations_.end()) {
            ++recording_.passedOver;
            return false;
        }
        const auto record = as<MM_TFreeInfo>(pending.request.record);
        operation.kind = Kind::Free;
        operation.segment = segmentOf(record.hulHandle);
        operation.allocation = known->second.number;
        operation.offset = record.pubRlsAddr - kBase;
        operation.bytes = record.ulBytesNo;
        recording_.freed[operation.allocation] = true;
        if (const auto place = placed_.find(known->second.recordedAt);
            place != placed_.end() && place->second.number == operation.allocation)
            placed_.erase(place);
        return true;
    }

    std::uint32_t segmentOf(std::uint32_t handle)
    {
        if ((handle & kIndex) != 0)
            return handle & ~kIndex;
        const auto known = byHandle_.find(handle);
        if (known == byHandle_.end())
            throw sim::SyntaxError("no line before created the segment with handle " + std::to_string(handle));
        return known->second;
    }

    PlanRecording& recording_;
    unsigned line_ = 0, pendingLine_ = 0;
    std::uint32_t asker_ = 0;
    std::optional<Pending> pending_;
    std::map<std::string, Known> allocations_;
    std::map<std::string, std::uint32_t> handles_;
    std::map<std::uint32_t, std::uint32_t> byHandle_;
    std::map<std::uint32_t, Placed> placed_; // allocations by where they lay; none meets another
    std::vector<Stretch> mapped_;
};

void leaveOutProbes(PlanRecording& recording, const std::vector<bool>& used)
{
    std::erase_if(recording.operations, [&](const PlanOperation& operation) {
        const bool about = operation.kind == Kind::Malloc || operation.kind == Kind::Free;
        const bool probe = about && recording.freed[operation.allocation] && !used[operation.allocation];
        recording.probes += probe && operation.kind == Kind::Malloc;
        return probe;
    });
}

} // namespace

PlanRecording readRecording(const std::string& content, const std::string& name, bool withoutProbes)
{
    if (!content.starts_with(kRecordingBegins))
        throw std::runtime_error(name + " is no recording: it does not begin with '" + std::string(kRecordingBegins) +
                                 "', as those of 'velmora-mm record' do");
    if (!content.ends_with("\n" + std::string(kRecordingEnds) + "\n"))
        throw std::runtime_error(name + " ends in the middle: its last line is not '" + std::string(kRecordingEnds) +
                                 "'");
    PlanRecording recording;
    Reader reader(recording);
    try {
        std::istringstream lines(content);
        for (std::string line; std::getline(lines, line);)
            reader.read(line, ++recording.lines);
        reader.finish();
    } catch (const sim::SyntaxError& error) {
        throw std::runtime_error(name + ", line " + std::to_string(reader.line()) + ": " + error.what());
    }
    if (recording.area == 0)
        throw std::runtime_error(name + " has no area: no line 'load \"START-END\"'");
    if (withoutProbes)
        leaveOutProbes(recording, reader.used);
    return recording;
}

} // namespace velmora::tools
