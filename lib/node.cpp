// The device reached through its node, a real kernel's; and which way to the device a name means.
#define _FILE_OFFSET_BITS 64 // the mapping offset is an address above 2 GiB

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <string_view>
#include <system_error>
#include <unistd.h>

#include <velmora/device.hpp>
#include "lib/socket_channel.hpp"

namespace velmora {

namespace {

class Descriptor
{
public:
    Descriptor(const std::string& path, int flags) : number_(open(path.c_str(), O_RDWR | O_CLOEXEC | flags))
    {
        if (number_ < 0)
            throw std::system_error(errno, std::generic_category(), "cannot open " + path);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { close(number_); }

    int number() const { return number_; }

private:
    int number_;
};

class NodeChannel : public Channel
{
public:
    explicit NodeChannel(const std::string& path) : path_(path), device_(path, 0) {}

    int command(std::uint32_t number, void* record, std::size_t) override
    {
        const int result = ioctl(device_.number(), number, record);
        return result < 0 ? -errno : result;
    }

    void* map(MM_TAddr address, std::size_t bytes, Caching caching) override
    {
        return caching == Caching::Cached ? mapThrough(device_, address, bytes)
                                          : mapThrough(Descriptor(path_, O_SYNC), address, bytes);
    }

    void unmap(void* start, std::size_t bytes) override { munmap(start, bytes); }

private:
    // O_SYNC on the descriptor makes a mapping uncached; the mapping outlives the descriptor.
    static void* mapThrough(const Descriptor& descriptor, MM_TAddr address, std::size_t bytes)
    {
        void* const start =
            mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor.number(), static_cast<off_t>(address));
        if (start == MAP_FAILED)
            throw Error("mmap", -errno);
        return start;
    }

    std::string path_;
    Descriptor device_;
};

} // namespace

std::string deviceName(const std::string& path)
{
    if (!path.empty())
        return path;
    const char* const chosen = secure_getenv("VELMORA_MM_DEVICE");
    return chosen != nullptr && *chosen != 0 ? chosen : VELMORA_MM_DEVICE_NODE;
}

std::optional<std::string> socketIn(const std::string& device)
{
    constexpr std::string_view socket = "unix:";
    return device.starts_with(socket) ? std::optional(device.substr(socket.size())) : std::nullopt;
}

std::unique_ptr<Channel> openNode(const std::string& path)
{
    const std::string device = deviceName(path);
    if (const auto socket = socketIn(device))
        return openSocket(*socket);
    return std::make_unique<NodeChannel>(device);
}

std::unique_ptr<Channel> openNode(const std::string& path, std::error_code& error) noexcept
try {
    error.clear();
    return openNode(path);
} catch (const std::system_error& refusal) {
    error = refusal.code();
    return nullptr;
} catch (...) {
    error = std::make_error_code(std::errc::not_enough_memory);
    return nullptr;
}

} // namespace velmora
