#include "commands.hpp"

#include <algorithm>
#include <optional>

#include <nlohmann/json.hpp>

#include "command_line.hpp"
#include "device_command.hpp"
#include "plan_page.hpp"
#include "plan_search.hpp"
#include "table.hpp"
#include "units.hpp"
#include "whole_file.hpp"

namespace velmora::tools {

namespace {

constexpr const char* kDescription =
    R"(velmora-mm plan - what a recording needs of the memory, and whether another layout would do

Replays a recording of 'velmora-mm record' or 'velmora-mm run --record' on the manager, on a simulated controller
with the recording's own layout or another one, and says of each segment: the most that was in use and how much of
that was rounding, the longest free run when it was shortest (the largest request still served at the worst
moment), requests that overflowed into the heap, and requests that were refused.
)";

constexpr const char* kNotes =
    R"(A layout file says in TOML what differs from the recording's own layout, which --print-layout writes: area, and of
each segment bytes, block, map and overflow. Requests that were refused when they were recorded are not asked again.

--smallest looks for the layout with the smallest area that never refuses, by the sizes of the area and of each float
segment. The answer was replayed without a refusal; with each size 4096 bytes smaller it was replayed and refused.
--tries prints each layout that was tried.

docs/planning.md has the layout file, what a replay changes and keeps, and an example.

exit status: 0 nothing was refused, 1 something was, or the layout or the recording cannot be used,
             2 unusable arguments or layout file

examples
  velmora-mm plan job.txt
  velmora-mm plan job.txt --print-layout >layout.toml; velmora-mm plan job.txt --layout layout.toml
  velmora-mm plan job.txt --without-probes --smallest --html plan.html
)";

constexpr const char* kNoneFound =
    "no layout that never refuses was found: none of up to 960 MiB of area does with these blocks and maps";

struct Options {
    std::string recording, layout, html;
    bool smallest = false, tries = false, json = false, printLayout = false, withoutProbes = false;
    unsigned workers = 0;
};

// A layout and what became of the recording under it.
struct Played {
    std::string title;
    PlanLayout layout;
    PlanResult result;
};

void printRecording(std::ostream& out, const std::string& name, const PlanRecording& recording)
{
    const auto requests = std::ranges::count(recording.operations, PlanOperation::Kind::Malloc, &PlanOperation::kind);
    out << name << ": " << counted(recording.lines, "line") << ", "
        << counted(static_cast<std::uint64_t>(requests), "request") << " for memory\n";
    if (recording.refusedThen != 0)
        out << "  " << counted(recording.refusedThen, "request") << " refused when recorded, not asked again\n";
    if (recording.probes != 0)
        out << "  " << counted(recording.probes, "request") << " left out: released and never used\n";
    if (recording.passedOver != 0)
        out << "  " << counted(recording.passedOver, "line")
            << " passed over: in bytes, or a release of memory that no line allocated\n";
}

void printUse(std::ostream& out, const PlanRecording& recording, const Played& played)
{
    Table table({"SEGMENT", ">USABLE", ">PEAK", ">AFTER LINE", ">WASTE", ">LARGEST SERVED", ">AFTER LINE",
                 ">OVERFLOWED", ">REFUSED"});
    for (std::size_t at = 0; at < recording.segments.size(); ++at) {
        const PlanUse& use = played.result.use[at];
        table.add({recording.segments[at].name, bytesText(use.usable), bytesText(use.peak),
                   std::to_string(use.peakLine), bytesText(use.waste), bytesText(use.longest),
                   std::to_string(use.longestLine), std::to_string(use.overflowed), std::to_string(use.refused)});
    }
    table.print(out);
}

