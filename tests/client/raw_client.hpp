// A client of a controller's socket that says whatever it likes.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "lib/socket_protocol.hpp"

namespace velmora::test {

class RawClient
{
public:
    enum class Greeting { Said, LeftOut };

    explicit RawClient(const std::string& path, Greeting greeting = Greeting::Said)
        : socket_(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        connected_ = connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
        if (greeting == Greeting::Said) {
            EXPECT_TRUE(connected_);
            send(protocol::Hello{protocol::headerOf(protocol::Kind::Hello, 0)});
            EXPECT_EQ(receive().kind, protocol::Kind::Hello);
        }
    }
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;
    ~RawClient() { hangUp(); }

    bool connected() const { return connected_; }
    int socket() const { return socket_; }

    void hangUp()
    {
        if (socket_ >= 0)
            close(socket_);
        socket_ = -1;
    }

    // Without waiting: false when there is no room.
    bool sendBytes(const void* bytes, std::size_t count, int flags = 0) const
    {
        return ::send(socket_, bytes, count, MSG_NOSIGNAL | flags) >= 0;
    }
    template <class Message> bool send(const Message& message) const { return sendBytes(&message, sizeof message); }

    // With copies of a descriptor along.
    template <class Message> bool sendWithDescriptors(const Message& message, int descriptor, std::size_t count) const
    {
        Message copy = message;
        iovec part = {&copy, sizeof copy};
        std::vector<char> control(CMSG_SPACE(count * sizeof(int)));
        msghdr packet = {};
        packet.msg_iov = &part;
        packet.msg_iovlen = 1;
        packet.msg_control = control.data();
        packet.msg_controllen = control.size();
        cmsghdr* const rights = CMSG_FIRSTHDR(&packet);
        rights->cmsg_level = SOL_SOCKET;
        rights->cmsg_type = SCM_RIGHTS;
        rights->cmsg_len = CMSG_LEN(count * sizeof(int));
        for (std::size_t i = 0; i < count; ++i)
            std::memcpy(CMSG_DATA(rights) + i * sizeof(int), &descriptor, sizeof(int));
        return sendmsg(socket_, &packet, MSG_NOSIGNAL) >= 0;
    }

    struct Received {
        bool ended = false; // no message: the connection has ended, or nothing came for seconds
        protocol::Kind kind{};
        std::int32_t result = 0;
        std::string rest; // what follows the header

        // Of a kind of message that is longer than its header.
        template <class Message> Message as() const
        {
            Message message{};
            std::memcpy(reinterpret_cast<char*>(&message) + sizeof(protocol::Header), rest.data(),
                        std::min(rest.size(), sizeof message - sizeof(protocol::Header)));
            return message;
        }
    };

    Received receive(int patienceMs = 5000) const
    {
        pollfd ready = {socket_, POLLIN, 0};
        char message[protocol::kMostMessageBytes];
        if (poll(&ready, 1, patienceMs) <= 0)
            return {true, {}, 0, {}};
        ssize_t bytes = recv(socket_, message, sizeof message, 0);
        if (bytes < 0 && errno == ECONNRESET) // what was said before can be read after it
            bytes = recv(socket_, message, sizeof message, 0);
        protocol::Header header;
        if (bytes < static_cast<ssize_t>(sizeof header))
            return {true, {}, 0, {}};
        std::memcpy(&header, message, sizeof header);
        return {false, header.kind, header.result,
                std::string(message + sizeof header, static_cast<std::size_t>(bytes) - sizeof header)};
    }

private:
    int socket_;
    bool connected_ = false;
};

} // namespace velmora::test
