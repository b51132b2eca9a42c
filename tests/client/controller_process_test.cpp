// Private controllers, and the library's channel to them.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <numeric>
#include <set>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <velmora/controller.hpp>

#include "lib/socket_client.hpp"
#include "lib/socket_protocol.hpp"

namespace velmora::test {
namespace {

std::string folderOf(const std::string& path)
{
    return path.substr(0, path.rfind('/'));
}

bool exists(const std::string& path)
{
    struct stat file;
    return stat(path.c_str(), &file) == 0;
}

// What opening a device by this name says, and its code.
std::pair<std::string, int> refusalOf(const std::string& name)
{
    try {
        openNode(name);
    } catch (const std::system_error& error) {
        return {error.what(), error.code().value()};
    }
    return {"", 0};
}

void startManager(Device& device)
{
    device.buildTable();
    device.startLibrary(SM_BKUP_OK);
}

TEST(PrivateController, AllFifteenCommands)
{
    sim::Controller controller;
    Device device(controller.open());
    startManager(device);
    const TSegInfoFromApp blocks =
        device.createSegment({.name = "BLK0", .bytes = 0x10000, .blockBytes = 0x1000, .mapBits = 8});
    EXPECT_EQ(blocks.hulHandle, 5u);
    const TAddr address = device.allocate(5, 0x2000, 3).value();
    EXPECT_TRUE(device.contains(5, address));
    EXPECT_EQ(device.physicalAddress(address), address - 0x94000000);
    device.fill(address, 0x5A, 0x2000);
    EXPECT_EQ(device.map(address + 0x1FFF, 1).bytes()[0], std::byte{0x5A});
    EXPECT_EQ(device.segment(5).value().ulTotalAllocBlkNum, 2u);
    device.release(5, address, 0x2000);
    ASSERT_TRUE(device.allocate(5, 0x1000, 4));
    device.collectGarbage(5, 4);
    EXPECT_EQ(device.segment(5).value().ulTotalAllocBlkNum, 0u);
    EXPECT_EQ(device.tableRow(2).value().ulSize, 65536u);
    device.clearFixedSegment("$JCB");
    device.addFixedSegment("NEW0", 4096, 0);
    device.deleteFixedSegment("$FIL");
    EXPECT_EQ(device.tableRow(4).value().ulSize, 0u);
    controller.takeLog();
    device.display(5);
    EXPECT_EQ(controller.takeLog().size(), 5u);
}

TEST(PrivateController, ARefusalSaysWhatTheManagerAnswered)
{
    sim::Controller controller;
    Device device(controller.open());
    startManager(device);
    try {
        device.allocate(50, 1);
        FAIL() << "no exception";
    } catch (const Error& error) {
        EXPECT_EQ(error.result(), EASSERT);
    }
    try {
        device.map(0xA4000000, 0x1000);
        FAIL() << "no exception";
    } catch (const Error& error) {
        EXPECT_EQ(error.result(), -EIO);
    }
    EXPECT_NO_THROW(device.tableRow(0)); // still connected
}

TEST(PrivateController, EachIsAControllerOfItsOwn)
{
    sim::Controller one, two;
    Device first(one.open()), second(two.open());
    startManager(first);
    startManager(second);
    EXPECT_EQ(first.createSegment({.name = "AAAA", .bytes = 0x10000}).hulHandle, 5u);
    EXPECT_EQ(second.createSegment({.name = "BBBB", .bytes = 0x10000}).hulHandle, 5u);
    EXPECT_NE(one.socket(), two.socket());
}

TEST(PrivateController, FaultsOnDemand)
{
    sim::Controller controller;
    Device device(controller.open());
    startManager(device);
    device.createSegment({.name = "BLK0", .bytes = 0x10000, .blockBytes = 0x1000});
    controller.failNth(MM_CMD_MALLOC, 2, EINVASEGSIZE);
    controller.failNthMap(1, -ENOMEM);
    controller.failNthOpen(0, -ENODEV);
    EXPECT_TRUE(device.allocate(5, 1));
    EXPECT_FALSE(device.allocate(5, 1));
    EXPECT_TRUE(device.allocate(5, 1));
    EXPECT_THROW(device.map(0x95100000, 1), Error);
    EXPECT_NO_THROW(device.map(0x95100000, 1));
    EXPECT_THROW(controller.open(), std::system_error);
    EXPECT_THROW(controller.open(), std::system_error);
    controller.forgetFaults();
    EXPECT_NO_THROW(controller.open());
}

TEST(PrivateController, TheLogHasAllThatFinishedCommandsPrinted)
{
    sim::Controller controller;
    EXPECT_EQ(controller.takeLog().size(), 2u); // of the load
    Device device(controller.open());
    startManager(device);
    device.createSegment({.name = "BLK0", .bytes = 0x10000});
    controller.takeLog();
    for (int i = 0; i < 200; ++i) // more than a socket holds
        device.display(5);
    EXPECT_EQ(controller.takeLog().size(), 1000u);
    EXPECT_TRUE(controller.takeLog().empty());
}

TEST(Log, AnyClientFollowsWhatAControllerPrints)
{
    sim::Controller controller;
    sim::Log early(controller.device());
    EXPECT_EQ(early.take().size(), 2u);
    Device device(controller.open());
    startManager(device);
    early.take();
    device.createSegment({.name = "BLK0", .bytes = 0x10000});
    device.display(5);
    const std::vector<std::string> messages = early.take();
    EXPECT_EQ(messages.size(), 5u);
    setenv("VELMORA_MM_DEVICE", controller.device().c_str(), 1);
    sim::Log late; // what was printed before it came is there
    unsetenv("VELMORA_MM_DEVICE");
    const std::vector<std::string> all = late.take();
    ASSERT_GE(all.size(), 7u);
    EXPECT_TRUE(std::equal(messages.rbegin(), messages.rend(), all.rbegin()));
    EXPECT_TRUE(late.take().empty());
    EXPECT_EQ(controller.takeLog(), all);
}

TEST(Log, ACodeOrASentenceSaysWhyThereIsNone)
{
    try {
        sim::Log log("/dev/Velmora_MM");
        FAIL() << "no exception";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code(), std::errc::not_supported);
        EXPECT_STREQ(error.what(), "the log of /dev/Velmora_MM is its kernel's: Operation not supported");
    }
    try {
        sim::Log log("unix:/nonexistent/mm.sock");
        FAIL() << "no exception";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code(), std::errc::no_such_file_or_directory);
    }
    sim::Controller controller;
    sim::Log log(controller.device());
    controller.stop();
    EXPECT_THROW(log.take(), std::runtime_error);
    EXPECT_THROW(controller.takeLog(), std::runtime_error);
    EXPECT_THROW(controller.failNthMap(1, -11), std::runtime_error);
}

