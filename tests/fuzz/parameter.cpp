// The text of the module parameter, whatever stands in it: what is read is what the text says, and an area that is taken is one that
// the library can be started on.
#include <cctype>
#include <cstring>
#include <optional>

#include "controller/device.h"
#include "fuzz/open_states.h"
#include "fuzz/target.h"
#include "host/machine.h"
#include "kernel/mm/mm/MM_Core.h"
#include "kernel/mm/mmi/MM_Interface.h"

namespace velmora::fuzz {

using sim::machine;

namespace {

constexpr U32 kMargin = 0x100000;
constexpr U32 kRamBytes = 32U << 20;

// A number as it stands in the text: white space, then eight characters at the most, 0x among them.
std::optional<U32> takeNumber(std::string_view& text)
{
    text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
    const bool prefixed = text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    std::string digits;
    const std::string_view after = text.substr(prefixed ? 2 : 0);
    while (digits.size() < (prefixed ? 6U : 8U) && digits.size() < after.size() &&
           std::isxdigit(static_cast<unsigned char>(after[digits.size()])) != 0)
        digits += after[digits.size()];
    if (!prefixed && digits.empty())
        return std::nullopt;
    text = after.substr(digits.size());
    return digits.empty() ? 0 : static_cast<U32>(std::stoul(digits, nullptr, 16));
}

struct Area {
    U32 start, end; // 0 where the text has none
};

Area areaIn(std::string_view text)
{
    Area area{0, 0};
    const auto start = takeNumber(text);
    area.start = start.value_or(0);
    if (start && text.starts_with('-')) {
        text.remove_prefix(1);
        area.end = takeNumber(text).value_or(0);
    }
    return area;
}

bool isRam(const Area& area)
{
    return area.start > sim::kPageOffset && area.start + kMargin < area.end - kMargin &&
           area.end - kMargin <= sim::Machine::highMemory() && area.end > kMargin;
}

std::string load(const std::string& text, const Area& area)
{
    std::memset(bigphysarea_info, 0, sizeof bigphysarea_info);
    text.copy(bigphysarea_info, sizeof bigphysarea_info - 1);
    const sim::Outcome outcome = machine().run([] { return static_cast<U32>(printer_mm_init()); });
    if (!outcome.returned())
        return outcome.describe("the load");
    const bool above = area.start > sim::kPageOffset && area.end - kMargin > sim::kPageOffset;
    const bool expected = MM_Guarded ? isRam(area) : above;
    if ((outcome.value == 0) != expected)
        return expected ? "a good area was refused" : "a bad area was taken";
    if (outcome.value != 0)
        return machine().devices().empty() ? "" : "a load that failed left a device";
    if (memstart != area.start + kMargin || memend != area.end - kMargin)
        return "the area is another one than the text's";
    return "";
}

std::string send(U32 number, U32 option)
{
    const U32 record[2] = {option, 0};
    std::memcpy(sim::Machine::at(sim::kScratch), record, sizeof record);
    const sim::Outcome outcome =
        machine().run([=] { return static_cast<U32>(Velmora_MM_ioctl(number, sim::kScratch)); });
    return outcome.returned() ? "" : outcome.describe("a command of the start");
}

// A start on the area that was taken; in the default build where it is RAM, and large enough.
std::string start(const Area& area)
{
    if (isLeftOut(Open::AreaIsNoRam) && (!isRam(area) || memend - memstart < 4U << 20))
        return "";
    std::string mistake = send(MM_CMD_ENTRY, MM_CONSTRUCT_DEFAULT_MCT);
    if (mistake.empty())
        mistake = send(MM_CMD_LIB_ENTRY, SM_BKUP_NG);
    for (const sim::Machine::Stretch& used : machine().usedRam())
        if (used.start + 4095 < memstart || used.end > memend + 4095)
            mistake = "memory outside the area was touched";
    return mistake;
}

} // namespace

const char* const kTargetName = "fuzz-parameter";
const char* const kTargetDoes = "texts of the module parameter";

std::string playInput(const std::uint8_t* data, std::size_t size)
{
    std::string text(reinterpret_cast<const char*>(data), std::min<std::size_t>(size, BIGPHYSAREA_INFO_SIZE - 1));
    text.resize(std::strlen(text.c_str())); // what a kernel takes for a text
    const Area area = areaIn(text);
    sim::powerOn(kRamBytes);
    const std::string mistake = load(text, area);
    return !mistake.empty() || machine().devices().empty() ? mistake : start(area);
}

} // namespace velmora::fuzz
