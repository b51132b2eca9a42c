#define _FILE_OFFSET_BITS 64

#include "lib/socket_channel.hpp"

#include <cerrno>
#include <limits>
#include <mutex>
#include <sys/mman.h>
#include <system_error>
#include <unistd.h>

#include "lib/socket_client.hpp"

namespace velmora {

namespace {

constexpr unsigned kPageShift = 12;

class SocketChannel : public Channel
{
public:
    explicit SocketChannel(const std::string& path)
    {
        int result = socket_client::connectTo(connection_, path.c_str());
        if (result == 0)
            result = socket_client::openDevice(connection_, false);
        if (result == 0)
            return;
        const std::string why = connection_.report[0] != 0 ? connection_.report : "cannot open the device of " + path;
        socket_client::disconnect(connection_);
        throw std::system_error(-result, std::generic_category(), why);
    }
    SocketChannel(const SocketChannel&) = delete;
    SocketChannel& operator=(const SocketChannel&) = delete;
    ~SocketChannel() override { socket_client::disconnect(connection_); }

    int command(std::uint32_t number, void* record, std::size_t bytes) override
    {
        const std::lock_guard guard(oneAtATime_);
        socket_client::Call call;
        call.number = number;
        call.user = record;
        call.bytes = call.writable = bytes;
        const int result = socket_client::command(connection_, call);
        requireConnection();
        return result;
    }

    void* map(MM_TAddr address, std::size_t bytes, Caching caching) override
    {
        if (bytes > std::numeric_limits<std::uint32_t>::max())
            throw Error("mmap", -ENOMEM); // larger than the controller's address space
        socket_client::Grant grant;
        {
            const std::lock_guard guard(oneAtATime_);
            const int result = socket_client::map(connection_, address >> kPageShift, static_cast<std::uint32_t>(bytes),
                                                  caching == Caching::Uncached, grant);
            requireConnection();
            if (result != 0)
                throw Error("mmap", result);
        }
        void* const start = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, grant.descriptor,
                                 static_cast<off_t>(grant.offset));
        const int error = errno;
        close(grant.descriptor);
        if (start == MAP_FAILED)
            throw Error("mmap", -error);
        return start;
    }

    void unmap(void* start, std::size_t bytes) override { munmap(start, bytes); }

private:
    void requireConnection() const
    {
        if (connection_.descriptor < 0)
            throw ConnectionError(socket_client::kNoAnswer, connection_.report);
    }

    std::mutex oneAtATime_;
    socket_client::Connection connection_;
};

} // namespace

std::string socketOrDefault(const std::string& path)
{
    if (!path.empty())
        return path;
    char standard[128];
    if (!socket_client::defaultSocket(standard, sizeof standard))
        throw std::system_error(ENAMETOOLONG, std::generic_category(), "the name of the default socket is too long");
    return standard;
}

std::unique_ptr<Channel> openSocket(const std::string& path)
{
    return std::make_unique<SocketChannel>(socketOrDefault(path));
}

} // namespace velmora