TEST(PrivateController, NothingOfItIsLeft)
{
    pid_t process = 0;
    std::string socket;
    {
        sim::Controller controller;
        process = controller.process();
        socket = controller.socket();
        EXPECT_TRUE(exists(socket));
    }
    EXPECT_NE(kill(process, 0), 0);
    EXPECT_FALSE(exists(folderOf(socket)));
}

TEST(PrivateController, AControllerThatDoesNotEndIsEndedByForce)
{
    auto controller = std::make_unique<sim::Controller>();
    const pid_t process = controller->process();
    const std::string socket = controller->socket();
    kill(process, SIGSTOP);
    EXPECT_EQ(controller->stop(), -SIGKILL);
    controller.reset();
    EXPECT_NE(kill(process, 0), 0);
    unlink(socket.c_str());
    rmdir(folderOf(socket).c_str());
}

// A program that dies without a word, its controller running.
TEST(PrivateController, ItEndsWithTheProgramHoweverThatEnds)
{
    int news[2];
    ASSERT_EQ(pipe2(news, O_CLOEXEC), 0);
    const pid_t program = fork();
    if (program == 0) {
        sim::Controller controller;
        const pid_t process = controller.process();
        std::string line(reinterpret_cast<const char*>(&process), sizeof process);
        line += controller.socket();
        static_cast<void>(!write(news[1], line.data(), line.size()));
        raise(SIGKILL);
    }
    close(news[1]);
    char line[256];
    const ssize_t bytes = read(news[0], line, sizeof line);
    ASSERT_GT(bytes, static_cast<ssize_t>(sizeof(pid_t)));
    pid_t process = 0;
    std::memcpy(&process, line, sizeof process);
    const std::string socket(line + sizeof process, static_cast<std::size_t>(bytes) - sizeof process);
    waitpid(program, nullptr, 0);
    const int watched = static_cast<int>(syscall(SYS_pidfd_open, process, 0));
    if (watched >= 0) { // it may be gone already
        pollfd gone = {watched, POLLIN, 0};
        EXPECT_EQ(poll(&gone, 1, 5000), 1);
        close(watched);
    }
    EXPECT_FALSE(exists(socket));
    close(news[0]);
}

