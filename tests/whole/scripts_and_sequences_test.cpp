// Golden session scripts, and random sequences with indexes and by walking, as tests beside the others in one program.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <regex>
#include <sstream>

#include "controller/session.h"
#include "fuzz/driver.h"
#include "fuzz/sequence.h"

namespace {

std::string read(const std::filesystem::path& path)
{
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

TEST(Scripts, AnswerAsTheyShould)
{
    for (const auto& entry : std::filesystem::directory_iterator(VELMORA_SESSIONS)) {
        if (entry.path().extension() != ".txt")
            continue;
        std::ifstream script(entry.path());
        std::ostringstream answers;
        velmora::sim::runSession(script, answers);
        const std::string plain = std::regex_replace(answers.str(), std::regex(R"(,line=\d+\\n)"), R"(,line=N\n)");
        EXPECT_EQ(plain, read(std::filesystem::path(entry.path()).replace_extension(".answers"))) << entry.path();
    }
}

// As fuzz-index makes them.
TEST(Sequences, AreAnsweredAlikeWithIndexesAndByWalking)
{
    using velmora::fuzz::Sequence;
    for (unsigned long seed = 1; seed <= 24; ++seed) {
        std::mt19937 random(static_cast<std::uint32_t>(seed));
        const bool ordinary = seed % 4 == 0;
        const unsigned steps = 1U << (6 + random() % (ordinary ? 6 : 4));
        std::vector<std::uint8_t> bytes(Sequence::kHeadBytes + steps * Sequence::kRecordBytes);
        for (std::uint8_t& byte : bytes)
            byte = static_cast<std::uint8_t>(random() >> 24);
        bytes[0] = static_cast<std::uint8_t>(ordinary ? bytes[0] & ~1U : (bytes[0] | 1U) & 0x7F);
        EXPECT_EQ(velmora::fuzz::run(bytes.data(), bytes.size(), 1'000'000).difference, "") << seed;
    }
}

} // namespace
