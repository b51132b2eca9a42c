// print-job: prints a document through the memory manager, as a controller does.
#include <algorithm>
#include <cstdio>
#include <exception>
#include <functional>
#include <iostream>
#include <optional>
#include <system_error>
#include <thread>

#include "controller/device.h"
#include "host/machine.h"
#include "tools/command_line.hpp"
#include "document.hpp"
#include "kernel_log.hpp"
#include "parties.hpp"
#include "queue.hpp"

namespace printjob {
namespace {

namespace fs = std::filesystem;

struct Options {
    std::optional<fs::path> document;
    unsigned dpi = 75;
    unsigned copies = 3;
    fs::path output = "build/demo";
    std::optional<fs::path> rasters;
    std::optional<std::string> device;
};

void describe(CLI::App& app, Options& options)
{
    velmora::tools::prepare(app);
    app.set_version_flag("--version", "print-job " VELMORA_MM_VERSION, "the version");
    app.footer("exit status: 0 all pages of all copies are identical to what was drawn and all memory was given back,\n"
               "             1 anything else, 2 unusable arguments\n");
    app.add_option("--document", options.document,
                   "PDF or PostScript; default: an example that Debian ships with Ghostscript")
        ->type_name("FILE");
    app.add_option("--dpi", options.dpi, "resolution at which Ghostscript draws the pages, 18 to 1200; default 75")
        ->type_name("N")
        ->check(CLI::Range(18, 1200).description(""));
    app.add_option("--copies", options.copies, "collated copies, 1 to 999; default 3")
        ->type_name("N")
        ->check(CLI::Range(1, 999).description(""));
    app.add_option("--output", options.output, "where the copies go: DIR/copy-1/page-0001.ppm ...; default build/demo")
        ->type_name("DIR");
    app.add_option("--rasters", options.rasters, "print the netpbm pages in DIR; no Ghostscript is run")
        ->type_name("DIR");
    app.add_option("--device", options.device,
                   "a real manager, through its device node; default: the simulated controller in this process")
        ->type_name("NODE");
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

Controller connect(const Options& options)
{
    if (options.device)
        return {[node = *options.device] { return velmora::openNode(node); },
                [log = KernelLog()]() mutable { return log.takeMessages(); }};
    velmora::sim::bootController();
    return {velmora::sim::openDevice, [] { return velmora::sim::machine().takeLog(); }};
}

// A node that cannot be opened, or is another device's, is noticed before pages are drawn: any question will do.
void expectManager(const Controller& controller, const Options& options)
{
    velmora::Device device(controller.open());
    try {
        device.tableRow(0);
    } catch (const velmora::Error& error) {
        throw std::runtime_error(options.device.value_or("the simulated controller") +
                                 " is not the memory manager's device: " + error.what());
    }
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
        heapRoom_ = handler_.heapRoom();
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
    bool allIsFree() { return handler_.segmentsAreFree() && handler_.heapRoom() == heapRoom_; }
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
    std::uint64_t heapRoom_ = 0; // before anything was stored
    std::uint64_t peakSegment_ = 0;
    std::uint64_t peakHeap_ = 0;
};

// Shows the manager's own display. A log that this program may not read is no reason to stop.
void showDisplay(Job& job, const Controller& controller)
{
    try {
        controller.kernelLog(); // what was printed before
        job.display();
        std::puts("Segment table (kernel log):");
        for (const std::string& message : controller.kernelLog())
            std::printf("  %s%s", message.c_str(), message.ends_with('\n') ? "" : "\n");
    } catch (const std::system_error& error) {
        std::printf("No segment table: %s\n", error.what());
    }
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

std::vector<fs::path> rastersFor(const Options& options)
{
    if (options.rasters)
        return pagesIn(*options.rasters);
    const fs::path document = options.document ? *options.document : defaultDocument();
    std::printf("Ghostscript draws %s at %u dpi\n", document.c_str(), options.dpi);
    std::fflush(stdout);
    return drawPages(document, options.dpi, options.output / "drawn");
}

int print(const Options& options)
{
    const Controller controller = connect(options);
    expectManager(controller, options);
    const std::vector<fs::path> rasters = rastersFor(options);
    std::printf("Printing %zu pages, %u copies\n", rasters.size(), options.copies);

    Job job(controller, options, rasters);
    std::optional<std::string> failure;
    try {
        job.run();
    } catch (const std::exception& error) {
        failure = error.what();
    }
    job.giveBack();
    const bool allFree = job.allIsFree();
    showDisplay(job, controller);

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
    CLI::App app("print-job - prints a document through the memory manager of the printer controller\n", "print-job");
    printjob::Options options;
    printjob::describe(app, options);
    return velmora::tools::runProgram(app, count, arguments, [&] { return printjob::print(options); });
}
