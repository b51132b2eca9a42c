// print-job: prints a document through the memory manager, as a controller does.
#include <algorithm>
#include <charconv>
#include <cstdio>
#include <exception>
#include <functional>
#include <iostream>
#include <optional>
#include <sstream>
#include <string_view>
#include <thread>
#include <sys/klog.h>

#include "../host/device.h"
#include "../host/machine.h"
#include "document.hpp"
#include "mst_display.hpp"
#include "parties.hpp"
#include "queue.hpp"

namespace printjob {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kHelp =
    R"(print-job - prints a document through the memory manager of the printer controller

usage: print-job [--document FILE] [--dpi N] [--copies N] [--output DIR] [--rasters DIR] [--device NODE]

  --document FILE  PDF or PostScript; default: an example that Debian ships with Ghostscript
  --dpi N          resolution at which Ghostscript draws the pages, 18 to 1200; default 75
  --copies N       collated copies, 1 to 999; default 3
  --output DIR     where the copies go: DIR/copy-1/page-0001.ppm ...; default build/demo
  --rasters DIR    print the netpbm pages in DIR; no Ghostscript is run
  --device NODE    a real manager, through its device node; default: the simulated controller in this process

exit status: 0 all pages of all copies are identical to what was drawn and all memory was given back,
             1 anything else, 2 unusable arguments
)";

struct Options {
    std::optional<fs::path> document;
    unsigned dpi = 75;
    unsigned copies = 3;
    fs::path output = "build/demo";
    std::optional<fs::path> rasters;
    std::optional<std::string> device;
};

struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

unsigned numberBetween(std::string_view option, std::string_view text, unsigned low, unsigned high)
{
    unsigned value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value < low || value > high)
        throw UsageError(std::string(option) + " takes a number from " + std::to_string(low) + " to " +
                         std::to_string(high) + ", not '" + std::string(text) + "'");
    return value;
}

Options parse(const std::vector<std::string_view>& words)
{
    Options options;
    for (std::size_t i = 0; i < words.size(); i += 2) {
        const std::string_view option = words[i];
        if (i + 1 == words.size())
            throw UsageError(std::string(option) + " is unknown or lacks its value");
        const std::string_view value = words[i + 1];
        if (option == "--document")
            options.document = value;
        else if (option == "--dpi")
            options.dpi = numberBetween(option, value, 18, 1200);
        else if (option == "--copies")
            options.copies = numberBetween(option, value, 1, 999);
        else if (option == "--output")
            options.output = value;
        else if (option == "--rasters")
            options.rasters = value;
        else if (option == "--device")
            options.device = value;
        else
            throw UsageError("unknown option " + std::string(option));
    }
    return options;
}

double mebibytes(std::uint64_t bytes)
{
    return static_cast<double>(bytes) / (1 << 20);
}

// One controller, simulated or real: how to open its device and how to read its kernel log.
struct Controller {
    std::function<std::unique_ptr<velmora::Channel>()> open;
    std::function<std::vector<std::string>()> kernelLog;
};

// The kernel log of a real controller, read as it grows.
class RealKernelLog
{
public:
    // The lines since the last call, without the level and the time in front of each.
    std::vector<std::string> operator()()
    {
        std::vector<std::string> lines = allLines();
        const auto last = std::find(lines.rbegin(), lines.rend(), last_);
        std::vector<std::string> fresh(last.base() == lines.begin() ? lines.begin() : last.base(), lines.end());
        if (!lines.empty())
            last_ = lines.back();
        for (std::string& line : fresh)
            if (const std::size_t time = line.find("] "); time != line.npos)
                line.erase(0, time + 2);
        return fresh;
    }

private:
    static std::vector<std::string> allLines()
    {
        constexpr int readAll = 3;
        constexpr int bufferSize = 10;
        std::string text(static_cast<std::size_t>(std::max(klogctl(bufferSize, nullptr, 0), 0)), '\0');
        text.resize(
            static_cast<std::size_t>(std::max(klogctl(readAll, text.data(), static_cast<int>(text.size())), 0)));
        std::istringstream stream(text);
        std::vector<std::string> lines;
        for (std::string line; std::getline(stream, line);)
            lines.push_back(line);
        return lines;
    }

