#include "recording.hpp"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "lib/command_records.hpp"
#include "lib/socket_protocol.hpp"
#include "units.hpp"

namespace velmora::tools {

namespace {

constexpr std::uint32_t kAreaMargin = 1 << 20;
constexpr std::uint32_t kUserMemory = protocol::kUserMemory;
constexpr std::uint32_t kUserMemoryEnd = kUserMemory + 0x10000; // a script has 64 KiB of it

template <class Record> std::vector<std::uint8_t> bytesOf(const Record& record)
{
    std::vector<std::uint8_t> bytes(sizeof record);
    std::memcpy(bytes.data(), &record, sizeof record);
    return bytes;
}

std::string hex(const std::vector<std::uint8_t>& bytes)
{
    return sim::toHex(bytes.data(), bytes.size());
}

// Stretches of a segment from its end down, in the order in which a fresh segment gives them away.
struct Stretch {
    MM_TAddr start;
    std::uint32_t blocks;
    std::optional<std::uint8_t> owner; // none: free
};

std::optional<std::vector<Stretch>> stretchesOf(Device& device, const SegmentUsage& usage)
{
    std::error_code error;
    const auto segment = Segment::find(device, usage.name, error);
    if (!segment)
        return std::nullopt;
    std::vector<Stretch> all;
    for (const FreeRun& run : freeRuns(*segment, error))
        all.push_back({run.start, run.blocks, std::nullopt});
    if (error)
        return std::nullopt;
    if (usage.ownerBits == 0) { // known without a map: what is taken is in one piece
        const std::uint32_t taken = usage.blocks - usage.freeBlocks;
        const bool stack = usage.discipline == Discipline::Stack;
        if (taken != 0)
            all.push_back({stack ? usage.end - taken * usage.blockStride : usage.start, taken, std::uint8_t(0)});
    } else {
        for (const OwnedRun& run : ownedRuns(*segment, error))
            all.push_back({run.start, run.blocks, static_cast<std::uint8_t>(run.owner)});
    }
    if (error)
        return std::nullopt;
    std::ranges::sort(all, std::greater(), &Stretch::start);
    return all;
}

} // namespace

std::string RecordingWriter::beginning(std::uint32_t areaStart, std::uint32_t areaEnd)
{
    char load[64];
    std::snprintf(load, sizeof load, "\nload \"%08x-%08x\"\n", areaStart - kAreaMargin, areaEnd + kAreaMargin);
    return std::string(kRecordingBegins) + load;
}

std::string RecordingWriter::asked(const Asked& asked)
{
    const std::size_t whole =
        asked.request.number == kMapping ? sizeof(MappingRecord) : recordOf(asked.request.number).bytes;
    const bool comesBack = asked.request.number != kMapping && recordOf(asked.request.number).comesBack;
    const bool allThere = whole != 0 && asked.request.record.size() >= whole;
    last_ = asked.request;
    if (allThere && (!comesBack || asked.writable >= whole)) {
        last_.record.resize(whole);
        if (auto line = lineOf(last_, *this)) {
            form_ = Form::Named;
            if (last_.number == MM_CMD_MALLOC)
                line->result = recordedVariable(++variables_);
            return textOf(*line) + "\n";
        }
    }
    return bytes(asked);
}

// In bytes, as a script without names has it. A record of which the caller had only the first bytes is put at the end of the
// script's user memory, so that its copy stops at the same byte.
std::string RecordingWriter::bytes(const Asked& asked)
{
    const std::vector<std::uint8_t>& user = asked.request.record;
    const CommandRecord record = recordOf(asked.request.number);
    const std::string command = "ioctl " + hexText(asked.request.number) + " ";
    form_ = Form::Bytes;
    if (record.bytes != 0 && user.size() >= record.bytes) {
        form_ = Form::Silent; // a script's user memory can always be written: its answer is another one
        return "# the caller had no write permission for this record:\n" + command + "{" +
               hex({user.begin(), user.begin() + static_cast<std::ptrdiff_t>(record.bytes)}) + "}\n";
    }
    if (record.bytes != 0 && !user.empty()) {
        const std::string address = addressText(kUserMemoryEnd - static_cast<std::uint32_t>(user.size()));
        return "# the caller had only the first " + std::to_string(user.size()) + " bytes of this record:\npoke " +
               address + " " + hex(user) + "\n" + command + address + "\n";
    }
    const bool exists = asked.address >= kUserMemory && asked.address < kUserMemoryEnd;
    return command + addressText(exists ? kUserMemoryEnd : asked.address) + "\n";
}

std::string RecordingWriter::answered(const Answer& answer)
{
    if (form_ == Form::Silent)
        return "";
    if (form_ == Form::Bytes)
        return "expect = " + std::to_string(answer.result) + "\n";
    const std::string words = wordsOf(last_, answer);
    remember(last_, answer);
    return (words.starts_with("refused") || words == "no room" ? "expect " : "expect = ") + words + "\n";
}

void RecordingWriter::remember(const Request& request, const Answer& answer)
{
    if (request.number == MM_CMD_LIB_ENTRY) {
        segments_.clear();
    } else if (request.number == MM_CMD_CREATE_SEGMENT && answer.result == 0) {
        const auto made = as<MM_TSegInfoFromApp>(answer.record);
        segments_[made.hulHandle] = nameText(made.aubSegID);
    } else if (request.number == MM_CMD_MALLOC && answer.result == 0) {
        const auto made = as<MM_TMallocInfo>(answer.record);
        const Allocation allocation{made.hulHandle, made.pubStart, made.ulReqBytes};
        auto other = allocations_.upper_bound(allocation.start); // overlapping ones are gone
        if (other != allocations_.begin() && std::prev(other)->second.allocation.contains(allocation.start))
            --other;
        while (other != allocations_.end() && (other->first < allocation.start || allocation.contains(other->first)))
            other = allocations_.erase(other);
        allocations_[allocation.start] = {recordedVariable(variables_), allocation};
    }
}

std::optional<std::string> RecordingWriter::segmentName(std::uint32_t handle) const
{
    const auto segment = segments_.find(handle);
    return segment == segments_.end() ? std::nullopt : std::optional(segment->second);
}

std::optional<Names::Known> RecordingWriter::allocationAt(std::uint32_t address) const
{
    auto next = allocations_.upper_bound(address);
    if (next == allocations_.begin() || !(--next)->second.allocation.contains(address))
        return std::nullopt;
    return next->second;
}

// A command that nobody asked for now: it stands for some that were asked before.
std::string RecordingWriter::made(const Request& request, const Answer& answer)
{
    const std::string line = asked({request, kUserMemory, request.record.size()});
    return line + answered(answer);
}

std::string RecordingWriter::state(Device& device)
{
    const auto row = device.tableRow(0);
    if (!row || row->pubStartAddr == 0)
        return "# Nothing had been asked of the controller before.\n";
    std::string text =
        "# The controller was running before. These lines make its segments and blocks as they were when the "
        "recording began.\n";
    text += made({MM_CMD_ENTRY, bytesOf(MM_TMMInitOption(0))}, {0, {}});
    text += made({MM_CMD_LIB_ENTRY, bytesOf(MM_TLibEntryInfo{})}, {0, {}});
    for (const SegmentUsage& usage : segments(device))
        text += stateOf(device, usage);
    return text +
           "# Whether there was a heap, and what it held, no command tells.\n# What follows was asked by programs.\n";
}

std::string RecordingWriter::stateOf(Device& device, const SegmentUsage& usage)
{
    const auto entry = device.segment(static_cast<std::uint8_t>(usage.handle));
    if (!entry)
        return "";
    const std::uint32_t handle = entry->stInfoFromApp.hulHandle;
    MM_TSegInfoFromApp request = entry->stInfoFromApp;
    request.hulHandle = request.ulRetSegSize = 0;
    std::string text = made({MM_CMD_CREATE_SEGMENT, bytesOf(request)}, {0, bytesOf(entry->stInfoFromApp)});
    const auto stretches = stretchesOf(device, usage);
    if (!stretches)
        return text + "# Which blocks of " + nameText(entry->stInfoFromApp.aubSegID) +
               " were taken no command tells: " + std::to_string(usage.blocks - usage.freeBlocks) + " of " +
               std::to_string(usage.blocks) + ".\n";
    if (usage.freeBlocks == usage.blocks)
        return text;
    std::string freed;
    for (const Stretch& stretch : *stretches) {
        const std::uint32_t bytes = stretch.blocks * usage.blockStride;
        const std::uint8_t owner = stretch.owner.value_or(usage.ownerBits > 1 ? 1 : 0);
        const MM_TMallocInfo asked{handle, bytes, owner, {}, 0};
        const MM_TMallocInfo given{handle, bytes, owner, {}, stretch.start};
        if (!stretch.owner && stretch.start == usage.start)
            break; // nothing below it
        text += made({MM_CMD_MALLOC, bytesOf(asked)}, {0, bytesOf(given)});
        if (!stretch.owner)
            freed += made({MM_CMD_FREE, bytesOf(MM_TFreeInfo{handle, stretch.start, bytes})}, {0, {}});
    }
    return text + freed;
}

} // namespace velmora::tools