TEST(PrivateController, WhatItCannotDoIsTold)
{
    try {
        sim::Controller controller({.arguments = {"--area", "95000000-a4001000"}});
        FAIL() << "no exception";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(),
                     "velmora-controller did not start: the area 95000000-a4001000 must lie above the start of "
                     "RAM, 0x94000000, and end at 0xa4000000 at most");
    }
    EXPECT_THROW(sim::Controller({.program = "/nonexistent"}), std::runtime_error);
    try {
        sim::Controller controller({.program = "/bin/false"});
        FAIL() << "no exception";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "velmora-controller did not start; exit status 1");
    }
}

TEST(PrivateController, IsLookedForWhereTheEnvironmentSays)
{
    const std::string program = std::getenv("VELMORA_CONTROLLER");
    const std::string path = std::getenv("PATH");
    setenv("VELMORA_CONTROLLER", "/nonexistent", 1);
    EXPECT_THROW(sim::Controller{}, std::runtime_error);
    unsetenv("VELMORA_CONTROLLER");
    EXPECT_THROW(sim::Controller{}, std::runtime_error); // neither beside this test nor in PATH
    setenv("PATH", (path + ":" + folderOf(program)).c_str(), 1);
    EXPECT_NO_THROW(sim::Controller{});
    setenv("PATH", path.c_str(), 1);
    setenv("VELMORA_CONTROLLER", program.c_str(), 1);
}

TEST(OpenNode, TheEnvironmentNamesTheDevice)
{
    sim::Controller controller;
    setenv("VELMORA_MM_DEVICE", controller.device().c_str(), 1);
    EXPECT_NO_THROW(openNode());
    setenv("VELMORA_MM_DEVICE", "/nonexistent/node", 1);
    EXPECT_THROW(openNode(), std::system_error);
    unsetenv("VELMORA_MM_DEVICE");
}

TEST(OpenNode, ASocketThatIsNotThere)
{
    const auto [text, code] = refusalOf("unix:/nonexistent/mm.sock");
    EXPECT_EQ(text, "no controller is running: there is no socket /nonexistent/mm.sock: No such file or directory");
    EXPECT_EQ(code, ENOENT);
}

TEST(OpenNode, ANameThatNoSocketCanHave)
{
    EXPECT_EQ(refusalOf("unix:/" + std::string(200, 'x')).second, ENAMETOOLONG);
}

// Something that listens, and is no controller.
class Impostor
{
public:
    explicit Impostor(int type = SOCK_SEQPACKET) : socket_(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0))
    {
        EXPECT_NE(mkdtemp(folder_), nullptr);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path().copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(socket_, 5), 0);
    }
    Impostor(const Impostor&) = delete;
    Impostor& operator=(const Impostor&) = delete;
    ~Impostor()
    {
        stopListening();
        unlink(path().c_str());
        rmdir(folder_);
    }

    std::string path() const { return std::string(folder_) + "/mm.sock"; }
    void stopListening()
    {
        if (socket_ >= 0)
            close(socket_);
        socket_ = -1;
    }

    // Answers one client: each of these bytes to one of its packets, then hangs up.
    std::thread answering(std::vector<std::string> answers) const
    {
        return std::thread([this, answers = std::move(answers)] {
            const int client = accept(socket_, nullptr, nullptr);
            char packet[4096];
            for (const std::string& answer : answers) {
                static_cast<void>(!recv(client, packet, sizeof packet, 0));
                static_cast<void>(!send(client, answer.data(), answer.size(), MSG_NOSIGNAL));
            }
            close(client);
        });
    }

private:
    char folder_[32] = "/tmp/velmora-test-XXXXXX";
    int socket_;
};

template <class Message> std::string bytesOf(const Message& message)
{
    return {reinterpret_cast<const char*>(&message), sizeof message};
}

TEST(OpenNode, ASocketOnWhichNobodyListensAnyMore)
{
    Impostor impostor;
    impostor.stopListening();
    const auto [text, code] = refusalOf("unix:" + impostor.path());
    EXPECT_EQ(text, "no controller is running: nobody listens at " + impostor.path() + ": Connection refused");
    EXPECT_EQ(code, ECONNREFUSED);
}

TEST(OpenNode, AFileThatIsNoSocket)
{
    const auto [text, code] = refusalOf("unix:/etc/passwd");
    EXPECT_EQ(text, "/etc/passwd is no socket of a controller: Socket operation on non-socket");
    EXPECT_EQ(code, ENOTSOCK);
}