    std::string last_; // as it was read, its time included
};

Controller connect(const Options& options)
{
    if (options.device)
        return {[node = *options.device] { return velmora::openNode(node); }, RealKernelLog()};
    velmora::sim::bootController();
    return {velmora::sim::openDevice, [] { return velmora::sim::machine().takeLog(); }};
}

fs::path pageFile(const fs::path& output, unsigned copy, const fs::path& raster)
{
    return output / ("copy-" + std::to_string(copy)) / raster.filename();
}

// The job from the first band to the last copy. Pages stay in memory until all copies are out.
class Job
{
public:
    Job(const Controller& controller, const Options& options, std::vector<fs::path> rasters)
        : options_(options), rasters_(std::move(rasters)), handler_(controller.open(), layout_)
    {
        handler_.start();
        handler_.writeTicket(options.copies, static_cast<unsigned>(rasters_.size()));
        processor_.emplace(controller.open(), layout_, handler_.pageSegment());
        collation_.emplace(controller.open(), handler_.ticket());
    }

    // Runs the raster processor and the collation copy side by side; throws what stopped either.
    void run()
    {
        for (unsigned copy = 1; copy <= options_.copies; ++copy) {
            fs::remove_all(options_.output / ("copy-" + std::to_string(copy)));
            fs::create_directories(options_.output / ("copy-" + std::to_string(copy)));
        }
        stored_.reserve(rasters_.size());
        std::exception_ptr stopped;
        std::thread collation([&] {
            try {
                writeCopies();
            } catch (...) {
                stopped = std::current_exception();
            }
        });
        try {
            storePages();
        } catch (...) {
            ready_.close();
            collation.join();
            throw;
        }
        ready_.close();
        collation.join();
        if (stopped)
            std::rethrow_exception(stopped);
    }

    void giveBack() { handler_.giveBack(stored_); }
    void display() { handler_.display(); }
    std::uint64_t peakSegment() const { return peakSegment_; }
    std::uint64_t peakHeap() const { return peakHeap_; }

private:
    void storePages()
    {
        for (const fs::path& raster : rasters_) {
            const auto number = static_cast<unsigned>(stored_.size() + 1);
            StoredPage& page = stored_.emplace_back(StoredPage{number, ownerOfPage(number), {}, {}});
            processor_->store(raster, page);
            notePeak(page);
            std::printf("  page %3u/%zu  %ux%u  %5.1f MiB in %zu bands, owner 0x%02x%s\n", number, rasters_.size(),
                        page.header.width, page.header.height, mebibytes(page.header.imageBytes()), page.bands.size(),
                        page.owner,
                        page.heapBands() > 0
                            ? (", " + std::to_string(page.heapBands()) + " of them from the heap").c_str()
                            : "");
            std::fflush(stdout);
            ready_.push(&page);
        }
    }

    void notePeak(const StoredPage& page)
    {
        for (const Band& band : page.bands)
            if (band.inHeap)
                peakHeap_ += (band.bytes + layout_.blockBytes - 1) / layout_.blockBytes * layout_.heapBlockBytes;
        peakSegment_ = std::max(peakSegment_, handler_.pageSegmentUse());
    }

    // The first copy follows the raster processor page by page; the others come from memory.
    void writeCopies()
    {
        const unsigned copies = collation_->copies();
        std::vector<const StoredPage*> pages;
        while (const auto page = ready_.pop()) {
            pages.push_back(*page);
            write(1, **page);
        }
        if (pages.size() != rasters_.size())
            return; // the raster processor stopped
        for (unsigned copy = 2; copy <= copies; ++copy)
            for (const StoredPage* page : pages)
                write(copy, *page);
    }

