// velmora-bench: the manager's block allocator beside other allocators, all in one run and on the same sequences.
#include <benchmark/benchmark.h>

#include <cstring>
#include <functional>
#include <map>
#include <sys/prctl.h>

#include "tools/command_line.hpp"
#include "measure.hpp"
#include "socket_work.hpp"
#include "workloads.hpp"

namespace bench {
namespace {

struct Options {
    std::filesystem::path sequence, output;
    std::string only = ".";
    bool quick = false;
    bool mediansOnly = false;
};

void describe(CLI::App& app, Options& options)
{
    velmora::tools::prepare(app);
    app.set_version_flag("--version", "velmora-bench " VELMORA_MM_VERSION, "the version");
    app.add_option("--sequence", options.sequence, "the recorded print job (bench/print-job.txt)")
        ->type_name("FILE")
        ->required();
    app.add_option("--output", options.output, "results as JSON")->type_name("FILE")->required();
    app.add_flag("--quick", options.quick, "fewer sizes, shorter sequences: under a minute");
    app.add_flag("--medians-only", options.mediansOnly, "no single operations, no lock times; rates are rough");
    app.add_option("--only", options.only,
                   "workloads and contenders by name, as they are printed: churn/95/1000/velmora")
        ->type_name("REGEX");
}

class Suite
{
public:
    explicit Suite(const Options& options)
        : options_(options), clock_(Clock::calibrate()), job_(PrintJob::read(options.sequence))
    {
        addPrintJob();
        addChurn();
        addCombs();
        addCleanUp();
        addDevice();
        addSocket();
    }

    void run()
    {
        Progress progress(*this);
        benchmark::RunSpecifiedBenchmarks(&progress, options_.only);
        std::vector<Result> results;
        for (const std::string& name : order_)
            if (const auto result = results_.find(name); result != results_.end())
                results.push_back(result->second);
        writeJson(results, options_.output);
    }

private:
    // Google Benchmark's report of a run: its rate, and a line of progress.
    class Progress : public benchmark::BenchmarkReporter
    {
    public:
        explicit Progress(Suite& suite) : suite_(suite) {}
        bool ReportContext(const Context&) override { return true; }
        void ReportRuns(const std::vector<Run>& runs) override
        {
            for (const Run& run : runs) {
                if (run.error_occurred)
                    throw std::runtime_error(run.benchmark_name() + ": " + run.error_message);
                Result& result = suite_.results_.at(run.run_name.function_name);
                result.opsPerSecond = run.counters.at("items_per_second");
                std::fprintf(stderr, "%s %.4g ns\n", run.run_name.function_name.c_str(), result.medianNs);
            }
        }

    private:
        Suite& suite_;
    };

    static std::string nameOf(const Result& key)
    {
        std::string name = key.workload;
        if (key.occupancy)
            name += "/" + std::to_string(*key.occupancy);
        name += "/" + std::to_string(key.size) + "/" + key.contender;
        return key.path.empty() ? name : name + "/" + key.path;
    }

    // One row: make() gives the workload for its contender.
    template <class Make> void add(const Result& key, const Effort& effort, Make make)
    {
        const std::string name = nameOf(key);
        order_.push_back(name);
        const auto function = [this, key, name, effort, make](benchmark::State& state) {
            const auto work = make();
            const auto measured = results_.find(name);
            if (measured == results_.end())
                results_[name] = measure(key, *work, effort);
            // Google Benchmark calls again when it wants more iterations; a pass is one.
            const std::size_t count = results_[name].samples;
            work->prepare();
            bool prepared = true;
            for (auto _ : state) {
                if (!prepared && count < work->operations()) { // a pass cut short does not end as it began
                    state.PauseTiming();
                    work->prepare();
                    state.ResumeTiming();
                }
                prepared = false;
                if constexpr (requires { work->before(0); }) {
                    for (std::size_t i = 0; i < count; ++i) {
                        state.PauseTiming();
                        work->before(i);
                        state.ResumeTiming();
                        work->run(i);
                    }
                } else {
                    for (std::size_t i = 0; i < count; ++i)
                        work->run(i);
                }
            }
            state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * count));
            expect(velmora::sim::machine().takeLog().empty(), "the kernel log is not empty");
        };
        benchmark::RegisterBenchmark(name.c_str(), function)
            ->MinTime(options_.mediansOnly ? 0.001
                      : options_.quick     ? 0.02
                                           : 0.1); // processor time: the machine may be shared
    }

    template <class Work> Result measure(Result result, Work& work, const Effort& effort)
    {
        Measurement<Work> measurement(work, clock_, effort);
        result.samples = measurement.count();
        if (!options_.mediansOnly)
            measurement.singles(result);
        if (measurement.count() == work.operations())
            result.largestRunRatio = work.largestRunRatio();
        result.failed = work.failed();
        measurement.batches(result);
        if (!options_.mediansOnly)
            measurement.lockHold(result);
        if constexpr (requires { work.contender().indexed(); })
            if (!MM_Guarded && result.contender == "velmora" && !work.contender().indexed())
                std::fprintf(stderr, "%s: the index was dropped; the list was walked\n", nameOf(result).c_str());
        if (const auto log = velmora::sim::machine().takeLog(); !log.empty())
            throw std::runtime_error(nameOf(result) + ": the kernel log has " + log.front());
        return result;
    }

