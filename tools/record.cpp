#include "commands.hpp"

#include <csignal>
#include <memory>
#include <optional>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/signalfd.h>
#include <unistd.h>
#include <utility>

#include <velmora/device.hpp>

#include "command_line.hpp"
#include "controller_watch.hpp"
#include "kernel_log.hpp"
#include "lib/socket_client.hpp"
#include "recorder.hpp"

namespace velmora::tools {

namespace {

constexpr const char* kDescription =
    R"(velmora-mm record - writes down what programs ask of a device, and what they are answered

It stands between the programs and the device: prints the name of a device of its own, for the programs to use
instead, and writes one line for each command and each answer until it is interrupted.
)";

constexpr const char* kNotes =
    R"(FILE is a session script: 'velmora-mm script FILE' asks the same again and says which answers differ, 'velmora-mm plan FILE'
asks it of other layouts. What the device has when the recording begins stands first, as far as commands can make it.
A line is written before its command runs; the last line says that the recording is whole. docs/session-format.md has more.

In front of a real kernel's device it is the programs' device in the same way: those that use libvelmora are recorded, by
VELMORA_MM_DEVICE=unix:SOCKET; those that open the node themselves are not. Where the area lies is taken from the kernel
log, or from --area. Where that is outside the RAM of a script's controller (0x94000000 to 0xa4000000), 'script' replays the
recording on a device only; 'plan' takes it as it is.

exit status: 0 it was interrupted (SIGINT or SIGTERM), 1 FILE or the socket cannot be written, 2 unusable arguments,
             3 there is no device, or the controller went away; what was recorded is whole

example
  velmora-controller --socket /tmp/mm.sock &
  velmora-mm record job.txt --device unix:/tmp/mm.sock --socket /tmp/recorded.sock &
  VELMORA_MM_DEVICE=unix:/tmp/recorded.sock my-program
  kill %2; velmora-mm script job.txt
)";

struct Options {
    std::string file, device, socket, area;
};

// SIGINT and SIGTERM, as something to read.
class EndSignals
{
public:
    EndSignals()
    {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGINT);
        sigaddset(&signals, SIGTERM);
        sigprocmask(SIG_BLOCK, &signals, nullptr);
        descriptor_ = signalfd(-1, &signals, SFD_CLOEXEC);
    }
    EndSignals(const EndSignals&) = delete;
    EndSignals& operator=(const EndSignals&) = delete;
    ~EndSignals() { close(descriptor_); }

    int descriptor() const { return descriptor_; }

private:
    int descriptor_;
};

// A device that is not there, or cannot be recorded.
struct NoDevice : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// What is recorded, and who says when it is gone: a real device stays.
struct Source {
    std::unique_ptr<Recorded> device;
    std::optional<ControllerWatch> watch;
};

void openSource(const Options& options, Source& source)
try {
    const std::string name = deviceName(options.device);
    constexpr std::string_view kSocket = "unix:";
    if (!name.starts_with(kSocket)) {
        source.device = recordedNode(name, options.area);
        return;
    }
    if (!options.area.empty())
        throw UsageError("--area: a controller says itself where its area lies");
    char standard[128];
    const std::string socket = name.substr(kSocket.size());
    if (socket.empty() && !socket_client::defaultSocket(standard, sizeof standard))
        throw NoDevice("the name of the default socket is too long");
    source.device = recordedController(socket.empty() ? standard : socket);
    source.watch.emplace(socket.empty() ? standard : socket);
} catch (const UsageError&) {
    throw;
} catch (const std::runtime_error& error) {
    throw NoDevice(error.what());
}

int recordWith(const Options& options, std::ostream& out, std::ostream& errors)
{
    Source source;
    openSource(options, source);
    const EndSignals signals; // before the recorder's thread, which has none of them
    Recorder recorder(options.file, std::move(source.device), options.socket);
    out << "unix:" << recorder.socket() << std::endl;
    int status = kDone;
    for (;;) {
        pollfd events[] = {{signals.descriptor(), POLLIN, 0}, {-1, POLLIN, 0}};
        if (source.watch)
            events[1].fd = source.watch->descriptor();
        if (poll(events, 2, -1) < 0)
            continue;
        if (events[0].revents != 0)
            break;
        const std::string report = source.watch->report();
        if (!report.empty()) {
            errors << "velmora-mm record: " << report << "\n";
            status = kNoDevice;
            break;
        }
    }
    recorder.finish();
    return status;
}

} // namespace

int record(const Words& words, std::ostream& out, std::ostream& errors)
{
    Options options;
    CLI::App app(kDescription, "velmora-mm record");
    prepare(app);
    app.footer(kNotes);
    app.add_option("FILE", options.file, "the recording, a session script")->required()->type_name("");
    app.add_option(
           "--device", options.device,
           "what is recorded: a node, or unix:SOCKET; default: $VELMORA_MM_DEVICE, then " VELMORA_MM_DEVICE_NODE)
        ->type_name("PATH");
    app.add_option(
           "--area", options.area,
           "where the area of a real device lies, as the module's parameter bigphysarea has it; default: what the "
           "kernel log says")
        ->type_name("START-END");
    app.add_option("--socket", options.socket,
                   "where programs find the recorder; default: a socket in a folder of its own")
        ->type_name("PATH");
    return runWords(app, words, out, errors, [&] {
        const auto sentence = [&](const std::string& what, int status) {
            errors << "velmora-mm record: " << what << "\n";
            return status;
        };
        try {
            return recordWith(options, out, errors);
        } catch (const UsageError&) {
            throw;
        } catch (const NoDevice& error) {
            return sentence(error.what(), kNoDevice);
        } catch (const std::exception& error) {
            return sentence(error.what(), kFailed);
        }
    });
}

} // namespace velmora::tools
