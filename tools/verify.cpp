#include "commands.hpp"

#include <fstream>
#include <iostream>
#include <iterator>
#include <ostream>

#include <nlohmann/json.hpp>

#include "device_command.hpp"
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
What no reader can know: where the list of free runs begins is in no command's answer, so without an owner for every block it
is looked for in the segment. Headers of earlier free runs that nobody wrote over may look like a list; then the list is
reported as not checked. In an owner map one owner's ID in place of another is as good as the right one, and in a map of one
bit so is 0 for an allocated block. Blocks that kernel code claimed at an address of its choice have no owner, and are found as
map-owner. With SEGMENT only that segment's own rules are checked.

The heap's pieces and the end of managed memory are only on the kernel log.

exit status: 0 nothing is broken, 1 something is, or the manager or the kernel refused, 2 unusable arguments, 3 no device, or
it went away

examples
  velmora-mm verify
  velmora-mm verify BAND --json
  dmesg | velmora-mm verify --log -
)";
}

std::vector<std::string> linesOf(std::istream& in)
{
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

std::vector<std::string> logFrom(const std::string& file)
{
    if (file.empty())
        return {};
    if (file == "-")
        return linesOf(std::cin);
    std::ifstream in(file);
    if (!in)
        throw Refusal("cannot read '" + file + "': a file with the kernel log, or - for standard input");
    return linesOf(in);
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

std::string counted(std::size_t number, const char* what)
{
    return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

void printText(std::ostream& out, const Report& report)
{
    for (const Finding& finding : report.findings)
        out << shown(finding.subject) << "  " << addressText(finding.address) << "  " << nameOf(finding.rule) << ": "
            << finding.what << "\n";
    for (const Unchecked& unchecked : report.unchecked)
        out << "not checked: " << shown(unchecked.subject) << ", " << unchecked.part << ": " << unchecked.why << "\n";
    out << counted(report.segments, "segment") << " with " << counted(report.runs, "free run") << " and "
        << counted(report.maps, "owner map") << ", " << counted(report.memory, "stretch of free memory") << ": "
        << (report.findings.empty() ? "nothing is broken" : counted(report.findings.size(), "broken rule")) << "\n";
}

} // namespace

int verify(const Words& words, std::ostream& out, std::ostream& errors)
{
    DeviceCommand command("verify", kDescription, notes());
    std::string segment, log;
    bool json = false;
    command.optionalArgument("SEGMENT", into(segment), kSegmentHelp);
    command.jsonFlag(json);
    command.option("--log", "FILE", into(log), "the kernel log, for what only it says; - is standard input");
    return command.run(words, out, errors, [&](Device& device) {
        Report report;
        if (!segment.empty()) {
            const SegmentEntry entry = findSegment(device, segment);
            if (!entry.entry)
                throw Refusal("the heap is checked with the whole area, which takes no SEGMENT");
            report = checkSegment(device, entry.handle);
        } else {
            const std::vector<std::string> lines = logFrom(log);
            for (std::uint32_t handle = 0; handle < MM_HEAPHANDLE; ++handle)
                report.add(checkSegment(device, handle));
            report.add(checkArea(device, lines));
        }
        json ? printJson(out, report) : printText(out, report);
        return report.findings.empty() ? kDone : kFailed;
    });
}

} // namespace velmora::tools
