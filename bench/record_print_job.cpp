// Prints a document through the manager with the parties of print-job, and writes down what the job allocates and
// releases.
//   record-print-job --rasters FOLDER --output FILE     the pages are drawn into FOLDER first
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>

#include "examples/document.hpp"
#include "examples/parties.hpp"
#include "controller/device.h"
#include "tools/command_line.hpp"

namespace {

// Writes one line for each command that changes what is allocated.
class Recorder
{
public:
    explicit Recorder(const std::filesystem::path& path) : file_(path)
    {
        file_ << "# What printing a document allocates and releases, in order: make -f bench/bench.mk bench-record\n"
                 "# (Ghostscript's default document of print-job, 75 dpi).\n"
                 "#   segment NAME TYPE BYTES BLOCKBYTES MAPBITS OVERFLOWS    created\n"
                 "#   a HANDLE BYTES OWNER    allocated; slots are numbered in this order, from 0\n"
                 "#   r SLOT                  released\n"
                 "#   # g HANDLE OWNER        the releases that follow are one clean-up of an owner\n";
    }

    void created(const TSegInfoFromApp& info, std::uint32_t askedBytes)
    {
        file_ << "segment " << std::string(info.aubSegID, info.aubSegID + 4).c_str() << ' ' << unsigned(info.ubType)
              << ' ' << askedBytes << ' ' << info.ulBlkSize << ' ' << unsigned(info.ubMap) << ' ' << unsigned(info.ubVM)
              << '\n';
    }

    void allocated(const TMallocInfo& info)
    {
        live_[info.pubStart] = {slots_++, info.ubMapID};
        file_ << "a " << info.hulHandle << ' ' << info.ulReqBytes << ' ' << unsigned(info.ubMapID) << '\n';
    }

    void released(TAddr address)
    {
        file_ << "r " << live_.at(address).slot << '\n';
        live_.erase(address);
    }

    // The job gives back first what lies in the heap, so an owner's blocks are in the segment; the manager looks from
    // the segment's high end down.
    void collected(const TCollectGarbageInfo& info)
    {
        file_ << "# g " << info.hulHandle << ' ' << unsigned(info.ubMapID) << '\n';
        std::vector<TAddr> addresses;
        for (const auto& [address, block] : live_)
            if (block.owner == info.ubMapID)
                addresses.push_back(address);
        for (auto address = addresses.rbegin(); address != addresses.rend(); ++address)
            released(*address);
    }

    bool complete() { return live_.empty() && file_.flush().good(); }

private:
    struct Block {
        unsigned slot;
        std::uint8_t owner;
    };
    std::ofstream file_;
    unsigned slots_ = 0;
    std::map<TAddr, Block> live_;
};

class RecordingChannel : public velmora::Channel
{
public:
    RecordingChannel(std::unique_ptr<velmora::Channel> channel, Recorder& recorder)
        : channel_(std::move(channel)), recorder_(recorder)
    {
    }

    int command(std::uint32_t number, void* record, std::size_t bytes) override
    {
        const std::uint32_t askedBytes =
            number == MM_CMD_CREATE_SEGMENT ? static_cast<TSegInfoFromApp*>(record)->ulSegSize : 0;
        const int result = channel_->command(number, record, bytes);
        if (result != ENOERR)
            return result;
        if (number == MM_CMD_CREATE_SEGMENT)
            recorder_.created(*static_cast<TSegInfoFromApp*>(record), askedBytes);
        else if (number == MM_CMD_MALLOC)
            recorder_.allocated(*static_cast<TMallocInfo*>(record));
        else if (number == MM_CMD_FREE)
            recorder_.released(static_cast<TFreeInfo*>(record)->pubRlsAddr);
        else if (number == MM_CMD_COLLECT_GARBAGE)
            recorder_.collected(*static_cast<TCollectGarbageInfo*>(record));
        return result;
    }

    void* map(TAddr address, std::size_t bytes, velmora::Caching caching) override
    {
        return channel_->map(address, bytes, caching);
    }
    void unmap(void* start, std::size_t bytes) override { channel_->unmap(start, bytes); }

private:
    std::unique_ptr<velmora::Channel> channel_;
    Recorder& recorder_;
};

void record(const std::filesystem::path& rasterFolder, const std::filesystem::path& output)
{
    constexpr unsigned dpi = 75;
    const auto rasters = printjob::drawPages(printjob::defaultDocument(), dpi, rasterFolder);
    velmora::sim::bootController();
    Recorder recorder(output);
    const auto open = [&] { return std::make_unique<RecordingChannel>(velmora::sim::openDevice(), recorder); };
    const printjob::Layout layout;
    printjob::JobHandler handler(open(), layout);
    handler.start();
    handler.writeTicket(3, static_cast<unsigned>(rasters.size()));
    printjob::RasterProcessor processor(open(), layout, handler.pageSegment());
    std::vector<printjob::StoredPage> pages;
    for (const auto& raster : rasters) {
        const auto number = static_cast<unsigned>(pages.size() + 1);
        processor.store(raster,
                        pages.emplace_back(printjob::StoredPage{number, printjob::ownerOfPage(number), {}, {}}));
    }
    // Collation copy only reads.
    handler.giveBack(pages);
    if (!recorder.complete())
        throw std::runtime_error("the record is not complete: " + output.string());
}

} // namespace

int main(int count, char** arguments)
{
    CLI::App app("record-print-job - writes down what printing a document allocates and releases\n",
                 "record-print-job");
    velmora::tools::prepare(app);
    std::filesystem::path rasters, output;
    app.add_option("--rasters", rasters, "the pages are drawn there first; emptied before")
        ->type_name("FOLDER")
        ->required();
    app.add_option("--output", output, "the record")->type_name("FILE")->required();
    return velmora::tools::runProgram(app, count, arguments, [&] {
        record(rasters, output);
        return 0;
    });
}
