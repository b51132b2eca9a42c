// What was measured, one record for each workload and contender, and how it is written down.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

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

// Four digits are more than a measurement is good for.
inline double rounded(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.4g", value);
    return std::strtod(text, nullptr);
}

inline nlohmann::ordered_json rounded(const std::optional<double>& value)
{
    return value ? nlohmann::ordered_json(rounded(*value)) : nullptr;
}

inline nlohmann::ordered_json toJson(const Result& r)
{
    nlohmann::ordered_json json = {{"workload", r.workload}, {"occupancy", nullptr}, {"size", r.size}};
    if (r.occupancy)
        json["occupancy"] = *r.occupancy;
    json["contender"] = r.contender;
    if (!r.path.empty())
        json["path"] = r.path;
    json["median_ns"] = rounded(r.medianNs);
    json["p999_ns"] = rounded(r.p999Ns);
    json["worst_ns"] = rounded(r.worstNs);
    json["ops_per_s"] = static_cast<std::uint64_t>(r.opsPerSecond);
    json["largest_run_ratio"] = rounded(r.largestRunRatio);
    json["lock_ns"] = rounded(r.lockNs);
    json["allocate_mean_ns"] = rounded(r.allocateMeanNs);
    json["release_mean_ns"] = rounded(r.releaseMeanNs);
    json["interrupted_worst_ns"] = rounded(r.interruptedNs);
    json["samples"] = r.samples;
    json["batch"] = r.batch;
    json["failed"] = r.failed;
    return json;
}

inline void writeJson(const std::vector<Result>& results, const std::filesystem::path& path)
{
    nlohmann::ordered_json rows = nlohmann::ordered_json::array();
    for (const Result& result : results)
        rows.push_back(toJson(result));
    std::ofstream file(path);
    file << rows.dump(1) << "\n";
    if (!file.flush())
        throw std::runtime_error("cannot write " + path.string());
}

} // namespace bench
