// The controller's socket: who may listen, who is connected, whose turn it is.
//
// One thread, one loop: each turn takes at most one request from each client, so that nobody is kept waiting by a client
// that asks much. A client that does not read its answers is not read from either; one that does not read the log falls
// behind, up to what the log keeps. Nothing that a client does or leaves undone blocks the loop.
#pragma once

#include <cstdio>
#include <functional>
#include <list>
#include <string>
#include <string_view>
#include <utility>

#include <sys/types.h>

#include "controller/service.h"

namespace velmora::sim {

// A descriptor that closes itself.
class OwnDescriptor
{
public:
    explicit OwnDescriptor(int number = -1) : number_(number) {}
    OwnDescriptor(OwnDescriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    OwnDescriptor& operator=(OwnDescriptor&& other) noexcept
    {
        std::swap(number_, other.number_);
        return *this;
    }
    ~OwnDescriptor();

    int number() const { return number_; }
    explicit operator bool() const { return number_ >= 0; }

private:
    int number_;
};

// A socket file that this process listens on. Its mode is 0660 and, where there is a group "velmora" and this process may
// give it away, its group is that: as the device node's. Removed again at the end, if it is still the same file.
class ListeningSocket
{
public:
    // A socket left by a controller that is gone is taken over. Throws std::runtime_error with a sentence when another
    // controller listens there, when path is something else than a socket, or when it cannot be made.
    explicit ListeningSocket(const std::string& path);
    ListeningSocket(const ListeningSocket&) = delete;
    ListeningSocket& operator=(const ListeningSocket&) = delete;
    ~ListeningSocket();

    int number() const { return socket_.number(); }
    const std::string& path() const { return path_; }

private:
    std::string path_;
    OwnDescriptor socket_;
    dev_t device_ = 0;
    ino_t file_ = 0;
};

struct ServerOptions {
    std::string socket;
    ServiceOptions service;
    std::size_t mostClients = 1000;
    std::function<void(std::string_view)> log; // each kernel message, as it is printed
};

class Server
{
public:
    // Listens, then boots the controller: clients that come early wait. Throws as ListeningSocket and Service do.
    explicit Server(ServerOptions options);

    // Serves until one of `ends` can be read or was hung up on, or a command stopped the controller. nullopt, or the
    // report in the latter case; every client has it as well.
    std::optional<std::string> run(std::span<const int> ends);

private:
    struct Client {
        explicit Client(OwnDescriptor connected) : socket(std::move(connected)) {}
        OwnDescriptor socket;
        Peer peer;
        Reply pending; // an answer for which there was no room yet
        bool gone = false;
    };

    void accept();
    void serve(Client& client, short events);
    void receive(Client& client);
    void deliver(Client& client, Reply reply);
    void feed(Client& client);
    void feedAll(const Client* but);
    void forgetGone();
    void tellAll(const Reply& last);
    void printLog();

    ServerOptions options_;
    ListeningSocket listening_;
    Service service_;
    OwnDescriptor spare_;
    std::list<Client> clients_;
    LogReader printed_;
    std::optional<std::string> report_; // why the controller stands still
};

} // namespace velmora::sim