void printPlayed(std::ostream& out, const PlanRecording& recording, const Played& played)
{
    out << "\n" << played.title << ", " << bytesText(played.layout.area) << "\n";
    if (!played.result.impossible.empty()) {
        out << played.result.impossible << "\n";
        return;
    }
    printUse(out, recording, played);
    if (played.result.refused == 0) {
        out << "Nothing was refused.\n";
        return;
    }
    out << counted(played.result.refused, "request") << " refused:\n";
    for (const PlanRefusal& refusal : played.result.refusals)
        out << "  line " << refusal.line << ": " << bytesText(refusal.bytes) << " of "
            << recording.segments[refusal.segment].name << ", asked by " << recording.askers[refusal.asker] << "\n";
    if (played.result.refused > played.result.refusals.size())
        out << "  and " << played.result.refused - played.result.refusals.size() << " more\n";
}

Json layoutJson(const PlanLayout& layout, const PlanRecording& recording)
{
    Json json{{"areaBytes", layout.area}, {"segments", Json::array()}};
    for (std::size_t at = 0; at < layout.segments.size(); ++at) {
        const PlanSegment& segment = layout.segments[at];
        json["segments"].push_back({{"name", recording.segments[at].name},
                                    {"bytes", segment.bytes != 0 ? Json(segment.bytes) : Json()},
                                    {"blockBytes", segment.block},
                                    {"ownerBits", segment.map},
                                    {"overflows", segment.overflow}});
    }
    return json;
}

Json playedJson(const Played& played, const PlanRecording& recording)
{
    const PlanResult& result = played.result;
    Json json{{"layout", layoutJson(played.layout, recording)},
              {"impossible", result.impossible.empty() ? Json() : Json(result.impossible)},
              {"refused", result.refused},
              {"segments", Json::array()},
              {"refusals", Json::array()}};
    for (std::size_t at = 0; at < recording.segments.size(); ++at) {
        const PlanUse& use = result.use[at];
        json["segments"].push_back({{"name", recording.segments[at].name},
                                    {"usableBytes", use.usable},
                                    {"peakBytes", use.peak},
                                    {"peakLine", use.peakLine},
                                    {"wasteBytes", use.waste},
                                    {"largestServedBytes", use.longest},
                                    {"largestServedLine", use.longestLine},
                                    {"overflowed", use.overflowed},
                                    {"refused", use.refused}});
    }
    for (const PlanRefusal& refusal : result.refusals)
        json["refusals"].push_back({{"line", refusal.line},
                                    {"asker", recording.askers[refusal.asker]},
                                    {"segment", recording.segments[refusal.segment].name},
                                    {"bytes", refusal.bytes}});
    return json;
}

void printJson(std::ostream& out, const Options& options, const PlanRecording& recording, const Played& own,
               const std::optional<Played>& smallest, const PlanSearch& search)
{
    Json json = listing("plan", 1);
    json["recording"] = options.recording;
    json["lines"] = recording.lines;
    json["refusedThen"] = recording.refusedThen;
    json["probes"] = recording.probes;
    json["passedOver"] = recording.passedOver;
    json["plan"] = playedJson(own, recording);
    json["smallest"] = smallest ? playedJson(*smallest, recording) : Json();
    json["tries"] = Json::array();
    for (const PlanTry& tried : search.tries)
        json["tries"].push_back({{"layout", layoutJson(tried.layout, recording)},
                                 {"verdict", tried.verdict.empty() ? Json() : Json(tried.verdict)}});
    out << json.dump(2) << "\n";
}

void printSearch(std::ostream& out, const Options& options, const PlanRecording& recording, const Played& smallest,
                 const PlanSearch& search)
{
    if (options.tries) {
        out << "\n";
        for (const PlanTry& tried : search.tries) {
            out << "tried " << bytesText(tried.layout.area);
            for (std::size_t at = 0; at < tried.layout.segments.size(); ++at)
                if (tried.layout.segments[at].bytes != 0)
                    out << ", " << recording.segments[at].name << " " << bytesText(tried.layout.segments[at].bytes);
            out << ": " << (tried.verdict.empty() ? "nothing refused" : tried.verdict) << "\n";
        }
    }
    printPlayed(out, recording, smallest);
    out << counted(search.tries.size(), "layout") << " tried. As a layout file:\n\n"
        << layoutText(smallest.layout, recording);
}

