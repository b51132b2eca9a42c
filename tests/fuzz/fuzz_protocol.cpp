// fuzz-protocol: packets that nobody would send, to the controller behind its socket.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "fuzz/protocol.h"
#include "tools/command_line.hpp"

namespace {

using velmora::fuzz::playProtocol;
using Bytes = std::vector<std::uint8_t>;

struct Options {
    unsigned long seed = 1;
    unsigned long runs = 0;
    std::vector<std::string> folders;
};

struct Totals {
    unsigned long inputs = 0, stopped = 0;
    unsigned long long packets = 0;
};

// Requests with a good header for the most part, commands with good counts among them, in bytes that are not random all over.
Bytes inputOf(unsigned long seed)
{
    std::mt19937 random(static_cast<std::uint32_t>(seed));
    Bytes bytes;
    for (unsigned packets = 1 + random() % 64; packets > 0; --packets) {
        const bool good = random() % 8 != 0;
        auto what = static_cast<std::uint8_t>(random());
        what = static_cast<std::uint8_t>(good ? (what | 0x44) & 0x7F : what);
        if (random() % 2 != 0) // a command
            what = static_cast<std::uint8_t>((what & ~0x38) | 0x10);
        static constexpr std::uint8_t sizes[] = {16, 20, 28, 32, 36, 40, 44, 48, 60, 120, 121};
        const std::uint8_t size =
            random() % 4 != 0 ? sizes[random() % std::size(sizes)] : static_cast<std::uint8_t>(random());
        bytes.insert(bytes.end(), {what, size, 0});
        for (unsigned i = 0; i < size; ++i)
            bytes.push_back(static_cast<std::uint8_t>(random() % 3 != 0   ? 0
                                                      : random() % 2 != 0 ? random() % 16
                                                                          : random()));
    }
    return bytes;
}

bool play(const std::string& name, const Bytes& bytes, Totals& totals)
{
    const auto verdict = playProtocol(bytes.data(), bytes.size());
    ++totals.inputs;
    totals.packets += verdict.packets;
    totals.stopped += verdict.stopped;
    if (!verdict.mistake.empty())
        std::printf("%s, packet %lu: %s\n", name.c_str(), verdict.packets, verdict.mistake.c_str());
    return verdict.mistake.empty();
}

int run(const Options& options)
{
    Totals totals;
    bool good = true;
    for (const std::string& folder : options.folders)
        for (const auto& entry : std::filesystem::directory_iterator(folder)) {
            std::ifstream file(entry.path(), std::ios::binary);
            good = play(entry.path(), Bytes(std::istreambuf_iterator<char>(file), {}), totals) && good;
        }
    for (unsigned long i = 0; i < options.runs; ++i)
        good = play("seed " + std::to_string(options.seed + i), inputOf(options.seed + i), totals) && good;
    std::printf("fuzz-protocol: %lu inputs, %llu packets, %lu ended by the manager: %s\n", totals.inputs,
                totals.packets, totals.stopped, good ? "every answer as it should be" : "A MISTAKE");
    return good ? 0 : 1;
}

} // namespace

int main(int count, char** words)
{
    CLI::App app("fuzz-protocol - packets that nobody would send, to the controller behind its socket\n",
                 "fuzz-protocol");
    velmora::tools::prepare(app);
    Options options;
    app.add_option("--seed", options.seed, "of the first random input; default: 1");
    app.add_option("--runs", options.runs, "random inputs; default: none");
    app.add_option("CORPUS", options.folders, "folders of inputs, as libFuzzer keeps them")
        ->check(CLI::ExistingDirectory)
        ->type_name("")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    return velmora::tools::runProgram(app, count, words, [&] { return run(options); });
}
