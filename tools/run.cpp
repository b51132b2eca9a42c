#include "commands.hpp"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <poll.h>
#include <spawn.h>
#include <stdexcept>
#include <string_view>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <velmora/controller.hpp>

#include "command_line.hpp"
#include "controller_watch.hpp"
#include "lib/argument_vector.hpp"
#include "recorder.hpp"

namespace velmora::tools {

namespace {

constexpr const char* kDescription =
    "velmora-mm run - runs a program that knows only /dev/Velmora_MM, 32-bit or 64-bit, on a simulated controller\n";

constexpr const char* kNotes =
    R"(Without --controller a private one is started and ends with PROGRAM. VELMORA_CONTROLLER names its program; else
velmora-controller is looked for beside velmora-mm, in PATH, and where it was installed. The programs that PROGRAM starts
have the device as well. Programs that are linked statically or make system calls of their own are not reached;
docs/unchanged-programs.md says what is.

--record FILE writes what the programs ask of the device and what they are answered, one line each; 'velmora-mm script
FILE' asks it again and says which answers differ.

exit status
  that of PROGRAM, or 128 and the number of the signal that ended it
  2    unusable arguments
  125  there is no controller at PATH, none can be started, or FILE cannot be written
  126  PROGRAM cannot be run
  127  there is no PROGRAM

examples
  velmora-mm run -- ./application --pages 3
  velmora-mm run --record session.txt -- ./application; velmora-mm script session.txt
  velmora-controller --socket /tmp/mm.sock & velmora-mm run --controller /tmp/mm.sock -- ./application
)";

constexpr int kRunFailed = 125;     // exit status: there is no controller, or no record can be made
constexpr int kCannotRun = 126;     // the program is there and cannot be run
constexpr int kNotFound = 127;      // there is no such program
constexpr int kEndedBySignal = 128; // and the signal's number
constexpr int kForwarded[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1, SIGUSR2};

struct Options {
    std::string controller, record;
    std::vector<std::string> program;
};

// The preload library as the dynamic loader finds it: $LIB is the name of the loader's own library folder, so one name
// stands for the 32-bit and for the 64-bit library.
std::string preloadLibrary()
{
    char self[4096];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self);
    std::string prefix(self, length > 0 ? static_cast<std::size_t>(length) : 0);
    for (int names = 0; names < 2; ++names)
        prefix.resize(std::min(prefix.rfind('/'), prefix.size()));
    const std::string folders[] = {prefix + "/preload",
                                   prefix + "/lib/velmora-mm/preload"}; // in a build tree, installed
    for (const std::string& folder : folders) {
        if (access(folder.c_str(), X_OK) != 0)
            continue;
        if (folder.find_first_of(" :$") != folder.npos)
            throw std::runtime_error("the preload library is in " + folder +
                                     ", and the dynamic loader takes no name with a space, a colon or a dollar sign");
        return folder + "/$LIB/libvelmora-mm-preload.so";
    }
    throw std::runtime_error("the preload library is not found: there is neither " + folders[0] + " nor " + folders[1]);
}

std::string absolute(const std::string& path)
{
    if (path.starts_with("/"))
        return path;
    std::unique_ptr<char, decltype(&std::free)> folder(getcwd(nullptr, 0), std::free);
    return (folder ? std::string(folder.get()) : ".") + "/" + path;
}

// The signals that are passed on and the program's end, as something to read. From here on they no longer end this program.
class Signals
{
public:
    Signals()
    {
        sigset_t taken;
        sigemptyset(&taken);
        sigaddset(&taken, SIGCHLD);
        for (const int signal : kForwarded)
            sigaddset(&taken, signal);
        sigprocmask(SIG_BLOCK, &taken, &before_);
        descriptor_ = signalfd(-1, &taken, SFD_CLOEXEC);
    }
    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;
    ~Signals() { close(descriptor_); }

    int descriptor() const { return descriptor_; }
    const sigset_t& before() const { return before_; }

    // One signal. The terminal's go to the whole process group, so the program has them; those of a sender it gets here.
    void passOn(pid_t program) const
    {
        signalfd_siginfo signal;
        if (read(descriptor_, &signal, sizeof signal) != sizeof signal || signal.ssi_signo == SIGCHLD)
            return;
        if (signal.ssi_code <= 0)
            kill(program, static_cast<int>(signal.ssi_signo));
    }

private:
    sigset_t before_;
    int descriptor_;
};