int planWith(const Options& options, std::ostream& out)
{
    const PlanRecording recording =
        readRecording(readWholeFile(options.recording), options.recording, options.withoutProbes);
    const PlanLayout layout = options.layout.empty()
                                  ? layoutOf(recording)
                                  : readLayout(readWholeFile(options.layout), options.layout, recording);
    if (options.printLayout && !options.smallest) {
        out << layoutText(layout, recording);
        return kDone;
    }
    PlanWorkers workers(recording, options.workers);
    const auto play = [&](const std::string& title, const PlanLayout& chosen) {
        const PlanJob job{chosen, options.html.empty() ? PlanDepth::Whole : PlanDepth::WithMoments};
        return Played{title, chosen, workers.run({&job, 1}).front()};
    };
    const Played own =
        play(options.layout.empty() ? "The recording's own layout" : "The layout of " + options.layout, layout);
    PlanSearch search;
    std::optional<Played> smallest;
    if (options.smallest && unfit(layout, recording).empty()) {
        search = searchSmallest(recording, layout, workers);
        if (search.found)
            smallest = play("The smallest layout that was found", search.smallest);
    }
    if (!options.html.empty()) {
        std::vector<PlanChart> charts = {{own.title, own.layout, own.result}};
        if (smallest)
            charts.push_back({smallest->title, smallest->layout, smallest->result});
        writeWholeFile(options.html,
                       planPage(recording, options.recording, charts, options.smallest ? &search : nullptr));
    }
    if (options.printLayout) {
        if (!smallest)
            throw std::runtime_error(kNoneFound);
        out << layoutText(smallest->layout, recording);
    } else if (options.json) {
        printJson(out, options, recording, own, smallest, search);
    } else {
        printRecording(out, options.recording, recording);
        printPlayed(out, recording, own);
        if (smallest)
            printSearch(out, options, recording, *smallest, search);
        else if (options.smallest)
            out << "\n" << kNoneFound << "\n";
    }
    return (options.smallest ? smallest.has_value() : own.result.good()) ? kDone : kFailed;
}

} // namespace

int plan(const Words& words, std::ostream& out, std::ostream& errors)
{
    Options options;
    CLI::App app(kDescription, "velmora-mm plan");
    prepare(app);
    app.footer(kNotes);
    app.add_option("RECORDING", options.recording, "what 'velmora-mm record' wrote")->required()->type_name("");
    app.add_option("--layout", options.layout, "the layout, a TOML file; default: the recording's own")
        ->type_name("FILE");
    app.add_flag("--print-layout", options.printLayout,
                 "print the layout as a file to start from, and nothing else; with --smallest the one that was found");
    app.add_flag("--smallest", options.smallest, "search for the smallest layout that never refuses");
    app.add_flag("--tries", options.tries, "with --smallest: print each layout that was tried");
    app.add_flag("--without-probes", options.withoutProbes,
                 "leave out memory that was taken and given back without having been mapped, filled or asked for its "
                 "physical address: programs do so to learn how much there is");
    app.add_flag("--json", options.json, "print it for programs; docs/json.md describes it");
    app.add_option("--html", options.html, "write a page with the use over time")->type_name("FILE");
    app.add_option("--workers", options.workers,
                   "processes that replay, 1 to 64; default: as many as there are processors. The result is the same")
        ->type_name("N")
        ->check(CLI::Range(1, 64).description(""));
    return runWords(app, words, out, errors, [&] {
        const auto sentence = [&](const std::string& what, int status) {
            errors << "velmora-mm plan: " << what << "\n";
            return status;
        };
        try {
            return planWith(options, out);
        } catch (const LayoutError& error) {
            return sentence(error.what(), kUnusableArguments);
        } catch (const std::ios_base::failure&) {
            throw;
        } catch (const std::runtime_error& error) {
            return sentence(error.what(), kFailed);
        }
    });
}

} // namespace velmora::tools
