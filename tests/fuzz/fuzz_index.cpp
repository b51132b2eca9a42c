// fuzz-index: random sequences of operations, each played with indexes and by walking.
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include <unistd.h>

#include "tools/command_line.hpp"
#include "driver.h"
#include "sequence.h"

namespace {

using namespace velmora::fuzz;
using Bytes = std::vector<std::uint8_t>;

struct Options {
    unsigned long seed = 1;
    unsigned long runs = 0; // 0: until the time is up, or 100
    unsigned long seconds = 0;
    unsigned long leastAwake = 0; // percent of the operations
    unsigned long accesses = kAccesses;
    bool print = false;
    std::vector<std::string> files;
};

struct Totals {
    unsigned long runs = 0;
    unsigned long long operations = 0, awake = 0, walkAccesses = 0, indexAccesses = 0;
    unsigned long longestList = 0;

    unsigned awakePercent() const { return static_cast<unsigned>(operations == 0 ? 0 : awake * 100 / operations); }
};

char currentRun[128]; // what to say when the manager stops the program

void sayWhereItStopped(int signal)
{
    static_cast<void>(!write(STDERR_FILENO, currentRun, std::strlen(currentRun)));
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

// Every fourth sequence does only what a correct client does, and may be long. Where clients make mistakes there are
// many short ones.
Bytes sequenceOf(unsigned long seed)
{
    std::mt19937 random(static_cast<std::uint32_t>(seed));
    const bool ordinary = seed % 4 == 0;
    const unsigned steps = 1U << (6 + random() % (ordinary ? 7 : 4));
    Bytes bytes(Sequence::kHeadBytes + steps * Sequence::kRecordBytes);
    for (std::uint8_t& byte : bytes)
        byte = static_cast<std::uint8_t>(random() >> 24);
    bytes[0] = static_cast<std::uint8_t>(ordinary ? bytes[0] & ~1U : (bytes[0] | 1U) & 0x7F);
    return bytes;
}

using Clock = std::chrono::steady_clock;

// Leaves out steps, then makes their bytes smaller, as long as there is a difference, and as time allows.
Bytes shrink(Bytes bytes, unsigned long accesses)
{
    constexpr std::size_t head = Sequence::kHeadBytes;
    const auto end = Clock::now() + std::chrono::seconds(30);
    const auto differs = [=](const Bytes& less) {
        return Clock::now() < end && !run(less.data(), less.size(), accesses).same();
    };
    for (std::size_t count = (bytes.size() - head) / Sequence::kRecordBytes; count > 0; count /= 2) {
        const auto length = static_cast<std::ptrdiff_t>(count * Sequence::kRecordBytes);
        for (auto place = static_cast<std::ptrdiff_t>(head); place + length <= std::ssize(bytes);) {
            Bytes less = bytes;
            less.erase(less.begin() + place, less.begin() + place + length);
            if (differs(less))
                bytes = std::move(less);
            else
                place += length;
        }
    }
    for (std::size_t place = head; place < bytes.size(); ++place)
        for (const unsigned divisor : {256U, 16U, 2U}) {
            const std::uint8_t kept = bytes[place];
            bytes[place] = static_cast<std::uint8_t>(kept / divisor);
            if (!differs(bytes))
                bytes[place] = kept;
        }
    return bytes;
}

// The first and the last of many lines.
void printLines(const std::vector<std::string>& lines, std::size_t first, std::size_t last)
{
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (i < first || i + last >= lines.size())
            std::printf("%s\n", lines[i].c_str());
        else if (i == first)
            std::printf("... %zu lines ...\n", lines.size() - first - last);
    }
}

void report(const std::string& name, const Bytes& bytes, const Verdict& verdict, const Options& options)
{
    std::printf("%s: a difference at %s", name.c_str(), verdict.difference.c_str());
    std::fflush(stdout);
    const Bytes shortest = shrink(bytes, options.accesses);
    const Verdict again = run(shortest.data(), shortest.size(), options.accesses);
    const std::string file = std::filesystem::temp_directory_path() / "fuzz-index-difference";
    std::ofstream(file, std::ios::binary).write(reinterpret_cast<const char*>(shortest.data()), std::ssize(shortest));
    std::printf("The shortest sequence found has %lu operations and is in %s; the walk plays it so:\n",
                again.operations, file.c_str());
    printLines(linesOf(shortest.data(), shortest.size(), false, options.accesses), 40, 40);
    std::printf("Difference at %s", again.difference.c_str());
}

bool play(const std::string& name, const Bytes& bytes, const Options& options, Totals& totals)
{
    std::snprintf(currentRun, sizeof currentRun, "fuzz-index: stopped in %s\n", name.c_str());
    if (options.print)
        printLines(linesOf(bytes.data(), bytes.size(), false, options.accesses), ~0U, 0);
    const Verdict verdict = run(bytes.data(), bytes.size(), options.accesses);
    ++totals.runs;
    totals.operations += verdict.operations;
    totals.awake += verdict.awake;
    totals.walkAccesses += verdict.walkAccesses;
    totals.indexAccesses += verdict.indexAccesses;
    totals.longestList = std::max(totals.longestList, verdict.longestList);
    if (!verdict.same())
        report(name, bytes, verdict, options);
    return verdict.same();
}

bool playFiles(const Options& options, Totals& totals)
{
    for (const std::string& name : options.files) {
        std::ifstream file(name, std::ios::binary);
        if (!play(name, Bytes(std::istreambuf_iterator<char>(file), {}), options, totals))
            return false;
    }
    return true;
}

bool playSeeds(const Options& options, Totals& totals)
{
    const auto end = Clock::now() + std::chrono::seconds(options.seconds);
    const unsigned long runs = options.runs == 0 && options.seconds == 0 ? 100 : options.runs;
    for (unsigned long i = 0; runs == 0 || i < runs; ++i) {
        if (options.seconds != 0 && Clock::now() >= end)
            break;
        if (!play("seed " + std::to_string(options.seed + i), sequenceOf(options.seed + i), options, totals))
            return false;
    }
    return true;
}

void describe(CLI::App& app, Options& options)
{
    velmora::tools::prepare(app);
    app.footer("Run I of seed A has seed A + I: --seed A+I --runs 1 repeats it.\n"
               "exit status: 0 no difference, 1 a difference, 2 unusable arguments\n");
    app.add_option("FILE", options.files, "sequences to play, as libFuzzer keeps them; default: random ones")
        ->type_name("")
        ->check(CLI::ExistingFile.description(""));
    const auto number = [&](const char* name, unsigned long& value, const char* meaning) {
        app.add_option(name, value, meaning)->type_name("N");
    };
    number("--seed", options.seed, "seed of the first sequence; default 1");
    number("--runs", options.runs, "random sequences; default: until the time is up, or 100");
    number("--seconds", options.seconds, "how long");
    number("--least-awake", options.leastAwake, "percent of the operations in which an index has to be awake");
    number("--accesses", options.accesses, "accesses to memory after which the rest of a sequence is left out");
    app.add_flag("--print", options.print, "write the operations");
}

int playAll(const Options& options)
{
    std::signal(SIGILL, sayWhereItStopped);
    std::signal(SIGABRT, sayWhereItStopped);

    Totals totals;
    const bool same = options.files.empty() ? playSeeds(options, totals) : playFiles(options, totals);
    std::printf("fuzz-index: %lu sequences, %llu operations, index awake in %u %%, up to %lu free runs, accesses to "
                "memory %llu walking, %llu with indexes: %s\n",
                totals.runs, totals.operations, totals.awakePercent(), totals.longestList, totals.walkAccesses,
                totals.indexAccesses, same ? "no difference" : "A DIFFERENCE");
    if (same && totals.awakePercent() < options.leastAwake) {
        std::printf("fuzz-index: the index has to be awake in %lu %%\n", options.leastAwake);
        return 1;
    }
    return same ? 0 : 1;
}

} // namespace

int main(int count, char** words)
{
    CLI::App app("fuzz-index - random sequences of operations, each played with indexes and by walking\n",
                 "fuzz-index");
    Options options;
    describe(app, options);
    return velmora::tools::runProgram(app, count, words, [&] { return playAll(options); });
}