    // One row for each contender that takes any order of releases.
    template <template <class> class Work, class... Arguments>
    void addAll(const Result& key, const Effort& effort, const Arguments&... arguments)
    {
        const auto addOne = [&]<class Contender>(std::type_identity<Contender>, const char* contender) {
            Result named = key;
            named.contender = contender;
            add(named, effort, [arguments...] { return std::make_unique<Work<Contender>>(unwrap(arguments)...); });
        };
        addOne(std::type_identity<Velmora<Search::Index>>(), "velmora");
        addOne(std::type_identity<Velmora<Search::Walk>>(), "velmora-walk");
        addOne(std::type_identity<BoostTree>(), "boost-rbtree");
        addOne(std::type_identity<PmrPool>(), "pmr-pool");
        addOne(std::type_identity<Glibc>(), "glibc");
        addOne(std::type_identity<Mimalloc>(), "mimalloc");
        addOne(std::type_identity<Jemalloc>(), "jemalloc");
    }

    template <class T> static const T& unwrap(std::shared_ptr<const T> shared) { return *shared; }
    static std::size_t unwrap(std::size_t number) { return number; }

    std::size_t operations(std::uint32_t size) const
    {
        return (size > 10000 ? 400000 : 160000) / (options_.quick ? 8 : 1);
    }

    std::vector<std::uint32_t> sizes() const
    {
        return options_.quick ? std::vector<std::uint32_t>{10, 1000, 100000}
                              : std::vector<std::uint32_t>{10, 100, 1000, 10000, 100000};
    }

    Effort effort() const
    {
        Effort effort;
        if (options_.quick) {
            effort.passes = 2;
            effort.secondsPerPass = 0.03;
        }
        return effort;
    }

    void addPrintJob()
    {
        Effort many = effort();
        many.passes = options_.quick ? 20 : 60;
        const auto job = std::make_shared<const PrintJob>(job_);
        addAll<PrintJobWork>({.workload = "print-job", .size = job_.slots}, many, job);
    }

    void addChurn()
    {
        for (const unsigned occupancy : options_.quick ? std::vector{50u, 95u} : std::vector{50u, 80u, 95u})
            for (const std::uint32_t size : sizes())
                addAll<SequenceWork>({.workload = "churn", .occupancy = occupancy, .size = size}, effort(),
                                     std::make_shared<const Sequence>(churn(size, occupancy, operations(size))));
    }

    void addCombs()
    {
        std::vector<std::uint32_t> runs = sizes();
        runs.insert(runs.begin(), {2, 4, 8}); // where a walk is short
        if (options_.quick)
            runs.erase(runs.begin());
        for (const std::uint32_t size : runs)
            addAll<SequenceWork>({.workload = "comb", .size = size}, effort(),
                                 std::make_shared<const Sequence>(comb(size, operations(0) / 4)));
    }

    void addCleanUp()
    {
        constexpr std::uint32_t runs = 1000;
        Effort one = effort();
        one.batch = 1;
        addAll<CleanUpWork>({.workload = "cleanup", .size = runs}, one, std::size_t(runs),
                            std::size_t(options_.quick ? 48 : 320));
    }

    void addDevice()
    {
        struct Manager {
            const char* name;
            Search search;
            U8 discipline;
        };
        constexpr std::pair<const char*, Path> paths[] = {
            {"direct", Path::Direct}, {"command", Path::Command}, {"library", Path::Library}};
        const std::size_t count = operations(0) / 8;
        for (const auto& [pathName, path] : paths)
            for (const Manager& manager : {Manager{"velmora", Search::Index, LINKEDLIST},
                                           {"velmora-walk", Search::Walk, LINKEDLIST},
                                           {"stack", Search::Index, STACK}})
                add({.workload = "device", .size = 1, .contender = manager.name, .path = pathName}, effort(),
                    [manager, path = path, count] {
                        return std::make_unique<DeviceWork>(manager.search, manager.discipline, path, count);
                    });
    }

    void addSocket()
    {
        const std::size_t count = operations(0) / 64;
        add({.workload = "socket", .size = 1, .contender = "velmora"}, effort(),
            [count] { return std::make_unique<SocketWork<SocketCommand>>(count); });
        add({.workload = "socket", .size = 1, .contender = "socket-pair"}, effort(),
            [count] { return std::make_unique<SocketWork<SocketPairTrip>>(count); });
    }

    Options options_;
    Clock clock_;
    PrintJob job_;
    std::vector<std::string> order_;
    std::map<std::string, Result> results_;
};

// The largest area that the simulated machine can give, every page of it there before anything is timed.
void boot()
{
    using velmora::sim::kHighMemory;
    using velmora::sim::kPageOffset;
    prctl(PR_SET_THP_DISABLE, 1, 0, 0, 0); // small pages for everyone: the controller's memory has no others
    velmora::sim::bootController(kPageOffset + 0x1000, kHighMemory);
    std::memset(MM_At(memstart), 0, memend - memstart);
    expect(MM_Entry(MM_CONSTRUCT_DEFAULT_MCT) == ENOERR, "the configuration table is not built");
    velmora::sim::machine().takeLog();
}

} // namespace
} // namespace bench

int main(int count, char** arguments)
{
    CLI::App app("velmora-bench - times the memory manager beside other allocators\n", "velmora-bench");
    bench::Options options;
    bench::describe(app, options);
    return velmora::tools::runProgram(app, count, arguments, [&] {
        bench::boot();
        bench::Suite(options).run();
        return 0;
    });
}
