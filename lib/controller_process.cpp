#include <velmora/controller.hpp>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <spawn.h>
#include <stdexcept>
#include <string_view>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

#include "lib/argument_vector.hpp"
#include "lib/log_connections.hpp"

namespace velmora::sim {

namespace {

using namespace protocol;

constexpr const char* kProgram = "velmora-controller";
constexpr int kAttached = 3; // the lifeline's number in the controller
constexpr int kPatienceMs = 5000;

bool runs(const std::string& program)
{
    return access(program.c_str(), X_OK) == 0;
}

std::string besideThisProgram()
{
    char self[4096];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self);
    const std::string_view path(self, length > 0 ? static_cast<std::size_t>(length) : 0);
    return std::string(path.substr(0, path.rfind('/') + 1)) + kProgram;
}

std::string findProgram()
{
    if (const char* const chosen = secure_getenv("VELMORA_CONTROLLER"); chosen != nullptr && *chosen != 0) {
        if (!runs(chosen))
            throw std::runtime_error(std::string("VELMORA_CONTROLLER is ") + chosen + ", which cannot be run");
        return chosen;
    }
    if (std::string program = besideThisProgram(); runs(program))
        return program;
    const char* const path = std::getenv("PATH");
    for (std::string_view folders = path != nullptr ? path : ""; !folders.empty();) {
        const std::size_t end = folders.find(':');
        if (std::string program = std::string(folders.substr(0, end)) + "/" + kProgram; runs(program))
            return program;
        folders.remove_prefix(end == folders.npos ? folders.size() : end + 1);
    }
#ifdef VELMORA_CONTROLLER_FOLDER
    if (std::string program = std::string(VELMORA_CONTROLLER_FOLDER "/") + kProgram; runs(program))
        return program;
#endif
    throw std::runtime_error(
        "velmora-controller is not found: not beside this program, not in PATH, and VELMORA_CONTROLLER "
        "is not set");
}

// A new process with the given descriptor as number kAttached.
pid_t start(const std::string& program, const std::vector<std::string>& further, int descriptor)
{
    std::vector<std::string> words = {program, "--attach", std::to_string(kAttached), "--clients-may-fault"};
    words.insert(words.end(), further.begin(), further.end());
    const std::vector<char*> arguments = argumentVector(words);

    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_adddup2(&files, descriptor, kAttached);
    pid_t process = -1;
    // Interrupts from the terminal are for the programs that use the controller; it ends when they have.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    const int error = posix_spawn(&process, program.c_str(), &files, &attributes, arguments.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
    if (error != 0)
        throw std::runtime_error("cannot start " + program + ": " + std::strerror(error));
    return process;
}

// What the controller says first: a line. Empty when it went without a word.
std::string readLine(int descriptor)
{
    std::string line;
    char letter;
    for (ssize_t got = 0; (got = read(descriptor, &letter, 1)) != 0;) {
        if (got < 0 && errno != EINTR)
            break;
        if (got > 0 && letter == '\n')
            return line;
        if (got > 0)
            line += letter;
    }
    return line;
}

// What has become of a child that is about to end; one that does not is ended by force.
int waitFor(pid_t process, int lifeline)
{
    shutdown(lifeline, SHUT_WR);
    pollfd ends = {lifeline, POLLIN, 0};
    int ready;
    do
        ready = poll(&ends, 1, kPatienceMs);
    while (ready < 0 && errno == EINTR);
    if (ready == 0)
        kill(process, SIGKILL);
    close(lifeline);
    int status = 0;
    while (waitpid(process, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

} // namespace

Controller::Controller(const ControllerOptions& options)
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        throw std::runtime_error(std::string("cannot start a controller: ") + std::strerror(errno));
    try {
        process_ = start(options.program.empty() ? findProgram() : options.program, options.arguments, ends[1]);
    } catch (...) {
        close(ends[0]);
        close(ends[1]);
        throw;
    }
    close(ends[1]);
    lifeline_ = ends[0];
    socket_ = readLine(lifeline_);
    if (socket_.empty() || socket_[0] == '!') {
        const int status = stop();
        throw std::runtime_error(socket_.empty()
                                     ? "velmora-controller did not start; exit status " + std::to_string(status)
                                     : "velmora-controller did not start: " + socket_.substr(1));
    }
    try {
        log_ = std::make_unique<Log>(device());
    } catch (...) {
        stop();
        throw;
    }
}

Controller::~Controller()
{
    if (process_ > 0)
        stop();
}

int Controller::stop()
{
    log_.reset();
    return waitFor(std::exchange(process_, -1), std::exchange(lifeline_, -1));
}

Log& Controller::log()
{
    if (!log_)
        throw std::runtime_error("the controller was ended");
    return *log_;
}

std::vector<std::string> Controller::takeLog()
{
    return log().take();
}

void Controller::fail(std::uint32_t what, std::uint32_t nth, int answer)
{
    Fail request{};
    request.header.kind = Kind::Fail;
    request.number = what;
    request.nth = nth;
    request.answer = answer;
    Plain done{};
    log().connections_->ask(request, done);
    if (done.header.result != 0)
        throw std::runtime_error(std::string("the controller takes no further fault: ") +
                                 std::strerror(-done.header.result));
}

void Controller::failNth(std::uint32_t command, std::uint32_t nth, int answer)
{
    fail(command, nth, answer);
}

void Controller::failNthOpen(std::uint32_t nth, int answer)
{
    fail(kFailOpen, nth, answer);
}

void Controller::failNthMap(std::uint32_t nth, int answer)
{
    fail(kFailMap, nth, answer);
}

void Controller::forgetFaults()
{
    fail(kFailNothing, 0, 0);
}

} // namespace velmora::sim
