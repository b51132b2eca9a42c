#include "plan_page.hpp"

#include <algorithm>
#include <array>
#include <sstream>

#include "html.hpp"
#include "units.hpp"

namespace velmora::tools {

namespace {

constexpr double kWidth = 960, kHeight = 100, kLeft = 90, kTop = 20;
constexpr std::size_t kMostPoints = 1200; // of a curve: more cannot be seen
constexpr std::array<const char*, 6> kColours = {"#0072b2", "#d55e00", "#009e73", "#cc79a7", "#e69f00", "#56b4e9"};

constexpr const char* kStyle =
    R"(body{font:15px/1.5 system-ui,sans-serif;margin:2em auto;max-width:1100px;padding:0 1em;color:#222}
table{border-collapse:collapse;margin:1em 0}td,th{padding:.2em .8em;white-space:nowrap;border-bottom:1px solid #ccc;text-align:right}
td:first-child,th:first-child{text-align:left}svg{width:100%;height:auto;display:block}text{font-size:12px;fill:#444}
.limit{stroke:#999;stroke-dasharray:4 3}.axis{stroke:#999}.refused{stroke:#c00;stroke-width:2}
@media(prefers-color-scheme:dark){body{background:#181818;color:#ddd}text{fill:#bbb}})";

struct Point {
    unsigned line;
    std::uint32_t used;
};

// The curve of a segment; where there are too many points, the highest of each stretch of lines.
std::vector<Point> curveOf(const PlanResult& result, std::size_t segment, unsigned lines)
{
    std::vector<Point> curve;
    const unsigned stretch = lines / kMostPoints + 1;
    for (const PlanMoment& moment : result.moments) {
        const std::uint32_t used = moment.used[segment];
        if (!curve.empty() && curve.back().line / stretch == moment.line / stretch)
            curve.back().used = std::max(curve.back().used, used);
        else if (curve.empty() || curve.back().used != used)
            curve.push_back({moment.line, used});
    }
    return curve;
}

void writeCurve(std::ostream& out, const PlanRecording& recording, const PlanChart& chart, std::size_t segment)
{
    const PlanUse& use = chart.result.use[segment];
    const double most = std::max({use.usable, use.peak, 1U});
    const auto x = [&](unsigned line) { return kLeft + kWidth * line / std::max(1U, recording.lines); };
    const auto y = [&](double bytes) { return kTop + kHeight * (1 - bytes / most); };
    const std::string name = forPage(recording.segments[segment].name);
    out << "<svg viewBox=\"0 0 " << kLeft + kWidth + 10 << " " << kTop + kHeight + 25
        << "\" role=\"img\" aria-label=\"use of " << name << "\">\n<text x=\"0\" y=\"12\">" << name
        << "</text>\n<text x=\"" << kLeft - 6 << "\" y=\"" << y(use.usable) + 4 << "\" text-anchor=\"end\">"
        << roundedBytes(use.usable) << "</text>\n<line class=\"limit\" x1=\"" << kLeft << "\" x2=\"" << kLeft + kWidth
        << "\" y1=\"" << y(use.usable) << "\" y2=\"" << y(use.usable) << "\"/>\n"
        << "<line class=\"axis\" x1=\"" << kLeft << "\" x2=\"" << kLeft + kWidth << "\" y1=\"" << y(0) << "\" y2=\""
        << y(0) << "\"/>\n<path fill=\"" << kColours[segment % kColours.size()] << "\" fill-opacity=\".35\" stroke=\""
        << kColours[segment % kColours.size()] << "\" d=\"M" << kLeft << " " << y(0);
    for (const Point& point : curveOf(chart.result, segment, recording.lines))
        out << "H" << x(point.line) << "V" << y(point.used);
    out << "H" << kLeft + kWidth << "V" << y(0) << "Z\"><title>" << name << ": at most " << bytesText(use.peak)
        << ", after line " << use.peakLine << "</title></path>\n";
    for (const PlanRefusal& refusal : chart.result.refusals)
        if (refusal.segment == segment)
            out << "<line class=\"refused\" x1=\"" << x(refusal.line) << "\" x2=\"" << x(refusal.line) << "\" y1=\""
                << kTop << "\" y2=\"" << y(0) << "\"><title>line " << refusal.line << ": " << bytesText(refusal.bytes)
                << " refused</title></line>\n";
    out << "<text x=\"" << kLeft << "\" y=\"" << kTop + kHeight + 16 << "\">line 1</text>\n<text x=\"" << kLeft + kWidth
        << "\" y=\"" << kTop + kHeight + 16 << "\" text-anchor=\"end\">line " << recording.lines << "</text>\n</svg>\n";
}

void writeChart(std::ostream& out, const PlanRecording& recording, const PlanChart& chart)
{
    out << "<h2>" << forPage(chart.title) << ": " << bytesText(chart.layout.area) << "</h2>\n";
    if (!chart.result.impossible.empty()) {
        out << "<p>" << forPage(chart.result.impossible) << "</p>\n";
        return;
    }
    out << "<table><tr><th>segment</th><th>usable</th><th>peak</th><th>after line</th><th>of it waste</th>"
           "<th>largest still served</th><th>overflowed</th><th>refused</th></tr>\n";
    for (std::size_t at = 0; at < recording.segments.size(); ++at) {
        const PlanUse& use = chart.result.use[at];
        out << "<tr><td>" << forPage(recording.segments[at].name) << "</td><td>" << bytesText(use.usable) << "</td><td>"
            << bytesText(use.peak) << "</td><td>" << use.peakLine << "</td><td>" << bytesText(use.waste) << "</td><td>"
            << bytesText(use.longest) << "</td><td>" << use.overflowed << "</td><td>" << use.refused << "</td></tr>\n";
    }
    out << "</table>\n";
    for (std::size_t at = 0; at < recording.segments.size(); ++at)
        writeCurve(out, recording, chart, at);
}

void writeTries(std::ostream& out, const PlanRecording& recording, const PlanSearch& search)
{
    out << "<h2>What was tried</h2>\n<details><summary>" << search.tries.size()
        << " layouts, in this order</summary>\n<table><tr><th>area</th>";
    for (const auto& segment : recording.segments)
        if (segment.request.ubType != MM_FIXED && !segment.isHeap())
            out << "<th>" << forPage(segment.name) << "</th>";
    out << "<th>verdict</th></tr>\n";
    for (const PlanTry& tried : search.tries) {
        out << "<tr><td>" << tried.layout.area << "</td>";
        for (const PlanSegment& segment : tried.layout.segments)
            if (segment.bytes != 0)
                out << "<td>" << segment.bytes << "</td>";
        out << "<td>" << (tried.verdict.empty() ? "nothing refused" : forPage(tried.verdict)) << "</td></tr>\n";
    }
    out << "</table></details>\n";
}

} // namespace

std::string planPage(const PlanRecording& recording, const std::string& name, const std::vector<PlanChart>& charts,
                     const PlanSearch* search)
{
    std::ostringstream out;
    out << "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>Plan of " << forPage(name)
        << "</title>\n<style>" << kStyle << "</style></head><body>\n<h1>Plan of " << forPage(name)
        << "</h1>\n<p>Bytes in use of each segment after each line of the recording. The dashed line is what the "
           "segment has; a "
           "red one is a request that was refused.</p>\n";
    for (const PlanChart& chart : charts)
        writeChart(out, recording, chart);
    if (search != nullptr)
        writeTries(out, recording, *search);
    out << "</body></html>\n";
    return out.str();
}

} // namespace velmora::tools
