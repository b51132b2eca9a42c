// A packet that brings a file descriptor along.
#pragma once

#include <cstddef>
#include <cstring>

#include <sys/socket.h>
#include <sys/uio.h>

namespace velmora {

// sendmsg of one packet, with a copy of the descriptor unless that is below 0; what sendmsg returns, errno with it. Never
// raises SIGPIPE.
inline ssize_t sendWithDescriptor(int socket, void* packet, std::size_t bytes, int descriptor, int flags = 0)
{
    iovec part = {packet, bytes};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (descriptor >= 0) {
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        cmsghdr* const rights = CMSG_FIRSTHDR(&message);
        rights->cmsg_level = SOL_SOCKET;
        rights->cmsg_type = SCM_RIGHTS;
        rights->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(rights), &descriptor, sizeof descriptor);
    }
    return sendmsg(socket, &message, MSG_NOSIGNAL | flags);
}

} // namespace velmora
