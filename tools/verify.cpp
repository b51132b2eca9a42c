#include "commands.hpp"

#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>
#include <ostream>
#include <system_error>

#include <nlohmann/json.hpp>

#include "device_command.hpp"
#include "kernel_log.hpp"
#include "units.hpp"
#include "verify_area.hpp"
#include "verify_segment.hpp"

namespace velmora::tools {

namespace {

constexpr const char* kDescription =
    R"(velmora-mm verify - checks what the manager keeps in managed memory, where any program can write

Reads the table of segments, and through a mapping the lists of free runs, the owner maps and the list of free memory; changes
nothing. Says what is broken and where, and what could not be checked and why.
)";

std::string notes()
{
    std::string text = "rules\n";
    for (const RuleText& rule : rules())
        text += "  " + std::string(rule.name) + std::string(15 - rule.name.size(), ' ') + std::string(rule.text) + "\n";
    return text + R"(
Where the list of free runs begins is in no command's answer, so without an owner for every block it is looked for in the
segment. Headers of earlier free runs that nobody wrote over may look like another list; then the list is reported as not
checked. In an owner map one owner in place of another is as good as the right one, and in a map of one bit so is 0 for an
allocated block. Blocks that kernel code claimed at an address of its choice have no owner, and are found as map-owner.

The heap's pieces and the end of managed memory are only on the kernel log. With --heap the manager prints the pieces first,
and counts their free blocks: a controller whose heap is broken may not survive that.
)";
}

constexpr const char* kExamples = R"(  velmora-mm verify
  velmora-mm verify BAND --json
  dmesg | velmora-mm verify --log -
)";

std::vector<std::string> linesOf(std::istream& in)
{
    return logLines({std::istreambuf_iterator<char>(in), {}});
}

// The kernel log of a device, or what was saved of one.
class LogSource
{
public:
    // file: where --log says so.
    LogSource(const std::string& device, const std::string& file)
    {
        if (file.empty())
            log_.emplace(device);
        else if (file == "-")
            lines_ = linesOf(std::cin);
        else if (std::ifstream in(file); in)
            lines_ = linesOf(in);
        else
            throw Refusal("cannot read '" + file + "': a file with the kernel log, or - for standard input");
    }

    // All that was printed up to now.
    const std::vector<std::string>& lines()
    {
        if (log_)
            for (std::string& line : taken())
                lines_.push_back(std::move(line));
        return lines_;
    }

private:
    // Messages that came too fast are missed, no more.
    std::vector<std::string> taken()
    {
        try {
            return log_->take();
        } catch (const std::runtime_error&) {
            return log_->take();
        }
    }

    std::optional<KernelLog> log_;
    std::vector<std::string> lines_;
};

// The whole area. Findings count when they are there twice, as the manager works on.
Report checkPlaces(Device& device, LogSource& log, HeapDisplay display)
{
    constexpr int kAttempts = 5;
    Report earlier;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        if (display == HeapDisplay::Present)
            device.display(MM_HEAPHANDLE);
        Report report = checkArea(device, log.lines(), display);
        if (report.findings.empty() || report == earlier)
            return report;
        earlier = std::move(report);
    }
    Report report;
    report.unchecked.push_back({{}, "places and free memory", "they changed each time that they were read"});
    return report;
}

Report checkAll(Device& device, const std::string& node, const std::string& file, HeapDisplay display)
{
    Report report;
    for (std::uint32_t handle = 0; handle < MM_HEAPHANDLE; ++handle)
        report.add(checkSegment(device, handle));
    std::optional<LogSource> log;
    try {
        log.emplace(node, file);
    } catch (const std::system_error& error) { // the device's own
        if (display == HeapDisplay::Present)
            throw;
        report.add(checkArea(device, {}));
        report.unchecked.push_back({{}, "kernel log", error.what()});
        return report;
    }
    report.add(checkPlaces(device, *log, display));
    return report;
}

Json subjectOf(const Subject& subject)
{
    return {{"segment", subject.handle ? Json(subject.segment) : Json(nullptr)},
            {"handle", subject.handle ? Json(*subject.handle) : Json(nullptr)}};
}

void printJson(std::ostream& out, const Report& report)
{
    Json json = listing("verify", 1);
    json["clean"] = report.findings.empty();
    json["checked"] = {{"segments", report.segments},
                       {"freeRuns", report.runs},
                       {"ownerMaps", report.maps},
                       {"freeMemory", report.memory}};
    json["findings"] = Json::array();
    for (const Finding& finding : report.findings) {
        Json entry = subjectOf(finding.subject);
        entry["address"] = addressText(finding.address);
        entry["rule"] = nameOf(finding.rule);
        entry["what"] = finding.what;
        json["findings"].push_back(entry);
    }
    json["unchecked"] = Json::array();
    for (const Unchecked& unchecked : report.unchecked) {
        Json entry = subjectOf(unchecked.subject);
        entry["part"] = unchecked.part;
        entry["why"] = unchecked.why;
        json["unchecked"].push_back(entry);
    }
    printListing(out, json);
}

std::string shown(const Subject& subject)
{
    return subject.handle ? shownName(subject.segment) : "area";
}

void printText(std::ostream& out, const Report& report)
{
    for (const Finding& finding : report.findings)
        out << shown(finding.subject) << "  " << addressText(finding.address) << "  " << nameOf(finding.rule) << ": "
            << finding.what << "\n";
    for (const Unchecked& unchecked : report.unchecked)
        out << "not checked: " << shown(unchecked.subject) << ", " << unchecked.part << ": " << unchecked.why << "\n";
    out << counted(report.segments, "segment") << " with " << counted(report.runs, "free run") << " and "
        << counted(report.maps, "owner map") << ", " << report.memory
        << (report.memory == 1 ? " stretch" : " stretches") << " of free memory: "
        << (report.findings.empty() ? "nothing is broken" : counted(report.findings.size(), "broken rule")) << "\n";
}

} // namespace

int verify(const Words& words, std::ostream& out, std::ostream& errors)
{
    DeviceCommand command("verify", kDescription, deviceNotes(notes(), kExamples));
    std::string segment, log;
    bool json = false, heap = false;
    command.optionalArgument("SEGMENT", into(segment), std::string(kSegmentHelp) + "; its own rules only");
    command.jsonFlag(json);
    command.option("--log", "FILE", into(log), "a saved kernel log instead of the device's; - is standard input");
    command.flag("--heap", heap, "has the manager print the heap's pieces first");
    return command.run(words, out, errors, [&](Device& device) {
        if (heap && !(log.empty() && segment.empty()))
            throw UsageError("--heap is for the whole area and the device's own log: without SEGMENT and --log");
        Report report;
        if (segment.empty())
            report = checkAll(device, command.device(), log, heap ? HeapDisplay::Present : HeapDisplay::Past);
        else if (const SegmentEntry entry = findSegment(device, segment); entry.entry)
            report = checkSegment(device, entry.handle);
        else
            throw Refusal("the heap is checked with the whole area only: leave out SEGMENT");
        json ? printJson(out, report) : printText(out, report);
        return report.findings.empty() ? kDone : kFailed;
    });
}

} // namespace velmora::tools
