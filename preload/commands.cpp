#include "preload/commands.hpp"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include "lib/command_records.hpp"
#include "lib/socket_client.hpp"
#include "lib/socket_protocol.hpp"
#include "preload/descriptor.hpp"
#include "preload/next.hpp"
#include "preload/node.hpp"
#include "preload/undisturbed.hpp"
#include "preload/user_memory.hpp"

namespace velmora::preload {

namespace {

constexpr char kCommandsName[] = "velmora-mm/commands/";

// On a page that the kernel clears in a fork, where all of it, the lock included, is as new: zero.
struct OfThisProcess {
    pthread_mutex_t lock;
    bool connected;
    socket_client::Connection connection;
};

// Not cleared: the connection of this process or, right after a fork, of its parent.
struct Last {
    int descriptor = -1;
    char name[sizeof(sockaddr_un::sun_path)] = {};
};

Last last;
std::atomic<OfThisProcess*> ofThisProcess;

void clearInChild()
{
    if (OfThisProcess* const state = ofThisProcess.load())
        std::memset(static_cast<void*>(state), 0, sizeof *state);
}

OfThisProcess* makeState()
{
    const auto bytes = static_cast<std::size_t>(getpagesize());
    static_assert(sizeof(OfThisProcess) <= 4096);
    // The kernel's own calls, as these are no affair of the program's.
    void* const page = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED)
        return nullptr;
    OfThisProcess* expected = nullptr;
    auto* const made = static_cast<OfThisProcess*>(page);
    if (!ofThisProcess.compare_exchange_strong(expected, made)) {
        munmap(page, bytes);
        return expected;
    }
    if (madvise(page, bytes, MADV_WIPEONFORK) != 0) // kernels before 4.14
        pthread_atfork(nullptr, nullptr, clearInChild);
    return made;
}

// Out of the way of programs that count on low numbers, and of those that close all of them.
int moveUp(int descriptor)
{
    constexpr rlim_t most = 1024;
    rlimit limit = {most, most};
    getrlimit(RLIMIT_NOFILE, &limit);
    const auto from = static_cast<int>((limit.rlim_cur < most ? limit.rlim_cur : most) / 8 * 7);
    const int moved = fcntl(descriptor, F_DUPFD_CLOEXEC, from);
    if (moved < 0)
        return descriptor;
    syscall(SYS_close, descriptor);
    return moved;
}

// A program may have closed the descriptor, and have something else there now.
bool isOwn(const Last& connection)
{
    return connection.descriptor >= 0 && hasName(connection.descriptor, connection.name);
}

int codeOf(int result)
{
    switch (-result) {
    case EACCES:
    case EPERM:
    case EMFILE:
    case ENFILE:
    case ENOMEM:
    case ENOBUFS: return result;
    default: return -ENODEV;
    }
}

int connect(OfThisProcess& state)
{
    if (state.connected && isOwn(last))
        return 0;
    if (isOwn(last)) // the parent's, in a fork
        syscall(SYS_close, last.descriptor);
    last.descriptor = -1;
    const int result = socket_client::connectTo(state.connection, controllerSocket());
    if (result != 0)
        return codeOf(result);
    state.connection.descriptor = moveUp(state.connection.descriptor);
    if (!nameSocket(state.connection.descriptor, kCommandsName, last.name, sizeof last.name)) {
        socket_client::disconnect(state.connection);
        return -ENODEV;
    }
    last.descriptor = state.connection.descriptor;
    state.connected = true;
    return 0;
}

// The connection, and nobody else on it meanwhile.
class Turn
{
public:
    Turn() : state_(ofThisProcess.load())
    {
        if (state_ == nullptr)
            state_ = makeState();
        if (state_ == nullptr) {
            result_ = -ENOMEM;
            return;
        }
        pthread_mutex_lock(&state_->lock);
        result_ = connect(*state_);
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    ~Turn()
    {
        if (state_ == nullptr)
            return;
        if (state_->connection.descriptor < 0)
            state_->connected = false;
        pthread_mutex_unlock(&state_->lock);
    }

    int result() const { return result_; }
    socket_client::Connection& connection() { return state_->connection; }
    // An answer of the manager, or what it means that none came.
    int answer(int result) { return connection().descriptor < 0 ? -ENODEV : result; }

private:
    const Undisturbed undisturbed_;
    OfThisProcess* state_;
    int result_ = 0;
};

// Where the manager sees an argument whose first byte is not there. An address of the controller's kernel is one here too, and
// what is the kernel's in this program is nobody's there: both are refused. Everything else is a user's that faults.
std::uint32_t addressWithoutBytes(const socket_client::Connection& controller, const void* argument)
{
    constexpr std::uint64_t userEnd = sizeof argument == 4 ? 0xFFFFE000 : 0x7FFFFFFFF000;
    const auto address = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(argument));
    if (address >= userEnd)
        return protocol::kNoUserMemory;
    const bool isRam = address >= controller.pageOffset && address - controller.pageOffset < controller.ramBytes;
    return isRam ? static_cast<std::uint32_t>(address) : protocol::kUserMemory;
}

} // namespace

int prepareCommands()
{
    return Turn().result();
}

int command(std::uint32_t number, void* argument)
{
    const CommandRecord wanted = recordOf(number);
    char record[protocol::kMostUserBytes];
    socket_client::Call call;
    call.number = number;
    call.user = record;
    Turn turn;
    if (turn.result() != 0)
        return turn.result();
    call.bytes = copyFromUser(record, argument, wanted.bytes);
    // What would be overwritten is written as it is, to see whether it can be.
    call.writable = wanted.comesBack ? copyToUser(argument, record, call.bytes) : 0;
    call.address = call.bytes != 0 ? protocol::kUserMemory : addressWithoutBytes(turn.connection(), argument);
    const int result = socket_client::command(turn.connection(), call);
    copyToUser(argument, record, call.written);
    return turn.answer(result);
}

int map(std::uint32_t pageOffset, std::uint32_t bytes, bool sync, Granted& granted)
{
    Turn turn;
    if (turn.result() != 0)
        return turn.result();
    socket_client::Grant grant;
    const int result = socket_client::map(turn.connection(), pageOffset, bytes, sync, grant);
    granted = {grant.descriptor, grant.offset};
    return turn.answer(result);
}

} // namespace velmora::preload
