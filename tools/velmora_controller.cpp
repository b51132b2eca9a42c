// velmora-controller: the simulated controller as a process of its own, for any program on this machine.
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <limits>
#include <filesystem>
#include <optional>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "controller/device.h"
#include "controller/server.h"
#include "host/machine.h"
#include "kernel/mm/guard/MM_Guard.h"
#include "lib/socket_client.hpp"
#include "tools/command_line.hpp"
#include "tools/units.hpp"

namespace {

using velmora::sim::ServiceFault;
using velmora::tools::UsageError;

constexpr int kStopped = 3; // exit status: a command hung or touched memory that does not exist

constexpr const char* kFooter =
    R"(BYTES is a number, hexadecimal with 0x, that may end in K, M or G (64K, 256MiB). START-END are kernel virtual addresses in
hexadecimal, as in the module's parameter bigphysarea; RAM begins at 0x94000000, and one mebibyte at each end of the area
stays out of managed memory. COMMAND is a command of the device by name (MALLOC) or number (0x5302), or open, or mmap; N
counts its calls from 1, and 0 stands for all of them; ANSWER is the number that the call is given instead of reaching the
manager, a code of the manager (4: no room) or a negative kernel code (-12).

A program uses the controller as VELMORA_MM_DEVICE=unix:PATH. docs/controller.md has the rest.

exit status
  0  it was ended by SIGTERM, SIGINT, or the other end of --attach
  1  it could not start: another controller listens at PATH, the area is not in RAM, ...
  2  unusable arguments
  3  a command hung or touched memory that does not exist: the report is on standard error, and every client has it

examples
  velmora-controller --socket /tmp/mm.sock --log
  velmora-controller --socket /tmp/mm.sock --ram 64M --area 95000000-97000000 --fail MALLOC:3:4
)";

struct Options {
    std::string socket, ram, area;
    std::vector<std::string> faults;
    bool refuseMappings = false;
    bool clientsMayFault = false;
    bool log = false;
    bool guarded = false;
    int attached = -1;
};

