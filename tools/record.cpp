#include "commands.hpp"

#include <csignal>
#include <cstdlib>
#include <optional>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/signalfd.h>
#include <unistd.h>

#include <velmora/device.hpp>

#include "command_line.hpp"
#include "controller_watch.hpp"
#include "lib/socket_client.hpp"
#include "recorder.hpp"

namespace velmora::tools {

namespace {

constexpr const char* kDescription =
    R"(velmora-mm record - writes down what programs ask of a controller, and what they are answered

It stands between the programs and the controller: prints the name of a device of its own, for the programs to use
instead, and writes one line for each command and each answer until it is interrupted.
)";

constexpr const char* kNotes =
    R"(FILE is a session script: 'velmora-mm script FILE' asks the same again and says which answers differ, 'velmora-mm plan FILE'
asks it of other layouts. What the controller has when the recording begins stands first, as far as commands can make it.
A line is written before its command runs; the last line says that the recording is whole. docs/session-format.md has more.

The device of a real kernel has no socket to stand in front of: record there what its programs do on a simulated
controller ('velmora-mm run --record').

exit status: 0 it was interrupted (SIGINT or SIGTERM), 1 FILE or the socket cannot be written, 2 unusable arguments,
             3 there is no controller, or it went away; what was recorded is whole

example
  velmora-controller --socket /tmp/mm.sock &
  velmora-mm record job.txt --device unix:/tmp/mm.sock --socket /tmp/recorded.sock &
  VELMORA_MM_DEVICE=unix:/tmp/recorded.sock my-program
  kill %2; velmora-mm script job.txt
)";

struct Options {
    std::string file, device, socket;
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
struct NoController : std::runtime_error {
    using std::runtime_error::runtime_error;
};

std::string controllerSocket(const std::string& device)
{
    constexpr std::string_view kSocket = "unix:";
    const char* const chosen = std::getenv("VELMORA_MM_DEVICE");
    const std::string name = !device.empty()                     ? device
                             : chosen != nullptr && *chosen != 0 ? chosen
                                                                 : VELMORA_MM_DEVICE_NODE;
    if (!name.starts_with(kSocket))
        throw NoController(name + " is no controller's socket: record stands in front of unix:SOCKET only");
    if (name.size() != kSocket.size())
        return name.substr(kSocket.size());
    char standard[128];
    if (!socket_client::defaultSocket(standard, sizeof standard))
        throw NoController("the name of the default socket is too long");
    return standard;
}

int recordWith(const Options& options, std::ostream& out, std::ostream& errors)
{
    const std::string controller = controllerSocket(options.device);
    std::optional<ControllerWatch> watch;
    try {
        watch.emplace(controller);
    } catch (const std::runtime_error& error) {
        throw NoController(error.what());
    }
    const EndSignals signals; // before the recorder's thread, which has none of them
    Recorder recorder(options.file, controller, options.socket);
    out << "unix:" << recorder.socket() << std::endl;
    int status = kDone;
    for (;;) {
        pollfd events[] = {{signals.descriptor(), POLLIN, 0}, {watch->descriptor(), POLLIN, 0}};
        if (poll(events, 2, -1) < 0)
            continue;
        if (events[0].revents != 0)
            break;
        const std::string report = watch->report();
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
    app.add_option("--device", options.device, "the controller, unix:SOCKET; default: $VELMORA_MM_DEVICE")
        ->type_name("unix:SOCKET");
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
        } catch (const NoController& error) {
            return sentence(error.what(), kNoDevice);
        } catch (const std::exception& error) {
            return sentence(error.what(), kFailed);
        }
    });
}

} // namespace velmora::tools
