#include "commands.hpp"

#include <algorithm>
#include <chrono>
#include <optional>
#include <thread>

#include <nlohmann/json.hpp>

#include "device_command.hpp"
#include "kernel_log.hpp"
#include "units.hpp"

namespace velmora::tools {

namespace {

constexpr const char* kDescription =
    R"(velmora-mm log - follows the kernel log

What there is of it first, then every further message, until it is interrupted or the controller goes away. A
simulated controller's log has the manager's messages; a real device's is that of the whole kernel.
)";

constexpr const char* kNotes =
    R"(A real kernel's log may be for root only. "velmora-mm explain" says what the manager's messages mean.
)";

constexpr const char* kExamples = R"(  velmora-mm log
  velmora-mm log --no-follow -n 20
  velmora-mm log --no-follow | velmora-mm explain -
)";

constexpr auto kPause = std::chrono::milliseconds(100); // between two looks

// One message, as a line or as an object of its own on a line.
void print(std::ostream& out, const std::string& message, bool json)
{
    if (!json) {
        out << message << "\n";
        return;
    }
    Json line = listing("log", 1);
    line["message"] = message;
    out << line.dump(-1, ' ', false, Json::error_handler_t::replace) << "\n";
}

struct Request {
    std::optional<std::size_t> lines;
    bool noFollow = false, json = false;
};

int follow(Device& device, KernelLog& log, const Request& request, std::ostream& out, std::ostream& errors)
{
    std::vector<std::string> messages = log.take();
    if (request.lines && messages.size() > *request.lines)
        messages.erase(messages.begin(), messages.end() - static_cast<std::ptrdiff_t>(*request.lines));
    for (;;) {
        for (const std::string& message : messages)
            print(out, message, request.json);
        out.flush();
        if (request.noFollow || !out)
            return kDone;
        std::this_thread::sleep_for(kPause);
        try {
            messages = log.take();
        } catch (const std::runtime_error& error) {
            device.segment(0); // throws when the controller is gone, with why
            errors << "velmora-mm log: " << error.what() << "\n";
            messages.clear();
        }
    }
}

} // namespace

int followLog(const Words& words, std::ostream& out, std::ostream& errors)
{
    DeviceCommand command("log", kDescription, deviceNotes(kNotes, kExamples));
    Request request;
    command.option("-n,--lines", "N", countInto(request.lines), "of what there is, the last N messages only");
    command.flag("--no-follow", request.noFollow, "what there is, and no more");
    command.jsonFlag(request.json);
    return command.run(words, out, errors, [&](Device& device) {
        KernelLog log(command.device());
        return follow(device, log, request, out, errors);
    });
}

} // namespace velmora::tools