template <class T> std::optional<T> number(std::string_view text, int base = 10)
{
    if (text.starts_with("0x") || text.starts_with("0X")) {
        text.remove_prefix(2);
        base = 16;
    }
    T value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

std::uint32_t parseRam(const std::string& text)
{
    using velmora::sim::kMostRamBytes;
    const auto bytes = velmora::tools::parseBytes(text, std::numeric_limits<std::uint64_t>::max());
    if (!bytes)
        throw UsageError("--ram: '" + text + "' is no number of bytes");
    if (*bytes == 0 || *bytes > kMostRamBytes || *bytes % 4096 != 0)
        throw UsageError("--ram: the controller has whole pages of 4096 bytes, up to 1 GiB of them, not '" + text +
                         "'");
    return static_cast<std::uint32_t>(*bytes);
}

void parseArea(const std::string& text, velmora::sim::ServiceOptions& options)
{
    const auto area = velmora::tools::parseArea(text);
    if (!area)
        throw UsageError("--area: '" + text + "' is not START-END with two hexadecimal addresses");
    options.areaStart = area->start;
    options.areaEnd = area->end;
}

// The manager takes any area above the start of RAM, and stands still at its first command if there is no memory.
void checkArea(const velmora::sim::ServiceOptions& options)
{
    constexpr std::uint32_t margins = 2U << 20, pageBytes = 4096;
    const std::uint32_t end = velmora::sim::kPageOffset + options.ramBytes;
    char text[160];
    const auto refuse = [&](const char* format, auto... values) {
        std::snprintf(text, sizeof text, format, values...);
        throw std::runtime_error(text);
    };
    if (options.areaStart <= velmora::sim::kPageOffset || options.areaEnd > end)
        refuse("the area %08x-%08x must lie above the start of RAM, 0x%08x, and end at 0x%08x at most",
               options.areaStart, options.areaEnd, velmora::sim::kPageOffset, end);
    if (options.areaStart % pageBytes != 0 || options.areaEnd % pageBytes != 0 || options.areaEnd <= options.areaStart)
        refuse("the area %08x-%08x is not made of whole pages", options.areaStart, options.areaEnd);
    if (options.areaEnd - options.areaStart <= margins)
        refuse("the area %08x-%08x has nothing between the mebibytes at its ends", options.areaStart, options.areaEnd);
}

std::uint32_t parseCommand(const std::string& text)
{
    if (text == "open")
        return velmora::protocol::kFailOpen;
    if (text == "mmap")
        return velmora::protocol::kFailMap;
    for (std::uint32_t command = MM_CMD_FIRST; command < MM_CMD_FIRST + MM_CMD_COUNT; ++command)
        if (const std::string name = velmora::commandName(command); text == name || "MM_CMD_" + text == name)
            return command;
    if (const auto value = number<std::uint32_t>(text))
        return *value;
    throw UsageError("--fail: there is no command '" + text + "'");
}

ServiceFault parseFault(const std::string& text)
{
    const std::size_t first = text.find(':');
    const std::size_t second = first == text.npos ? text.npos : text.find(':', first + 1);
    if (second == text.npos)
        throw UsageError("--fail: '" + text + "' is not COMMAND:N:ANSWER");
    const auto nth = number<std::uint32_t>(text.substr(first + 1, second - first - 1));
    const auto answer = number<std::int32_t>(text.substr(second + 1));
    if (!nth || !answer)
        throw UsageError("--fail: '" + text + "' is not COMMAND:N:ANSWER with two numbers");
    return {parseCommand(text.substr(0, first)), *nth, *answer};
}

velmora::sim::ServerOptions serverOptions(const Options& options)
{
    velmora::sim::ServerOptions made;
    velmora::sim::ServiceOptions& service = made.service;
    if (!options.ram.empty())
        service.ramBytes = parseRam(options.ram);
    service.areaEnd = std::min<std::uint32_t>(service.areaEnd, velmora::sim::kPageOffset + service.ramBytes);
    if (!options.area.empty())
        parseArea(options.area, service);
    for (const std::string& fault : options.faults)
        service.faults.push_back(parseFault(fault));
    service.refuseMappings = options.refuseMappings;
    service.clientsMayFault = options.clientsMayFault;
    checkArea(service);
    if (options.log)
        made.log = [](std::string_view message) {
            std::cout << message << (message.ends_with('\n') ? "" : "\n") << std::flush;
        };
    return made;
}

// A folder that goes with the controller.
class PrivateFolder
{
public:
    PrivateFolder()
    {
        const char* const parent = std::getenv("TMPDIR");
        name_ = std::string(parent != nullptr && *parent == '/' ? parent : "/tmp") + "/velmora-mm-XXXXXX";
        if (mkdtemp(name_.data()) == nullptr)
            throw std::runtime_error("cannot make the folder " + name_ + ": " + std::strerror(errno));
    }
    PrivateFolder(const PrivateFolder&) = delete;
    PrivateFolder& operator=(const PrivateFolder&) = delete;
    ~PrivateFolder() { rmdir(name_.c_str()); }

    std::string socket() const { return name_ + "/controller.sock"; }

private:
    std::string name_;
};

std::string defaultSocket()
{
    char path[128];
    if (!velmora::socket_client::defaultSocket(path, sizeof path))
        throw std::runtime_error("the name of the default socket is too long; use --socket");
    std::string folder(path);
    folder.resize(folder.rfind('/'));
    if (mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST)
        throw std::runtime_error("cannot make the folder " + folder + ": " + std::strerror(errno));
    return path;
}

// The controller holds this many clients; the rest is for itself.
std::size_t roomForClients()
{
    constexpr rlim_t own = 32, most = 4096;
    rlimit descriptors = {};
    getrlimit(RLIMIT_NOFILE, &descriptors);
    descriptors.rlim_cur = std::min(descriptors.rlim_max, most);
    setrlimit(RLIMIT_NOFILE, &descriptors);
    getrlimit(RLIMIT_NOFILE, &descriptors);
    return static_cast<std::size_t>(std::clamp(descriptors.rlim_cur, own + 1, most) - own);
}

// SIGTERM and SIGINT, as something to read.
int endSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    return signalfd(-1, &signals, SFD_CLOEXEC);
}