    void write(unsigned copy, const StoredPage& page)
    {
        collation_->write(page, pageFile(options_.output, copy, rasters_[page.number - 1]));
        if (page.number == rasters_.size())
            std::printf("  copy %u: %zu pages\n", copy, rasters_.size());
    }

    const Options& options_;
    std::vector<fs::path> rasters_;
    Layout layout_;
    JobHandler handler_;
    std::optional<RasterProcessor> processor_;
    std::optional<CollationCopy> collation_;
    std::vector<StoredPage> stored_; // reserved to its full size: the queue holds pointers into it
    Queue<const StoredPage*> ready_;
    std::uint64_t peakSegment_ = 0;
    std::uint64_t peakHeap_ = 0;
};

// Prints the manager's own display; true when every segment's blocks are free again.
bool showDisplay(const std::vector<std::string>& messages)
{
    bool allFree = true;
    std::puts("Segment table (kernel log):");
    for (const std::string& message : messages) {
        std::printf("  %s%s", message.c_str(), message.ends_with('\n') ? "" : "\n");
        if (const auto row = parseDisplayRow(message))
            allFree = allFree && row->freeBlocks == row->totalBlocks;
    }
    return allFree && !displayRows(messages).empty();
}

unsigned countDifferentPages(const Options& options, const std::vector<fs::path>& rasters)
{
    unsigned different = 0;
    for (unsigned copy = 1; copy <= options.copies; ++copy)
        for (const fs::path& raster : rasters)
            if (!sameBytes(raster, pageFile(options.output, copy, raster))) {
                std::printf("  differs: %s\n", pageFile(options.output, copy, raster).c_str());
                ++different;
            }
    return different;
}

int print(const Options& options)
{
    std::vector<fs::path> rasters;
    if (options.rasters) {
        rasters = pagesIn(*options.rasters);
    } else {
        const fs::path document = options.document ? *options.document : defaultDocument();
        std::printf("Ghostscript draws %s at %u dpi\n", document.c_str(), options.dpi);
        std::fflush(stdout);
        rasters = drawPages(document, options.dpi, options.output / "drawn");
    }
    Controller controller = connect(options);
    std::printf("Printing %zu pages, %u copies\n", rasters.size(), options.copies);

    Job job(controller, options, rasters);
    std::optional<std::string> failure;
    try {
        job.run();
    } catch (const std::exception& error) {
        failure = error.what();
    }
    job.giveBack();
    controller.kernelLog(); // what was printed before the display
    job.display();
    const bool allFree = showDisplay(controller.kernelLog());

    std::printf("Peak use: %.1f MiB of the page segment, %.1f MiB of the heap\n", mebibytes(job.peakSegment()),
                mebibytes(job.peakHeap()));
    std::puts(allFree ? "All blocks of every segment are free again" : "BLOCKS ARE STILL ALLOCATED");
    if (failure) {
        std::fflush(stdout);
        std::cerr << "print-job: " << *failure << "\n";
        return 1;
    }
    const unsigned different = countDifferentPages(options, rasters);
    if (different == 0)
        std::printf("All %zu pages of all %u copies are identical to what was drawn: %s\n", rasters.size(),
                    options.copies, options.output.c_str());
    return different == 0 && allFree ? 0 : 1;
}

} // namespace
} // namespace printjob

int main(int count, char** arguments)
{
    const std::vector<std::string_view> words(arguments + 1, arguments + count);
    if (!words.empty() && (words[0] == "--help" || words[0] == "-h" || words[0] == "help")) {
        std::cout << printjob::kHelp;
        return 0;
    }
    try {
        return printjob::print(printjob::parse(words));
    } catch (const printjob::UsageError& error) {
        std::cerr << "print-job: " << error.what() << "\nTry 'print-job --help'.\n";
        return 2;
    } catch (const std::exception& error) {
        std::cerr << "print-job: " << error.what() << "\n";
        return 1;
    }
}