// The same for a user to whom something can be forbidden; run by root, another process asks as nobody.
std::pair<std::string, int> refusalOfNobody(const std::string& name)
{
    if (getuid() != 0)
        return refusalOf(name);
    int news[2];
    EXPECT_EQ(pipe(news), 0);
    const pid_t child = fork();
    if (child == 0) {
        constexpr gid_t nobody = 65534;
        if (setgroups(0, nullptr) != 0 || setgid(nobody) != 0 || setuid(nobody) != 0)
            _exit(1);
        const auto [text, code] = refusalOf(name);
        static_cast<void>(!write(news[1], text.data(), text.size()));
        _exit(code);
    }
    close(news[1]);
    char text[1024];
    const ssize_t bytes = read(news[0], text, sizeof text);
    close(news[0]);
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return {std::string(text, bytes > 0 ? static_cast<std::size_t>(bytes) : 0), WEXITSTATUS(status)};
}

TEST(OpenNode, ASocketWithoutPermission)
{
    const Impostor impostor;
    chmod(folderOf(impostor.path()).c_str(), 0711);
    chmod(impostor.path().c_str(), 0);
    const auto [text, code] = refusalOfNobody("unix:" + impostor.path());
    EXPECT_EQ(text, "no permission to use the controller's socket " + impostor.path() + ": Permission denied");
    EXPECT_EQ(code, EACCES);
}

TEST(OpenNode, ANodeWithoutPermission)
{
    const Impostor impostor; // for its folder
    const std::string node = folderOf(impostor.path()) + "/node";
    chmod(folderOf(node).c_str(), 0711);
    close(open(node.c_str(), O_CREAT | O_WRONLY, 0));
    const auto [text, code] = refusalOfNobody(node);
    EXPECT_EQ(text, "cannot open " + node + ": Permission denied");
    EXPECT_EQ(code, EACCES);
    unlink(node.c_str());
}

TEST(SocketClient, WhatAcceptsAndNeverAnswersIsWaitedForOnlySoLong)
{
    const Impostor impostor;
    socket_client::Connection connection;
    EXPECT_EQ(socket_client::connectTo(connection, impostor.path().c_str(), 1), -EPROTO);
    EXPECT_EQ(connection.descriptor, -1);
    EXPECT_EQ(connection.report, "what listens at " + impostor.path() + " does not answer as a controller does");
}

TEST(OpenNode, ASocketOfAnotherKind)
{
    const Impostor impostor(SOCK_STREAM);
    const auto [text, code] = refusalOf("unix:" + impostor.path());
    EXPECT_EQ(text, "what listens at " + impostor.path() + " is no controller: Protocol error");
    EXPECT_EQ(code, EPROTO);
}

TEST(OpenNode, WhatAnswersAsNoControllerDoes)
{
    using namespace protocol;
    const Impostor impostor;
    const std::string none = "what listens at " + impostor.path() + " is no controller: Protocol error";
    const std::string unknown =
        "the controller at " + impostor.path() + " answers in a way that this program does not know: Protocol error";
    const std::string welcome = bytesOf(Welcome{headerOf(Kind::Hello, 1), 0x94000000, 0x10000000});
    std::string another =
        bytesOf(Plain{headerOf(Kind::Refused, 1, -EPROTONOSUPPORT)}) + "the controller speaks version 9";
    another[4] = 9;
    const struct {
        std::vector<std::string> answers;
        std::string text;
    } cases[] = {
        {{}, none},
        {{"220 mail.example.com"}, none},
        {{std::string(3000, 'x')}, none},
        {{welcome.substr(0, 20)}, unknown},
        {{bytesOf(Plain{headerOf(Kind::Open, 1)})}, unknown},
        {{another}, "the controller speaks version 9: Protocol not supported"},
        {{welcome}, "the controller is gone: the connection to it has ended: Broken pipe"},
        {{welcome, "x"}, "what answered is no controller: Broken pipe"},
        {{welcome, welcome}, "the controller's answer is not one to what was asked: Broken pipe"},
    };
    for (const auto& one : cases) {
        std::thread thread = impostor.answering(one.answers);
        EXPECT_EQ(refusalOf("unix:" + impostor.path()).first, one.text);
        thread.join();
    }
}

