// A target without libFuzzer: plays the inputs that were kept, and random ones.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "fuzz/target.h"
#include "tools/command_line.hpp"

namespace {

namespace fs = std::filesystem;
using velmora::fuzz::kTargetName;
using Bytes = std::vector<std::uint8_t>;

struct Options {
    unsigned long seed = 1;
    unsigned long runs = 0;
    std::vector<std::string> inputs;
};

Bytes randomInput(unsigned long seed)
{
    std::mt19937 random(static_cast<std::uint32_t>(seed));
    Bytes bytes(1 + random() % 2048);
    for (std::uint8_t& byte : bytes)
        byte = static_cast<std::uint8_t>(random());
    return bytes;
}

bool play(const std::string& name, const Bytes& bytes)
{
    const std::string mistake = velmora::fuzz::playInput(bytes.data(), bytes.size());
    if (!mistake.empty())
        std::printf("%s: %s: %s\n", kTargetName, name.c_str(), mistake.c_str());
    return mistake.empty();
}

// Files, and those of folders, in an order that is always the same.
std::set<fs::path> filesOf(const std::vector<std::string>& inputs)
{
    std::set<fs::path> files;
    for (const fs::path input : inputs) {
        if (!fs::is_directory(input))
            files.insert(input);
        else
            for (const auto& entry : fs::directory_iterator(input))
                files.insert(entry.path());
    }
    return files;
}

int run(const Options& options)
{
    bool good = true;
    const std::set<fs::path> files = filesOf(options.inputs);
    for (const fs::path& file : files) {
        std::ifstream stream(file, std::ios::binary);
        good = play(file, Bytes(std::istreambuf_iterator<char>(stream), {})) && good;
    }
    for (unsigned long i = 0; i < options.runs; ++i)
        good = play("seed " + std::to_string(options.seed + i), randomInput(options.seed + i)) && good;
    std::printf("%s: %zu files, %lu random inputs: %s\n", kTargetName, files.size(), options.runs,
                good ? "everything as it should be" : "A MISTAKE");
    return good ? 0 : 1;
}

} // namespace

int main(int count, char** words)
{
    CLI::App app(std::string(kTargetName) + " - " + velmora::fuzz::kTargetDoes + "\n", kTargetName);
    velmora::tools::prepare(app);
    app.footer("exit status: 0 everything as it should be, 1 a mistake, 2 unusable arguments\n");
    Options options;
    app.add_option("--seed", options.seed, "of the first random input; default: 1")->type_name("N");
    app.add_option("--runs", options.runs, "random inputs; default: none")->type_name("N");
    app.add_option("INPUT", options.inputs, "files and folders of inputs, as libFuzzer keeps them")
        ->check(CLI::ExistingPath.description(""))
        ->type_name("")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    return velmora::tools::runProgram(app, count, words, [&] { return run(options); });
}