void setEnvironment(const std::string& library, const std::string& socket)
{
    const char* const others = std::getenv("LD_PRELOAD");
    const std::string preload = others != nullptr && *others != 0 ? library + ":" + others : library;
    if (setenv("LD_PRELOAD", preload.c_str(), 1) != 0 ||
        setenv("VELMORA_MM_DEVICE", ("unix:" + socket).c_str(), 1) != 0)
        throw std::bad_alloc();
}

// 0 and the process, or the exit status.
int start(std::vector<std::string> words, const sigset_t& signals, pid_t& process, std::ostream& errors)
{
    const std::vector<char*> arguments = velmora::argumentVector(words);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    posix_spawnattr_setsigmask(&attributes, &signals);
    const int error = posix_spawnp(&process, arguments[0], nullptr, &attributes, arguments.data(), environ);
    posix_spawnattr_destroy(&attributes);
    if (error == 0)
        return 0;
    errors << "velmora-mm run: cannot run '" << words.front() << "': " << std::strerror(error) << "\n";
    return error == ENOENT ? kNotFound : kCannotRun;
}

// Waits for the program, passes signals on, and says when the controller is gone. Exit status of the program.
int attend(pid_t program, const Signals& signals, ControllerWatch& watch, bool ownController, std::ostream& errors)
{
    for (;;) {
        int status = 0;
        if (waitpid(program, &status, WNOHANG) == program)
            return WIFEXITED(status) ? WEXITSTATUS(status) : kEndedBySignal + WTERMSIG(status);
        pollfd events[] = {{signals.descriptor(), POLLIN, 0}, {watch.descriptor(), POLLIN, 0}};
        if (poll(events, 2, -1) < 0)
            continue;
        if (events[0].revents != 0)
            signals.passOn(program);
        if (events[1].revents == 0)
            continue;
        const std::string report = watch.report();
        if (!report.empty() && !ownController) // an own one has said so itself
            errors << "velmora-mm run: " << report << "\n" << std::flush;
    }
}

int runWith(const Options& options, std::ostream& errors)
{
    const std::string library = preloadLibrary();
    const bool ownController = options.controller.empty();
    std::optional<sim::Controller> controller;
    if (ownController)
        controller.emplace();
    const std::string socket = ownController ? controller->socket() : absolute(options.controller);
    ControllerWatch watch(socket);
    const Signals signals; // before the recorder's thread, which has none of them
    std::optional<Recorder> recorder;
    if (!options.record.empty())
        recorder.emplace(options.record, recordedController(socket));

    setEnvironment(library, recorder ? recorder->socket() : socket);
    pid_t program = -1;
    int status = start(options.program, signals.before(), program, errors);
    if (status == 0)
        status = attend(program, signals, watch, ownController, errors);
    if (recorder)
        recorder->finish();
    return status;
}

// Where the program's name stands: behind "--", or the first word that is neither an option nor the value of one.
std::vector<std::string>::const_iterator programIn(const std::vector<std::string>& words)
{
    auto word = words.begin();
    while (word != words.end() && word->starts_with("-")) {
        if (*word == "--")
            return word + 1;
        const bool hasValue = *word == "--controller" || *word == "--record";
        word += hasValue && word + 1 != words.end() ? 2 : 1;
    }
    return word;
}

} // namespace

int run(const Words& words, std::ostream& out, std::ostream& errors)
{
    Options options;
    CLI::App app(kDescription, "velmora-mm run");
    prepare(app);
    app.footer(kNotes);
    app.add_option("--controller", options.controller, "the socket of a controller that is running")->type_name("PATH");
    app.add_option("--record", options.record, "a session script that asks again what the programs asked")
        ->type_name("FILE");
    std::string name;
    app.add_option("PROGRAM", name, "what is run, its arguments behind it; a '--' before it ends the options")
        ->required()
        ->type_name("");

    const auto program = programIn(words);
    std::vector<std::string> own(words.begin(), program);
    if (program != words.end()) { // its arguments are not this program's to look at
        if (own.empty() || own.back() != "--")
            own.emplace_back("--");
        own.push_back(*program);
    }
    return runWords(app, std::move(own), out, errors, [&] {
        options.program.assign(program, words.end());
        try {
            return runWith(options, errors);
        } catch (const std::exception& error) {
            errors << "velmora-mm run: " << error.what() << "\n";
            return kRunFailed;
        }
    });
}

} // namespace velmora::tools
