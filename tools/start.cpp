#include "commands.hpp"

#include <array>

#include "device_command.hpp"
#include "units.hpp"

namespace velmora::tools {

namespace {

constexpr const char* kDescription =
    R"(velmora-mm start - lays out the fixed segments and starts the library

For whoever starts a controller, once: afterwards there are no segments, and create makes them.
)";

constexpr const char* kNotes =
    R"(What becomes of the memory that the power cycle left: kept (nothing is cleared), lost ($UEV is cleared), jobs (job
data is dropped: $JCB is cleared), flash (it was restored from there: nothing is cleared).
)";

constexpr const char* kExamples = R"(  velmora-mm start
  velmora-mm start --memory lost --device /dev/Velmora_MM
)";

struct Memory {
    const char* name;
    MM_TStartOption option;
};
constexpr std::array kMemory = {Memory{"kept", MM_SM_BKUP_OK}, Memory{"lost", MM_SM_BKUP_NG},
                                Memory{"jobs", MM_SM_AJL_CLR}, Memory{"flash", MM_SM_BKUP_FLASH}};

MM_TStartOption parseMemory(const std::string& text)
{
    for (const Memory& memory : kMemory)
        if (memory.name == text)
            return memory.option;
    throw UsageError("'" + text + "' says nothing of memory: kept, lost, jobs or flash was expected");
}

} // namespace

int start(const Words& words, std::ostream& out, std::ostream& errors)
{
    DeviceCommand command("start", kDescription, deviceNotes(kNotes, kExamples));
    MM_TStartOption option = MM_SM_BKUP_OK;
    bool again = false;
    command.option(
        "--memory", "STATE", [&](const std::string& word) { option = parseMemory(word); },
        "what the power cycle left of it: kept (default), lost, jobs or flash");
    command.flag("--again", again, "start even if there are segments: everybody loses theirs");
    return command.run(words, out, errors, [&](Device& device) {
        try {
            startUp(device, option, again ? Restart::ForgetEverything : Restart::Refuse);
        } catch (const Error& error) {
            if (error.code() != Errc::AlreadyStarted)
                throw;
            throw Refusal("there are segments already, and a start would take them from everybody (--again does it)");
        }
        out << "The library is started; there are no segments.\n";
        return kDone;
    });
}

} // namespace velmora::tools
