// Session scripts: whatever a text says, each line is answered in the format or refused with a reason, and the guarded build neither
// hangs nor touches memory that does not exist.
#include <algorithm>
#include <array>
#include <cstring>
#include <optional>
#include <set>
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

// The handle that a line's question is asked with, where it has one: of the questions that trust it.
std::optional<U32> trustedHandle(const std::vector<Word>& words)
{
    static const std::set<std::string> trusting = {"MM_CheckSegment", "MM_DisplayMST", "MM_CheckSegInitCompleted"};
    U32 number = 0;
    if (words.size() < 3)
        return std::nullopt;
    if (words[0].text == "call")
        return trusting.contains(words[1].text) && isNumber(words[2], &number) ? std::optional(number) : std::nullopt;
    if (words[0].text != "ioctl" || !isNumber(words[1], &number) ||
        (number != MM_CMD_CHECK_SEGMENT && number != MM_CMD_DISPLAY_MST))
        return std::nullopt;
    if (words[2].kind != Word::Kind::Braced || words[2].text.size() < 2 * sizeof(U32))
        return ~0U; // it lies in memory
    U32 handle = 0;
    try {
        std::memcpy(&handle, sim::parseHex(words[2].text).data(), sizeof handle);
    } catch (const sim::SyntaxError&) {
        return std::nullopt;
    }
    return number == MM_CMD_DISPLAY_MST ? handle % 256 : handle;
}

bool isTooLarge(const std::vector<Word>& words)
{
    static const std::set<std::string> many = {"fill", "peek", "crc"};
    U32 bytes = 0;
    return words.size() > 2 && many.contains(words[0].text) && isNumber(words[2], &bytes) && bytes > kMostBytes;
}

// Sessions say how a hang or an access to nothing ends them, so in the default build most open states are played as well.
bool isLeftOutHere(const std::vector<Word>& words)
{
    if (isTooLarge(words))
        return true;
    if (words[0].text == "call" && words.size() > 1 &&
        std::find(kPlayedCalls.begin(), kPlayedCalls.end(), words[1].text) == kPlayedCalls.end())
        return true;
    const std::optional<U32> handle = trustedHandle(words);
    return isLeftOut(Open::HandleBeyondTable) && handle && *handle >= MAX_SEGTABLE_SIZE && *handle != MM_DISPLAY_ALL;
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
            return mistake.empty() ? "" : mistake.append(" (").append(line).append(")");
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
