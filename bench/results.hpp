// What was measured, one record for each workload and contender, and how it is written down.
#pragma once

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace bench {

struct Result {
    std::string workload = {};
    std::optional<unsigned> occupancy = {}; // percent
    std::uint32_t size = 0;                 // live allocations or free runs
    std::string contender = {};
    std::string path = {}; // how the manager is called, where that is what is measured

    double medianNs = 0; // one operation, from batches
    double p999Ns = 0;   // single operations
    double worstNs = 0;
    double opsPerSecond = 0;
    std::optional<double> largestRunRatio = {}; // longest allocatable run over all free bytes

    std::size_t samples = 0;   // operations measured one by one
    std::size_t batch = 1;     // operations between two readings, for the median
    std::uint64_t failed = 0;  // allocations without room, of one pass
    double allocateMeanNs = 0; // single operations, without the slowest percent
    double releaseMeanNs = 0;
    double interruptedNs = 0;          // worst single operation as it was met, interruptions of this program included
    std::optional<double> lockNs = {}; // longest time that a lock was held
};

inline std::string number(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.4g", value);
    return text;
}

inline std::string number(const std::optional<double>& value)
{
    return value ? number(*value) : "null";
}

inline void writeJson(const std::vector<Result>& results, const std::filesystem::path& path)
{
    std::ofstream file(path);
    file << "[\n";
    for (const Result& r : results) {
        file << "  {\"workload\": \"" << r.workload
             << "\", \"occupancy\": " << (r.occupancy ? std::to_string(*r.occupancy) : "null")
             << ", \"size\": " << r.size << ", \"contender\": \"" << r.contender << "\"";
        if (!r.path.empty())
            file << ", \"path\": \"" << r.path << "\"";
        file << ", \"median_ns\": " << number(r.medianNs) << ", \"p999_ns\": " << number(r.p999Ns)
             << ", \"worst_ns\": " << number(r.worstNs) << ", \"ops_per_s\": " << std::uint64_t(r.opsPerSecond)
             << ", \"largest_run_ratio\": " << number(r.largestRunRatio) << ", \"lock_ns\": " << number(r.lockNs)
             << ", \"allocate_mean_ns\": " << number(r.allocateMeanNs)
             << ", \"release_mean_ns\": " << number(r.releaseMeanNs)
             << ", \"interrupted_worst_ns\": " << number(r.interruptedNs) << ", \"samples\": " << r.samples
             << ", \"batch\": " << r.batch << ", \"failed\": " << r.failed << "}"
             << (&r == &results.back() ? "\n" : ",\n");
    }
    file << "]\n";
    if (!file.flush())
        throw std::runtime_error("cannot write " + path.string());
}

} // namespace bench
