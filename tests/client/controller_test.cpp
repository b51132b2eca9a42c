// velmora-controller as its clients see it, those included that do as they like.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <numeric>
#include <optional>
#include <string>
#include <thread>

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <velmora/controller.hpp>

#include "client/raw_client.hpp"
#include "lib/argument_vector.hpp"

namespace velmora::test {
namespace {

using namespace protocol;

// A folder of this test's own.
class Folder
{
public:
    Folder() { EXPECT_NE(mkdtemp(name_), nullptr); }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    ~Folder() { std::system(("rm -rf " + std::string(name_)).c_str()); }

    std::string at(const std::string& name) const { return std::string(name_) + "/" + name; }
    std::string contentOf(const std::string& name) const
    {
        std::ifstream file(at(name));
        return {std::istreambuf_iterator<char>(file), {}};
    }

private:
    char name_[32] = "/tmp/velmora-test-XXXXXX";
};

const char* program()
{
    return std::getenv("VELMORA_CONTROLLER");
}

// The program as a user starts it; what it writes goes into the folder's files "out" and "errors".
class Program
{
public:
    Program(const Folder& folder, std::vector<std::string> words)
    {
        words.insert(words.begin(), program());
        const std::vector<char*> arguments = argumentVector(words);
        posix_spawn_file_actions_t files;
        posix_spawn_file_actions_init(&files);
        posix_spawn_file_actions_addopen(&files, 1, folder.at("out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        posix_spawn_file_actions_addopen(&files, 2, folder.at("errors").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        EXPECT_EQ(posix_spawn(&process_, program(), &files, nullptr, arguments.data(), environ), 0);
        posix_spawn_file_actions_destroy(&files);
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;
    ~Program()
    {
        if (process_ > 0)
            end(SIGKILL);
    }

    // Exit status, or minus the signal that ended it.
    int status()
    {
        int status = 0;
        waitpid(process_, &status, 0);
        process_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    int end(int signal)
    {
        kill(process_, signal);
        return status();
    }
    pid_t process() const { return process_; }

private:
    pid_t process_ = -1;
};

// Waits for a controller that nobody tells when it is ready.
void waitForSocket(const std::string& path)
{
    for (int i = 0; i < 500 && !RawClient(path, RawClient::Greeting::LeftOut).connected(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

template <class Record> Command commandOn(std::uint32_t number, const Record&)
{
    return {headerOf(Kind::Command, 1), number, kUserMemory, sizeof(Record), sizeof(Record)};
}

template <class Record> void sendCommand(const RawClient& client, std::uint32_t number, const Record& record)
{
    struct __attribute__((packed)) {
        Command head;
        Record record;
    } message = {commandOn(number, record), record};
    client.send(message);
}

void startManager(Device& device)
{
    device.buildTable();
    device.startLibrary(SM_BKUP_OK);
}

class ControllerProgram : public ::testing::Test
{
protected:
    // The controller still serves, and this client's segment is as it was.
    void expectOtherClientUnharmed()
    {
        EXPECT_EQ(device.segment(5).value().ulTotalAllocBlkNum, 2u);
        EXPECT_EQ(view.bytes()[0], std::byte{0x77});
    }

    ControllerProgram()
    {
        startManager(device);
        device.createSegment({.name = "BLK0", .bytes = 0x10000, .blockBytes = 0x1000, .mapBits = 8});
        address = device.allocate(5, 0x2000, 3).value();
        view = device.map(address, 0x2000);
        view.bytes()[0] = std::byte{0x77};
    }

    // Returns when the controller knows that everybody else is gone.
    void waitUntilAlone() const
    {
        const RawClient client(controller.socket());
        const std::uint32_t own = 4; // the controller object's two, the device, this one
        for (std::uint32_t clients = 0; clients != own;) {
            client.send(Status{headerOf(Kind::Status, 1)});
            clients = client.receive().as<StatusAnswer>().clients;
        }
    }

    sim::Controller controller;
    Device device{controller.open()};
    TAddr address = 0;
    Mapping view{device.map(0x95100000, 1)};
};

TEST_F(ControllerProgram, TwoClientsShareTheMemory)
{
    Device other(controller.open());
    const Mapping seen = other.map(address, 0x2000, Caching::Uncached);
    EXPECT_EQ(seen.bytes()[0], std::byte{0x77});
    seen.bytes()[0x1FFF] = std::byte{0x11};
    EXPECT_EQ(view.bytes()[0x1FFF], std::byte{0x11});
    other.fill(address, 0x5A, 2);
    EXPECT_EQ(view.bytes()[1], std::byte{0x5A});
}

TEST_F(ControllerProgram, AClientThatDiesWithMemoryAllocatedHarmsNobody)
{
    {
        Device mortal(controller.open());
        EXPECT_TRUE(mortal.allocate(5, 0x1000, 7));
    }
    EXPECT_EQ(device.segment(5).value().ulTotalAllocBlkNum, 3u); // stays, until somebody collects it
    device.collectGarbage(5, 7);
    expectOtherClientUnharmed(); // owner 3 holds bits of 7, and not all of them
}

TEST_F(ControllerProgram, AClientThatDiesInTheMiddleOfACommandHarmsNobody)
{
    for (int i = 0; i < 100; ++i) {
        RawClient client(controller.socket());
        sendCommand(client, MM_CMD_MALLOC, TMallocInfo{5, 0x1000, 7, {}, 0});
        sendCommand(client, MM_CMD_COLLECT_GARBAGE, TCollectGarbageInfo{5, 7, {}});
    }
    waitUntilAlone(); // what they sent is done nevertheless
    device.collectGarbage(5, 7);
    expectOtherClientUnharmed();
}

TEST_F(ControllerProgram, WhatIsNoRequestEndsTheConnectionWithASentenceAndNobodyElses)
{
    const std::string garbage(100, 'x');
    for (const std::size_t bytes : {1u, 15u, 16u, 100u}) {
        const RawClient client(controller.socket());
        client.sendBytes(garbage.data(), bytes);
        const auto answer = client.receive();
        EXPECT_EQ(answer.kind, Kind::Refused);
        EXPECT_EQ(answer.result, -EPROTO);
        EXPECT_EQ(answer.rest, "what was sent is no request to a controller");
        EXPECT_TRUE(client.receive().ended);
        expectOtherClientUnharmed();
    }
}

TEST_F(ControllerProgram, AnOversizedMessageIsRefused)
{
    for (const std::size_t bytes : {121u, 4096u, 100000u}) {
        const RawClient client(controller.socket());
        std::string message(bytes, 0);
        const Command head{headerOf(Kind::Command, 1), MM_CMD_MALLOC, kUserMemory,
                           static_cast<std::uint32_t>(bytes - 32), 0};
        std::memcpy(message.data(), &head, sizeof head);
        client.sendBytes(message.data(), message.size());
        EXPECT_EQ(client.receive().kind, Kind::Refused);
    }
    expectOtherClientUnharmed();
}

TEST_F(ControllerProgram, DescriptorsThatComeAlongAreRefusedAndNotKept)
{
    const auto descriptorsOf = [&] {
        const std::string folder = "/proc/" + std::to_string(controller.process()) + "/fd";
        const std::string count = "test $(ls " + folder + " | wc -l) -le ";
        for (int number = 1; number < 100; ++number)
            if (std::system((count + std::to_string(number)).c_str()) == 0)
                return number;
        return 100;
    };
    device.segment(5); // what was connected before is settled
    const int before = descriptorsOf();
    for (const std::size_t count : {1u, 2u, 200u}) {
        const RawClient client(controller.socket());
        ASSERT_TRUE(client.sendWithDescriptors(Status{headerOf(Kind::Status, 1)}, STDERR_FILENO, count));
        EXPECT_EQ(client.receive().kind, Kind::Refused);
        EXPECT_TRUE(client.receive().ended);
    }
    device.segment(5);
    EXPECT_EQ(descriptorsOf(), before);
    expectOtherClientUnharmed();
}

TEST_F(ControllerProgram, AClientOfAnotherVersionIsToldSo)
{
    const RawClient client(controller.socket(), RawClient::Greeting::LeftOut);
    client.send(Hello{Header{kMagic, 7, Kind::Hello, 1, 0}});
    const auto answer = client.receive();
    EXPECT_EQ(answer.result, -EPROTONOSUPPORT);
    EXPECT_EQ(answer.rest, "the controller speaks version 1 of its protocol, the program version 7");
}

TEST_F(ControllerProgram, AClientThatWillSayNothingMoreStillGetsItsAnswers)
{
    const RawClient client(controller.socket());
    client.send(Status{headerOf(Kind::Status, 1)});
    shutdown(client.socket(), SHUT_WR);
    EXPECT_EQ(client.receive().kind, Kind::Status);
    EXPECT_TRUE(client.receive().ended);
    expectOtherClientUnharmed();
}

TEST_F(ControllerProgram, AClientThatReadsNothingIsNotReadFromEither)
{
    const RawClient deaf(controller.socket());
    const RawClient halfDeaf(controller.socket());
    shutdown(halfDeaf.socket(), SHUT_RD);
    std::size_t sent = 0;
    const Status request{headerOf(Kind::Status, 1)};
    // Until neither the answers nor the requests have room left.
    for (int quiet = 0; quiet < 20;) {
        const bool room = deaf.sendBytes(&request, sizeof request, MSG_DONTWAIT);
        sent += room;
        quiet = room ? 0 : quiet + 1;
        halfDeaf.sendBytes(&request, sizeof request, MSG_DONTWAIT);
        if (!room)
            expectOtherClientUnharmed();
    }
    EXPECT_LT(sent, 100000u);
    for (std::size_t i = 0; i < sent; ++i)
        ASSERT_EQ(deaf.receive().kind, Kind::Status) << i << " of " << sent;
    expectOtherClientUnharmed();
}

TEST_F(ControllerProgram, AClientThatFollowsTheLogSlowlyLosesMessagesWithACount)
{
    const RawClient slow(controller.socket());
    slow.send(FollowLog{headerOf(Kind::FollowLog, 1), 0});
    EXPECT_EQ(slow.receive().kind, Kind::FollowLog);
    controller.takeLog();
    constexpr int displays = 2000; // 5 messages each
    for (int i = 0; i < displays; ++i) {
        device.display(5);
        if (i % 20 == 0)
            controller.takeLog();
    }
    std::uint64_t got = 0, lost = 0, next = 0;
    for (std::uint64_t count = 0; got + lost < 5 * displays; ++count) {
        const auto message = slow.receive();
        ASSERT_EQ(message.kind, Kind::LogMessage);
        const auto head = message.as<LogMessage>();
        if (count != 0) {
            EXPECT_EQ(head.number, next + head.lost);
        }
        next = head.number + 1;
        lost += head.lost;
        ++got;
    }
    EXPECT_GT(lost, 0u);
    EXPECT_GT(got, 100u);
    EXPECT_EQ(got + lost, 5u * displays);
}

TEST_F(ControllerProgram, AClientTooManyIsToldSoAndSomebodyElsesPlaceIsFreeAgain)
{
    std::vector<std::unique_ptr<RawClient>> clients;
    RawClient::Received answer;
    for (int i = 0; i < 5000 && answer.kind != Kind::Refused; ++i) {
        clients.push_back(std::make_unique<RawClient>(controller.socket(), RawClient::Greeting::LeftOut));
        if (!clients.back()->connected())
            GTEST_SKIP() << "this process has too few descriptors";
        clients.back()->send(Hello{headerOf(Kind::Hello, 1)});
        answer = clients.back()->receive();
    }
    EXPECT_EQ(answer.result, -EUSERS);
    EXPECT_EQ(answer.rest, "the controller has as many clients as it can serve");
    expectOtherClientUnharmed();
    clients.clear();
    RawClient again(controller.socket());
    expectOtherClientUnharmed();
}

TEST_F(ControllerProgram, NobodyCanChangeTheSizeOfItsRam)
{
    RawClient client(controller.socket());
    client.send(Map{headerOf(Kind::Map, 1), 0x95100, 0x1000, 0});
    char bytes[sizeof(MapAnswer)];
    iovec part = {bytes, sizeof bytes};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    msghdr packet = {};
    packet.msg_iov = &part;
    packet.msg_iovlen = 1;
    packet.msg_control = control;
    packet.msg_controllen = sizeof control;
    ASSERT_EQ(recvmsg(client.socket(), &packet, 0), static_cast<ssize_t>(sizeof bytes));
    int ram = -1;
    std::memcpy(&ram, CMSG_DATA(CMSG_FIRSTHDR(&packet)), sizeof ram);
    EXPECT_NE(ftruncate(ram, 0), 0);
    close(ram);
    expectOtherClientUnharmed();
}

TEST_F(ControllerProgram, ACommandThatTheManagerDoesNotSurviveEndsTheControllerAndEveryClientHearsWhy)
{
    Device other(controller.open());
    const std::string report =
        "the simulated controller stopped: ioctl MM_CMD_MEMSET touched 0xa4000000, which does not exist";
    const auto reportOf = [](Device& client, auto call) {
        try {
            call(client);
        } catch (const ConnectionError& error) {
            EXPECT_EQ(error.result(), -EPIPE);
            return std::string(error.what());
        }
        return std::string("nothing");
    };
    EXPECT_EQ(reportOf(device, [](Device& client) { client.fill(0xA4000000, 0, 1); }), report);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(reportOf(other, [](Device& client) { client.segment(5); }), report);
    EXPECT_EQ(reportOf(other, [&](Device& client) { client.map(address, 1); }), report);
    EXPECT_EQ(view.bytes()[0], std::byte{0x77}); // what was mapped stays mapped
    EXPECT_EQ(controller.stop(), 3);
}

TEST_F(ControllerProgram, ACommandThatHangsEndsTheControllerAsWell)
{
    // A release that the owner map contradicts leaves the lock held; the next command on it waits for ever.
    device.createSegment({.name = "STK0", .bytes = 0x10000, .blockBytes = 0x1000, .discipline = STACK});
    const auto top = device.allocate(6, 0x1000);
    ASSERT_TRUE(top);
    std::string report;
    try {
        for (int i = 0; i < 3; ++i)
            try {
                device.release(6, *top + 0x100000, 0x1000);
            } catch (const ConnectionError&) {
                throw;
            } catch (const Error&) {
            }
    } catch (const ConnectionError& error) {
        report = error.what();
    }
    EXPECT_EQ(report,
              "the simulated controller stopped: ioctl MM_CMD_FREE waits for ever on pop_lock, which is already held");
    EXPECT_EQ(controller.stop(), 3);
}

TEST_F(ControllerProgram, AControllerThatIsKilledLeavesAClearError)
{
    kill(controller.process(), SIGKILL);
    try {
        for (;;)
            device.segment(5);
    } catch (const ConnectionError& error) {
        EXPECT_STREQ(error.what(), "the controller is gone: the connection to it has ended");
        EXPECT_EQ(error.result(), -EPIPE);
    }
    EXPECT_EQ(controller.stop(), -SIGKILL);
}

TEST_F(ControllerProgram, AControllerThatIsSwitchedOffSaysSo)
{
    EXPECT_EQ(controller.stop(), 0);
    try {
        device.segment(5);
        FAIL() << "no exception";
    } catch (const ConnectionError& error) {
        EXPECT_STREQ(error.what(), "the controller was switched off");
    }
}

// As a user starts it ------------------------------------------------------------------------------

TEST(ControllerCommandLine, TheSocketHasTheNodesPermissionsAndGoesWithTheController)
{
    const Folder folder;
    const std::string socket = folder.at("mm.sock");
    for (const int signal : {SIGTERM, SIGINT}) {
        Program controller(folder, {"--socket", socket});
        waitForSocket(socket);
        struct stat file = {};
        EXPECT_EQ(stat(socket.c_str(), &file), 0);
        EXPECT_EQ(file.st_mode & 0777, 0660u);
        EXPECT_EQ(controller.end(signal), 0);
        EXPECT_NE(stat(socket.c_str(), &file), 0);
        EXPECT_EQ(folder.contentOf("errors"), "");
    }
}

TEST(ControllerCommandLine, ASecondControllerOnTheSameSocketIsRefused)
{
    const Folder folder, other;
    const std::string socket = folder.at("mm.sock");
    Program first(folder, {"--socket", socket});
    waitForSocket(socket);
    EXPECT_EQ(Program(other, {"--socket", socket}).status(), 1);
    EXPECT_EQ(other.contentOf("errors"),
              "velmora-controller: a controller is running already and listens at " + socket + "\n");
    EXPECT_NO_THROW(openNode("unix:" + socket));
}

TEST(ControllerCommandLine, TheSocketOfADeadControllerIsTakenOver)
{
    const Folder folder;
    const std::string socket = folder.at("mm.sock");
    Program first(folder, {"--socket", socket});
    waitForSocket(socket);
    first.end(SIGKILL);
    EXPECT_EQ(access(socket.c_str(), F_OK), 0);
    Program second(folder, {"--socket", socket});
    waitForSocket(socket);
    EXPECT_NO_THROW(openNode("unix:" + socket));
    EXPECT_EQ(second.end(SIGTERM), 0);
}

TEST(ControllerCommandLine, OfManyThatStartAtOnceOnADeadControllersSocketOneServes)
{
    const Folder folder;
    const std::string socket = folder.at("mm.sock");
    {
        Program first(folder, {"--socket", socket});
        waitForSocket(socket);
        first.end(SIGKILL);
    }
    std::vector<std::unique_ptr<Program>> all(8);
    for (auto& one : all)
        one = std::make_unique<Program>(folder, std::vector<std::string>{"--socket", socket});
    waitForSocket(socket);
    int refused = 0;
    for (int i = 0; i < 7; ++i) { // whoever they are
        int status = 0;
        const pid_t ended = waitpid(-1, &status, 0);
        EXPECT_TRUE(std::any_of(all.begin(), all.end(), [&](const auto& one) { return one->process() == ended; }));
        refused += WIFEXITED(status) && WEXITSTATUS(status) == 1;
    }
    EXPECT_EQ(refused, 7);
    EXPECT_NO_THROW(openNode("unix:" + socket));
}

TEST(ControllerCommandLine, AFileThatIsNoSocketIsLeftAlone)
{
    const Folder folder;
    const std::string path = folder.at("notes");
    std::ofstream(path) << "text";
    EXPECT_EQ(Program(folder, {"--socket", path}).status(), 1);
    EXPECT_EQ(folder.contentOf("errors"), "velmora-controller: " + path + " is there already and is no socket\n");
    EXPECT_EQ(folder.contentOf("notes"), "text");
}

TEST(ControllerCommandLine, ASocketThatReplacedItsOwnIsLeftAlone)
{
    const Folder folder;
    const std::string socket = folder.at("mm.sock");
    Program controller(folder, {"--socket", socket});
    waitForSocket(socket);
    std::rename(socket.c_str(), folder.at("away").c_str());
    std::ofstream(socket) << "mine";
    EXPECT_EQ(controller.end(SIGTERM), 0);
    EXPECT_EQ(folder.contentOf("mm.sock"), "mine");
}

TEST(ControllerCommandLine, WhatCannotBeDoneIsSaidInOneSentence)
{
    const Folder folder;
    struct Case {
        std::vector<std::string> words;
        int status;
        std::string errors;
    };
    const std::string name = "velmora-controller: ", help = "\nTry 'velmora-controller --help'.\n";
    const Case cases[] = {
        {{"--socket", folder.at("none/mm.sock")},
         1,
         name + "cannot use the folder " + folder.at("none") + " for a socket: No such file or directory\n"},
        {{"--socket", "/" + std::string(107, 'x')},
         1,
         name + "the socket's name '/" + std::string(107, 'x') + "' must have 1 to 107 characters\n"},
        {{"--ram", "2G"},
         2,
         name + "--ram: the controller has whole pages of 4096 bytes, up to 1 GiB of them, not '2G'" + help},
        {{"--ram", "much"}, 2, name + "--ram: 'much' is no number of bytes" + help},
        {{"--area", "95000000"}, 2, name + "--area: '95000000' is not START-END with two hexadecimal addresses" + help},
        {{"--area", "95000000-a4001000"},
         1,
         name +
             "the area 95000000-a4001000 must lie above the start of RAM, 0x94000000, and end at 0xa4000000 at most\n"},
        {{"--area", "95000000-95200000"},
         1,
         name + "the area 95000000-95200000 has nothing between the mebibytes at its ends\n"},
        {{"--fail", "NONSENSE:1:4"}, 2, name + "--fail: there is no command 'NONSENSE'" + help},
        {{"--fail", "MALLOC:1"}, 2, name + "--fail: 'MALLOC:1' is not COMMAND:N:ANSWER" + help},
        {{"--nonsense"}, 2, name + "unknown option --nonsense" + help},
    };
    for (const Case& one : cases) {
        EXPECT_EQ(Program(folder, one.words).status(), one.status);
        EXPECT_EQ(folder.contentOf("errors"), one.errors);
    }
}

TEST(ControllerCommandLine, RamAreaFaultsAndLogAreAsAsked)
{
    const Folder folder;
    const std::string socket = folder.at("mm.sock");
    Program controller(folder, {"--socket", socket, "--ram", "32MiB", "--area", "0x94800000-95800000", "--fail",
                                "MALLOC:2:4", "--fail", "MM_CMD_CLEAR_SEGMENT:0:-12", "--fail", "mmap:1:-1", "--log"});
    waitForSocket(socket);
    {
        Device device(openNode("unix:" + socket));
        startManager(device);
        EXPECT_EQ(device.tableRow(0).value().pubStartAddr, 0x94900000u);
        device.createSegment({.name = "BLK0", .bytes = 0x10000, .blockBytes = 0x1000});
        EXPECT_TRUE(device.allocate(5, 1));
        EXPECT_FALSE(device.allocate(5, 1));
        EXPECT_TRUE(device.allocate(5, 1));
        for (int i = 0; i < 2; ++i)
            EXPECT_THROW(device.clearFixedSegment("$JCB"), Error);
        EXPECT_THROW(device.map(0x94900000, 1), Error);
        EXPECT_NO_THROW(device.map(0x95FFF000, 1));
        EXPECT_THROW(device.map(0x96000000, 1), Error);
    }
    EXPECT_EQ(controller.end(SIGTERM), 0);
    EXPECT_EQ(folder.contentOf("out").substr(0, 62), "****** A : [0x94800000], B : [0x95700000], PAGE_OFFSET : [0x94");
}

TEST(ControllerCommandLine, WithoutASocketItListensWhereClientsLook)
{
    const Folder folder;
    setenv("XDG_RUNTIME_DIR", folder.at("").c_str(), 1);
    Program controller(folder, {});
    waitForSocket(folder.at("velmora-mm/controller.sock"));
    EXPECT_NO_THROW(openNode("unix:"));
    unsetenv("XDG_RUNTIME_DIR");
}

} // namespace
} // namespace velmora::test
