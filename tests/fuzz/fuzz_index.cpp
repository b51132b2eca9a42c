// fuzz-index: random sequences of operations, each played with indexes and by walking.
//   fuzz-index [--seed A] [--runs N] [--seconds S] [--least-awake PERCENT] [--accesses N] [--print] [FILE...]
// Run I of seed A has seed A + I, so that one run is repeated with --seed A+I --runs 1; --print writes its operations.
// A FILE holds a sequence, as libFuzzer keeps them. Exit status: 0 same, 1 a difference, 2 a wrong call.
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include <unistd.h>

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
    const std::string file = "fuzz-index-difference";
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

bool parse(int count, char** words, Options& options)
{
    struct {
        const char* name;
        unsigned long& value;
    } const numbers[] = {{"--seed", options.seed},
                         {"--runs", options.runs},
                         {"--seconds", options.seconds},
                         {"--least-awake", options.leastAwake},
                         {"--accesses", options.accesses}};
    for (int i = 1; i < count; ++i) {
        const std::string word = words[i];
        const auto* const number = std::find_if(std::begin(numbers), std::end(numbers),
                                                [&](const auto& candidate) { return word == candidate.name; });
        if (number != std::end(numbers) && i + 1 < count)
            number->value = std::strtoul(words[++i], nullptr, 0);
        else if (word == "--print")
            options.print = true;
        else if (word.starts_with("-"))
            return false;
        else
            options.files.push_back(word);
    }
    return true;
}

} // namespace

int main(int count, char** words)
{
    Options options;
    if (!parse(count, words, options)) {
        std::fprintf(stderr, "fuzz-index [--seed A] [--runs N] [--seconds S] [--least-awake PERCENT] [--accesses N] "
                             "[--print] [FILE...]\n");
        return 2;
    }
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
