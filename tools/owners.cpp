#include "commands.hpp"

#include <map>
#include <optional>

#include <nlohmann/json.hpp>

#include "device_command.hpp"
#include "picture.hpp"
#include "table.hpp"
#include "units.hpp"

namespace velmora::tools {

namespace {

constexpr const char* kDescription =
    R"(velmora-mm owners - who holds how much of a segment

A line for each owner ID that has blocks, from the segment's owner map. With --runs, where they lie: a line for
each run of blocks of one owner, in the order of the addresses.
)";

constexpr const char* kNotes =
    R"(A segment without an owner map keeps no record of who holds what, and the heap's cannot be read. ID 0 has what
is recorded for nobody.
)";

constexpr const char* kExamples = R"(  velmora-mm owners PAGE
  velmora-mm owners PAGE --owner 7 --runs
)";

struct Holding {
    std::uint64_t blocks = 0;
    std::size_t runs = 0;
    MM_TAddr first = 0; // where its lowest block lies
};

using Holdings = std::map<unsigned, Holding>;

Holdings holdingsOf(const std::vector<Run>& runs)
{
    Holdings holdings;
    for (const Run& run : runs) {
        Holding& holding = holdings[static_cast<unsigned>(run.owner)];
        if (holding.runs++ == 0)
            holding.first = run.start;
        holding.blocks += run.blocks;
    }
    return holdings;
}

Picture ownedPicture(Device& device, const SegmentEntry& segment)
{
    if (!segment.entry)
        throw Refusal("the heap's owner map cannot be read: no command says where it lies");
    const std::string name = "'" + shownName(nameOf(segment.entry->stInfoFromApp.aubSegID)) + "'";
    if (segment.entry->stInfoFromApp.ubMap == 0)
        throw Refusal(name + " has no owner map: nothing records who holds its blocks");
    std::optional<Picture> picture = pictureOf(device, segment.handle);
    if (!picture)
        throw Refusal(name + " is gone: the library was started anew");
    if (!picture->unknown.empty())
        throw Refusal("who holds the blocks of " + name + " cannot be told: " + picture->unknown);
    return std::move(*picture);
}

void printTable(std::ostream& out, const Picture& picture, const Holdings& holdings)
{
    Table table({">OWNER", ">BLOCKS", ">BYTES", ">RUNS", "FIRST"});
    for (const auto& [owner, holding] : holdings)
        table.add({std::to_string(owner), std::to_string(holding.blocks), bytesText(holding.blocks * picture.stride()),
                   std::to_string(holding.runs), addressText(holding.first)});
    if (table.empty())
        out << "Nothing is allocated in '" << shownName(picture.name()) << "'.\n";
    else
        table.print(out);
}

void printRuns(std::ostream& out, const Picture& picture, const std::vector<Run>& runs)
{
    Table table({"ADDRESS", ">OWNER", ">BLOCKS", ">BYTES"});
    for (const Run& run : runs)
        table.add({addressText(run.start), std::to_string(static_cast<unsigned>(run.owner)), std::to_string(run.blocks),
                   bytesText(std::uint64_t(run.blocks) * picture.stride())});
    if (!table.empty())
        table.print(out);
}

void printJson(std::ostream& out, const Picture& picture, const Holdings& holdings, const std::vector<Run>* runs)
{
    Json json = listing("owners", 1);
    json["segment"] = picture.name();
    json["handle"] = picture.handle;
    json["blockBytes"] = picture.stride();
    json["owners"] = Json::array();
    for (const auto& [owner, holding] : holdings)
        json["owners"].push_back({{"owner", owner},
                                  {"blocks", holding.blocks},
                                  {"bytes", holding.blocks * picture.stride()},
                                  {"runs", holding.runs},
                                  {"first", addressText(holding.first)}});
    if (runs != nullptr) {
        json["runs"] = Json::array();
        for (const Run& run : *runs)
            json["runs"].push_back({{"address", addressText(run.start)},
                                    {"owner", static_cast<unsigned>(run.owner)},
                                    {"blocks", run.blocks},
                                    {"bytes", std::uint64_t(run.blocks) * picture.stride()}});
    }
    printListing(out, json);
}

} // namespace

int owners(const Words& words, std::ostream& out, std::ostream& errors)
{
    DeviceCommand command("owners", kDescription, deviceNotes(kNotes, kExamples));
    std::string segment;
    std::optional<std::uint8_t> only;
    bool json = false, listRuns = false;
    command.argument("SEGMENT", into(segment), kSegmentHelp);
    command.option("--owner", "ID", ownerInto(only), "this one only");
    command.flag("--runs", listRuns, "where the blocks lie");
    command.jsonFlag(json);
    return command.run(words, out, errors, [&](Device& device) {
        Picture picture = ownedPicture(device, findSegment(device, segment));
        std::erase_if(picture.runs,
                      [&](const Run& run) { return run.free || (only && run.owner != static_cast<Owner>(*only)); });
        const Holdings holdings = holdingsOf(picture.runs);
        if (json)
            printJson(out, picture, holdings, listRuns ? &picture.runs : nullptr);
        else if (listRuns)
            printRuns(out, picture, picture.runs);
        else
            printTable(out, picture, holdings);
        return kDone;
    });
}

} // namespace velmora::tools
