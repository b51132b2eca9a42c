// print-job: prints a document through the memory manager, as a controller does.
#include <bit>
#include <chrono>
#include <cstdio>
#include <exception>
#include <iostream>
#include <memory>
#include <optional>
#include <regex>
#include <stdexcept>
#include <thread>

#include "tools/command_line.hpp"
#include "controllers.hpp"
#include "document.hpp"
#include "job.hpp"
#include "process_job.hpp"
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
    bool processes = false;
    std::optional<std::string> lose;
    unsigned patience = 60; // seconds
    Layout layout;
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
                   "a manager that runs already: its device node, or unix:SOCKET; default: a simulated controller")
        ->type_name("NODE");
    CLI::Option* const processes = app.add_flag(
        "--processes", options.processes,
        "the parties as three processes, on a velmora-controller of their own or on --device; default: threads");
    app.add_option(
           "--lose", options.lose,
           "kill a party in the middle of page N (raster:N, copy:N; raster:N:stop only stops it); what it held is\n"
           "collected, the job printed again")
        ->type_name("PARTY:N")
        ->needs(processes);
    app.add_option(
           "--patience", options.patience,
           "how long a party that owes an answer may say nothing before it counts as lost, 1 to 3600 s; default 60")
        ->type_name("SECONDS")
        ->needs(processes)
        ->check(CLI::Range(1, 3600).description(""));
}

// Sizes as "velmora-mm plan" has them.
void describeLayout(CLI::App& app, Layout& layout)
{
    const auto size = [&](const char* name, std::uint32_t& bytes, const char* meaning) {
        app.add_option(name, bytes, meaning)->type_name("BYTES")->transform(CLI::AsSizeValue(false).description(""));
    };
    size("--page-segment", layout.pageSegmentBytes, "size of the segment that holds the pages; default 32M");
    size("--page-block", layout.blockBytes, "size of its blocks, a power of two of at least 4K; default 4K");
    size("--heap-block", layout.heapBlockBytes, "size of the heap's blocks, not below --page-block; default 8K");
    app.add_flag(
        "--overflow", layout.overflows,
        "leave what does not fit into that segment to the manager, which takes it from the heap for nobody; default:\n"
        "the heap is asked, and what it gives has the page as its owner");
}

// What the job relies on: bands begin with a page, and a band that overflows fits into as many of the heap's blocks.
void checkLayout(const Layout& layout)
{
    constexpr std::uint32_t page = 4096;
    if (!std::has_single_bit(layout.blockBytes) || layout.blockBytes < page)
        throw velmora::tools::UsageError("--page-block: a power of two of at least 4096 is expected");
    if (!std::has_single_bit(layout.heapBlockBytes) || layout.heapBlockBytes < layout.blockBytes)
        throw velmora::tools::UsageError("--heap-block: a power of two is expected, not below --page-block");
    if (layout.pageSegmentBytes < layout.blockBytes)
        throw velmora::tools::UsageError("--page-segment: at least one block is expected");
}

std::optional<Loss> lossIn(const Options& options)
{
    if (!options.lose)
        return std::nullopt;
    std::smatch words;
    if (!std::regex_match(*options.lose, words, std::regex("(raster|copy):([1-9][0-9]{0,5})(:stop)?")))
        throw velmora::tools::UsageError("--lose: " + *options.lose +
                                         " is not raster:N or copy:N, nor one of them with :stop");
    return Loss{words[1] == "copy", static_cast<unsigned>(std::stoul(words[2])), words[3].matched};
}

double mebibytes(std::uint64_t bytes)
{
    return static_cast<double>(bytes) / (1 << 20);
}