TEST(SocketClient, AnAnswerThatIsNotWhatWasAskedEndsTheConnection)
{
    using namespace protocol;
    const Impostor impostor;
    const std::string welcome = bytesOf(Welcome{headerOf(Kind::Hello, 1), 0x94000000, 0x10000000});
    const auto answer = [](std::uint32_t bytes, std::uint32_t written, std::size_t sent, std::uint32_t ticket = 2) {
        return bytesOf(CommandAnswer{headerOf(Kind::Command, ticket, 0), bytes, written}) + std::string(sent, 'x');
    };
    const std::string wrong[] = {
        answer(4, 5, 4),     // wrote more than there was
        answer(4, 4, 3),     // and sent less than it says
        answer(8, 4, 8),     // or more than came
        answer(4, 4, 4, 77), // to another request
        bytesOf(headerOf(Kind::Command, 2)),
    };
    for (const std::string& bytes : wrong) {
        std::thread thread = impostor.answering({welcome, bytes});
        socket_client::Connection connection;
        ASSERT_EQ(socket_client::connectTo(connection, impostor.path().c_str()), 0);
        std::uint32_t record = 0x01020304;
        socket_client::Call call;
        call.number = MM_CMD_ENTRY;
        call.user = &record;
        call.bytes = call.writable = sizeof record;
        EXPECT_EQ(socket_client::command(connection, call), socket_client::kNoAnswer);
        EXPECT_EQ(connection.descriptor, -1);
        EXPECT_NE(connection.report[0], 0);
        EXPECT_EQ(record, 0x01020304u);
        EXPECT_EQ(socket_client::command(connection, call), socket_client::kNoAnswer); // and from now on
        thread.join();
    }
}

TEST(SocketClient, TheDefaultSocketLiesInTheUsersRuntimeFolder)
{
    char path[64];
    setenv("XDG_RUNTIME_DIR", "/run/user/7", 1);
    EXPECT_TRUE(socket_client::defaultSocket(path, sizeof path));
    EXPECT_STREQ(path, "/run/user/7/velmora-mm/controller.sock");
    EXPECT_FALSE(socket_client::defaultSocket(path, 38));
    unsetenv("XDG_RUNTIME_DIR");
    EXPECT_TRUE(socket_client::defaultSocket(path, sizeof path));
    EXPECT_STREQ(path, "/run/velmora-mm/controller.sock");
}

// Threads ------------------------------------------------------------------------------------------

TEST(SocketChannel, OneChannelServesSeveralThreads)
{
    sim::Controller controller;
    const std::shared_ptr<Channel> shared = controller.open();
    Device device(controller.open());
    startManager(device);
    device.createSegment({.name = "BLK0", .bytes = 0x100000, .blockBytes = 0x1000, .mapBits = 8});
    std::vector<std::thread> threads;
    std::atomic<int> wrong = 0;
    for (std::uint8_t owner = 1; owner <= 4; ++owner)
        threads.emplace_back([&, owner] {
            for (int i = 0; i < 200; ++i) {
                TMallocInfo info{5, 0x1000, owner, {}, 0};
                wrong += shared->command(MM_CMD_MALLOC, &info, sizeof info) != 0 || info.ubMapID != owner;
                void* const view = shared->map(info.pubStart, 0x1000, Caching::Cached);
                static_cast<std::uint8_t*>(view)[0] = owner;
                TFreeInfo release{5, info.pubStart, 0x1000};
                wrong += shared->command(MM_CMD_FREE, &release, sizeof release) != 0;
                shared->unmap(view, 0x1000);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(device.segment(5).value().ulTotalAllocBlkNum, 0u);
}

TEST(SocketChannel, ManyProcessesWorkOnOneController)
{
    sim::Controller controller;
    Device device(controller.open());
    startManager(device);
    device.createSegment({.name = "BLK0", .bytes = 0x100000, .blockBytes = 0x1000, .mapBits = 8});
    std::vector<pid_t> processes;
    for (std::uint8_t owner = 1; owner <= 6; ++owner) {
        processes.push_back(fork());
        if (processes.back() != 0)
            continue;
        Device mine(controller.open());
        bool good = true;
        for (int i = 0; i < 100; ++i) {
            const TAddr address = mine.allocate(5, 0x2000, owner).value();
            {
                const Mapping view = mine.map(address, 0x2000);
                std::fill(view.bytes().begin(), view.bytes().end(), std::byte{owner});
                good = good && std::count(view.bytes().begin(), view.bytes().end(), std::byte{owner}) == 0x2000;
            }
            mine.release(5, address, 0x2000);
        }
        _exit(good ? 0 : 1);
    }
    for (const pid_t process : processes) {
        int status = 1;
        waitpid(process, &status, 0);
        EXPECT_EQ(status, 0);
    }
    EXPECT_EQ(device.segment(5).value().ulTotalAllocBlkNum, 0u);
}

} // namespace
} // namespace velmora::test
