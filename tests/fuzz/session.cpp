// Session scripts: whatever a text says, each line is answered in the format or refused with a reason, and the guarded build neither
// hangs nor touches memory that does not exist.
#include <algorithm>
#include <array>
#include <cstring>
#include <sstream>
#include <vector>

#include "controller/device.h"
#include "controller/session.h"
#include "fuzz/open_states.h"
#include "fuzz/target.h"
#include "host/machine.h"

namespace velmora::fuzz {

using sim::machine;
using sim::Word;

namespace {

constexpr unsigned kMostLines = 200;
constexpr unsigned long kMostAccesses = 8'000'000;
constexpr U32 kMostBytes = 1 << 20; // that one line looks at or fills

// Calls that kernel code makes with handles, addresses and counts, as a client's commands do. The others take pointers to records
// of the kernel's own, or change the tables from inside, and trust the code that calls: scripts use them to show what becomes
// of that, in both builds.
constexpr std::array kPlayedCalls = {"MM_Malloc",
                                     "MM_AllocBlock",
                                     "MM_Free",
                                     "MM_FreeBlock",
                                     "MM_CollectGarbage",
                                     "MM_ReallocBlock",
                                     "MM_GetTotBlk",
                                     "MM_GetTotAvailBlk",
                                     "MM_GetLargestBlk",
                                     "MM_GetInitTotBlk",
                                     "MM_CheckHeapArea",
                                     "MM_DisplayMST",
                                     "MM_TraceMST",
                                     "MM_RlsAllPermanentBlk",
                                     "MM_SetPermanentBlk",
                                     "MM_CheckSegment",
                                     "MM_GetPhysAddr",
                                     "MM_Entry",
                                     "MM_ReleasePermanentBlk",
                                     "MM_CheckSegInitCompleted",
                                     "MM_RestoreMCT",
                                     "MM_FindNewLargestBlk"};

bool isNumber(const Word& word, U32* value)
{
    try {
        *value = sim::parseNumber(word.text);
        return true;
    } catch (const sim::SyntaxError&) {
        return false;
    }
}

// In the default build writes into memory and commands that have an argument of their own are a client's open states:
// what device.cpp keeps the books for is not told apart here.
bool isLeftOutHere(const std::vector<Word>& words)
{
    const std::string& name = words.front().text;
    U32 value = 0;
    if (name == "call") {
        const bool played = words.size() > 1 &&
                            std::find(kPlayedCalls.begin(), kPlayedCalls.end(), words[1].text) != kPlayedCalls.end();
        return !played && words.size() > 1;
    }
    for (std::size_t i = 2; i < words.size() && (name == "fill" || name == "peek" || name == "crc"); ++i)
        if (i == 2 && isNumber(words[i], &value) && value > kMostBytes)
            return true;
    return false;
}

std::string mistakeIn(const sim::SessionReply& reply)
{
    if (!reply.closes)
        return reply.text.starts_with("= ") || reply.text.find("\n= ") != std::string::npos
                   ? ""
                   : "an answer that does not begin with '='";
    if (reply.text != "= hang" && !reply.text.starts_with("= oops 0x"))
        return "an end without a reason";
    return MM_Guarded ? "a line ended the session: " + reply.text : "";
}

std::string playLines(std::istream& script)
{
    std::string line;
    for (unsigned lines = 0; lines < kMostLines && std::getline(script, line); ++lines) {
        sim::SessionReply reply;
        try {
            std::vector<Word> words = sim::splitLine(line);
            if (words.empty() || isLeftOutHere(words))
                continue;
            machine().faults.touchLimit = kMostAccesses;
            reply = sim::runSessionLine(std::move(words));
        } catch (const sim::SyntaxError& error) {
            return std::strlen(error.what()) != 0 ? "" : "a line is refused without a reason";
        }
        std::string mistake = mistakeIn(reply);
        if (!mistake.empty() || reply.closes)
            return mistake.empty() ? "" : mistake + " (" + line + ")";
        if (MM_Guarded && (machine().lockHeld(search_lock) || machine().lockHeld(free_lock)))
            return "a lock stayed held (" + line + ")";
    }
    return "";
}

} // namespace

const char* const kTargetName = "fuzz-session";
const char* const kTargetDoes = "session scripts with anything in them";

std::string playInput(const std::uint8_t* data, std::size_t size)
{
    sim::powerOn();
    std::istringstream script(std::string(reinterpret_cast<const char*>(data), size));
    return playLines(script);
}

} // namespace velmora::fuzz