void tell(int attached, const std::string& line)
{
    if (attached >= 0)
        static_cast<void>(!write(attached, line.data(), line.size()));
}

// The guarded manager is a program of its own, which takes the same arguments: this one becomes it.
void becomeGuarded(char** arguments)
{
    const std::string program =
        std::filesystem::read_symlink("/proc/self/exe").parent_path() / "../guarded/bin/velmora-controller";
    execv(program.c_str(), arguments);
    throw std::runtime_error("cannot run " + program + ": " + std::strerror(errno) + "; 'make build' makes it");
}

int serve(const Options& options, char** arguments)
{
    std::optional<PrivateFolder> folder;
    try {
        if (options.guarded && !MM_Guarded)
            becomeGuarded(arguments);
        velmora::sim::ServerOptions made = serverOptions(options);
        made.mostClients = roomForClients();
        const int signals = endSignals();
        if (options.attached >= 0) {
            if (fcntl(options.attached, F_SETFD, FD_CLOEXEC) != 0)
                throw UsageError("--attach: " + std::to_string(options.attached) + " is no open descriptor");
            if (options.socket.empty())
                folder.emplace();
        }
        made.socket = folder ? folder->socket() : options.socket.empty() ? defaultSocket() : options.socket;
        velmora::sim::Server server(made);
        tell(options.attached, made.socket + "\n");
        const int ends[] = {signals, options.attached}; // poll() passes over a negative one
        if (const auto report = server.run(ends)) {
            std::cerr << "velmora-controller: " << *report << "\n";
            return kStopped;
        }
        return 0;
    } catch (const std::exception& error) {
        tell(options.attached, std::string("!") + error.what() + "\n");
        throw;
    }
}

} // namespace

int main(int count, char** arguments)
{
    CLI::App app("velmora-controller - the simulated printer controller behind a Unix socket\n", "velmora-controller");
    velmora::tools::prepare(app);
    app.set_version_flag("--version", "velmora-controller " VELMORA_MM_VERSION, "the version");
    app.footer(kFooter);
    Options options;
    app.add_option("--socket", options.socket,
                   "where it listens; default: $XDG_RUNTIME_DIR/velmora-mm/controller.sock, without that variable "
                   "/run/velmora-mm/controller.sock")
        ->type_name("PATH");
    app.add_option("--ram", options.ram, "size of RAM; default: 256M")->type_name("BYTES");
    app.add_option("--area", options.area, "what the manager gets; default: 95000000-9e000000, or less where RAM ends")
        ->type_name("START-END");
    app.add_option("--fail", options.faults, "a call that fails; may be given more than once")
        ->type_name("COMMAND:N:ANSWER")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    app.add_flag("--refuse-mappings", options.refuseMappings, "the kernel maps nothing, whatever the manager says");
    app.add_flag("--clients-may-fault", options.clientsMayFault, "clients may ask for faults as well, for tests");
    app.add_flag("--log", options.log, "prints the kernel log");
    app.add_flag("--guarded", options.guarded, "the guarded build of the manager, which survives its applications");
    app.add_option(
           "--attach", options.attached,
           "an open descriptor of the program that starts the controller: the socket's name is written to it as a "
           "line once clients may come (a line that begins with '!' says why not), and the controller ends when its "
           "other end is closed; without --socket, the socket lies in a temporary folder that goes with it")
        ->type_name("FD");
    return velmora::tools::runProgram(app, count, arguments, [&] { return serve(options, arguments); });
}