Controller connect(const Options& options)
{
    if (options.device)
        return controllerAt(*options.device);
    return options.processes ? controllerProcess() : simulatedController();
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

// The parties in threads of this process.
class ThreadJob : public Job
{
public:
    ThreadJob(const Controller& controller, const Order& order)
        : Job(controller.open(), order), processor_(controller.open(), layout_, handler_.pageSegment()),
          open_(controller.open)
    {
    }

    // Runs the raster processor and the collation copy side by side; throws what stopped either.
    void run() override
    {
        begin();
        CollationCopy collation(open_(), handler_.ticket());
        std::exception_ptr stopped;
        std::thread copying([&] {
            try {
                writeCopies(collation);
            } catch (...) {
                stopped = std::current_exception();
            }
        });
        try {
            storePages();
        } catch (...) {
            ready_.close();
            copying.join();
            throw;
        }
        ready_.close();
        copying.join();
        if (stopped)
            std::rethrow_exception(stopped);
    }

private:
    void storePages()
    {
        for (const fs::path& raster : order_.rasters) {
            StoredPage& page = newPage();
            processor_.store(raster, page);
            pageIsStored(page);
            ready_.push(&page);
        }
    }

    // The first copy follows the raster processor page by page; the others come from memory.
    void writeCopies(CollationCopy& collation)
    {
        const unsigned copies = collation.copies();
        std::vector<const StoredPage*> pages;
        while (const auto page = ready_.pop()) {
            pages.push_back(*page);
            write(collation, 1, **page);
        }
        if (pages.size() != order_.rasters.size())
            return; // the raster processor stopped
        for (unsigned copy = 2; copy <= copies; ++copy)
            for (const StoredPage* page : pages)
                write(collation, copy, *page);
    }

    void write(CollationCopy& collation, unsigned copy, const StoredPage& page)
    {
        collation.write(page, order_.file(copy, page.number));
        pageIsWritten(copy, page.number);
    }

    RasterProcessor processor_;
    std::function<std::unique_ptr<velmora::Channel>()> open_;
    Queue<const StoredPage*> ready_; // of pages in stored_
};

std::unique_ptr<Job> newJob(const Controller& controller, const Options& options, const Order& order)
{
    if (options.processes)
        return std::make_unique<ProcessJob>(controller.device, order, std::chrono::seconds(options.patience),
                                            lossIn(options));
    return std::make_unique<ThreadJob>(controller, order);
}

// Shows the manager's own display. A log that this program may not read is no reason to stop.
void showDisplay(Job& job, const Controller& controller)
{
    try {
        controller.kernelLog(); // what was printed before
        job.display();
        std::puts("Segment table (kernel log):");
        for (const std::string& message : controller.kernelLog())
            std::printf("  %s%s", message.c_str(), message.ends_with('\n') ? "" : "\n");
    } catch (const std::runtime_error& error) {
        std::printf("No segment table: %s\n", error.what());
    }
}

unsigned countDifferentPages(const Order& order)
{
    unsigned different = 0;
    for (unsigned copy = 1; copy <= order.copies; ++copy)
        for (unsigned page = 1; page <= order.rasters.size(); ++page)
            if (!sameBytes(order.rasters[page - 1], order.file(copy, page))) {
                std::printf("  differs: %s\n", order.file(copy, page).c_str());
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
    lossIn(options); // throws when it cannot be used
    checkLayout(options.layout);
    const Controller controller = connect(options);
    expectManager(controller, options);
    const Order order{rastersFor(options), options.copies, options.output, options.layout};
    if (const auto loss = lossIn(options); loss && loss->page > order.rasters.size())
        throw velmora::tools::UsageError("--lose: there is no page " + std::to_string(loss->page));
    std::printf("Printing %zu pages, %u copies%s\n", order.rasters.size(), order.copies,
                options.processes ? ": job handling, raster processor and collation copy are three processes" : "");

    const std::unique_ptr<Job> job = newJob(controller, options, order);
    std::optional<std::string> failure;
    try {
        job->run();
    } catch (const std::exception& error) {
        failure = error.what();
    }
    job->giveBack();
    const bool allFree = job->allIsFree();
    showDisplay(*job, controller);

    std::printf("Peak use: %.1f MiB of the page segment, %.1f MiB of the heap\n", mebibytes(job->peakSegment()),
                mebibytes(job->peakHeap()));
    std::puts(allFree ? "All blocks of every segment are free again" : "BLOCKS ARE STILL ALLOCATED");
    if (failure) {
        std::fflush(stdout);
        std::cerr << "print-job: " << *failure << "\n";
        return 1;
    }
    const unsigned different = countDifferentPages(order);
    if (different == 0)
        std::printf("All %zu pages of all %u copies are identical to what was drawn: %s\n", order.rasters.size(),
                    order.copies, order.output.c_str());
    return different == 0 && allFree ? 0 : 1;
}

} // namespace
} // namespace printjob

int main(int count, char** arguments)
{
    CLI::App app("print-job - prints a document through the memory manager of the printer controller\n", "print-job");
    printjob::Options options;
    printjob::describe(app, options);
    printjob::describeLayout(app, options.layout);
    return velmora::tools::runProgram(app, count, arguments, [&] { return printjob::print(options); });
}
