// velmora-soak: weeks of print jobs on the simulated controller, at full speed.
//
//   velmora-soak HOURS SEED [SAMPLES]     HOURS: of this machine, a fraction allowed; one week at the least is begun
//
// Each week has a controller of its own. At its end, or when the time is over, everything that was allocated is free again. SAMPLES: a
// file for the state of the memory at each full hour of the first week, as comma-separated values.
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>

#include "jobs.h"

namespace {

using namespace velmora::soak;

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

void sample(std::FILE* file, std::uint64_t hour, const Printer& printer)
{
    std::fprintf(file, "%" PRIu64, hour);
    for (unsigned i = 0; i < Printer::kSegments; ++i) {
        const TMMSegInfo& seg = printer.segment(i);
        std::fprintf(file, ",%u,%u,%u", seg.ulTotalBlkNum << seg.ubBlkBit, seg.ulTotalFreeBlkNum << seg.ubBlkBit,
                     seg.ulLargestBlkSize << seg.ubBlkBit);
    }
    std::fputc('\n', file);
}

void report(unsigned week, std::uint64_t time, const Counts& counts)
{
    std::printf("week %u: %.1f days, %" PRIu64 " jobs (%" PRIu64 " cancelled, %" PRIu64 " lost their party, %" PRIu64
                " given up), %" PRIu64 " pages, %" PRIu64 " allocations, %" PRIu64 " without room",
                week, static_cast<double>(time) / (24.0 * kHour), counts.jobs, counts.cancelled, counts.killed,
                counts.givenUp, counts.pages, counts.allocations, counts.noRoom);
    if (counts.scribbles != 0)
        std::printf(", %" PRIu64 " words overwritten, %" PRIu64
                    " releases that came after a clean-up by overwritten owners",
                    counts.scribbles, counts.refused);
    std::printf(": nothing is lost\n");
    std::fflush(stdout);
}

} // namespace

int main(int count, char** arguments)
{
    char* end = nullptr;
    const double hours = count > 1 ? std::strtod(arguments[1], &end) : 0;
    if (count < 3 || count > 4 || *end != '\0' || !(hours > 0 && hours < 10000)) {
        std::fprintf(stderr, "usage: velmora-soak HOURS SEED [SAMPLES]\n");
        return 2;
    }
    const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(hours * 3600);
    const auto inTime = [until] { return std::chrono::steady_clock::now() < until; };
    const auto seed = static_cast<std::uint32_t>(std::strtoul(arguments[2], nullptr, 0));
    File samples(count > 3 ? std::fopen(arguments[3], "w") : nullptr);
    if (count > 3 && !samples) {
        std::perror(arguments[3]);
        return 1;
    }
    for (unsigned week = 1; week == 1 || inTime(); ++week) {
        std::uint64_t time = 0;
        try {
            Printer printer(seed + week - 1);
            while (time < kWeek && inTime()) {
                if (samples && week == 1)
                    sample(samples.get(), time / kHour, printer);
                printer.playUntil(time += kHour);
            }
            printer.closeDown();
            report(week, time, printer.counts());
        } catch (const std::exception& error) {
            std::printf("week %u, %.1f days, seed %u: %s\n", week, static_cast<double>(time) / (24.0 * kHour),
                        seed + week - 1, error.what());
            return 1;
        }
    }
    return 0;
}
