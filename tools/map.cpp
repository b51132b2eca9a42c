#include "commands.hpp"

#include <algorithm>
#include <ctime>

#include <nlohmann/json.hpp>

#include "command_line.hpp"
#include "device_command.hpp"
#include "kernel_log.hpp"
#include "map_page.hpp"
#include "map_text.hpp"
#include "memory_map.hpp"
#include "terminal.hpp"
#include "units.hpp"
#include "whole_file.hpp"

namespace velmora::tools {

namespace {

constexpr const char* kDescription =
    R"(velmora-mm map - memory as it is now: the area, its segments to scale, free runs, owners

Each segment has rows of characters, each for so many blocks as stands above them: a capital letter for blocks of
one owner, a small one where others' or free ones are among them, a dot for free ones.
)";

constexpr const char* kNotes =
    R"(Others go on working meanwhile: each segment is one moment, the whole is not. Where allocated blocks cannot be told
from free ones, a segment's counters are shown, and why. No command shows the heap: the manager is asked to print it on
the kernel log and the log is read, where it can be (--no-heap leaves both alone). Its pieces and how much of each is
free are known, its owners are not.
)";

constexpr const char* kExamples = R"(  velmora-mm map
  velmora-mm map --html map.html --device unix:/tmp/mm.sock
  velmora-mm map --area d0000000-d9000000 --color always | less -R
)";

struct Options {
    std::string page;
    std::optional<Area> area;
    std::string colour = "auto";
    std::optional<unsigned> width;
    unsigned rows = 4;
    bool json = false, noHeap = false;
};

unsigned numberWithin(const std::string& text, unsigned least, unsigned most, const char* option)
{
    const auto value = parseNumber(text);
    if (!value || *value < least || *value > most)
        throw UsageError("'" + text + "' is not for " + option + ": a number from " + std::to_string(least) + " to " +
                         std::to_string(most));
    return *value;
}

void describe(DeviceCommand& command, Options& options)
{
    command.option("--html", "FILE", into(options.page), "writes a page to zoom and point at, instead of the picture");
    command.jsonFlag(options.json);
    command.app().get_option("--json")->excludes("--html");
    command.flag("--no-heap", options.noHeap, "leave the heap out, and the kernel log alone");
    command.option(
        "--area", "START-END", [&](const std::string& text) { options.area = areaOfParameter(text); },
        "the module's parameter bigphysarea; default: what a simulated controller says");
    command.option(
        "--color", "WHEN",
        [&](const std::string& text) {
            if (const std::string mistake = colourMistake(text); !mistake.empty())
                throw UsageError(mistake);
            options.colour = text;
        },
        "auto, always or never; auto: on a terminal, without $NO_COLOR");
    command.option(
        "--width", "N",
        [&](const std::string& text) { options.width = numberWithin(text, kLeastColumns, kMostColumns, "--width"); },
        "columns; default: the terminal's, else 80");
    command.option(
        "--rows", "N", [&](const std::string& text) { options.rows = numberWithin(text, 1, kMostRows, "--rows"); },
        "of a segment, at most; default 4");
}

MapStyle styleOf(const Options& options, const std::ostream& out)
{
    MapStyle style{.rows = options.rows, .colour = wantsColour(options.colour, out), .asciiOnly = !localeIsUtf8()};
    if (options.width)
        style.columns = *options.width;
    else if (isTerminal(out))
        style.columns = std::min(terminalColumns().value_or(style.columns), kMostColumns);
    if (style.columns < kLeastColumns)
        throw Refusal("the terminal has " + std::to_string(style.columns) + " columns, a map takes " +
                      std::to_string(kLeastColumns) + " (--width, --html)");
    return style;
}

// This moment, as a page says when it was made.
std::string now()
{
    const std::time_t seconds = std::time(nullptr);
    char text[64];
    return {text, std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", std::localtime(&seconds))};
}

} // namespace

int map(const Words& words, std::ostream& out, std::ostream& errors)
{
    Options options;
    DeviceCommand command("map", kDescription, deviceNotes(kNotes, kExamples));
    describe(command, options);
    return command.run(words, out, errors, [&](Device& device) {
        const std::string name = deviceName(command.device());
        const Heap heap = options.noHeap ? Heap{{}, "it was not asked for"} : readHeap(device, name);
        const MemoryMap map = readMap(device, name, options.area ? options.area : areaOf(name), heap);
        if (!options.page.empty())
            writeWholeFile(options.page, mapPage(map, now()));
        else if (options.json)
            printListing(out, mapListing(map));
        else
            out << mapText(map, styleOf(options, out));
        return kDone;
    });
}

} // namespace velmora::tools
