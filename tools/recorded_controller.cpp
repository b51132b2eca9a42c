#include "recorded.hpp"

#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

#include "lib/socket_client.hpp"
#include "lib/socket_protocol.hpp"
#include "recording.hpp"
#include "socket_address.hpp"

namespace velmora::tools {

namespace {

constexpr std::uint32_t kScriptRam = 256U << 20;

class RecordedController : public Recorded
{
public:
    explicit RecordedController(const std::string& socket) : socket_(socket) {}

    std::string name() const override { return "unix:" + socket_; }

    std::string beginning() const override
    {
        const protocol::StatusAnswer status = this->status();
        std::string text = RecordingWriter::beginning(status.areaStart, status.areaEnd);
        if (status.ramBytes != kScriptRam)
            text += "# The controller had " + std::to_string(status.ramBytes >> 10) + " KiB of RAM, a script's has " +
                    std::to_string(kScriptRam >> 10) + ".\n";
        return text;
    }

    int connect() override
    {
        const int controller = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        const sockaddr_un address = addressOf(socket_);
        if (controller >= 0 && ::connect(controller, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
            return controller;
        if (controller >= 0)
            close(controller);
        return -1;
    }

private:
    protocol::StatusAnswer status() const
    {
        socket_client::Connection connection;
        protocol::Status request{};
        request.header.kind = protocol::Kind::Status;
        protocol::StatusAnswer answer{};
        if (socket_client::connectTo(connection, socket_.c_str()) != 0 ||
            socket_client::transact(connection, &request, sizeof request, &answer, sizeof answer) < 0)
            throw std::runtime_error(connection.report);
        socket_client::disconnect(connection);
        return answer;
    }

    std::string socket_;
};

} // namespace

std::unique_ptr<Recorded> recordedController(const std::string& socket)
{
    return std::make_unique<RecordedController>(socket);
}

} // namespace velmora::tools
