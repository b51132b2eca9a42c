// The load script, the modprobe configuration and the event that the udev rule waits for.
#include <cstdlib>
#include <cstring>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "board.hpp"
#include "harness.hpp"

using namespace target;

namespace {

constexpr unsigned kGroup = 77; // of "velmora" in the test bed's /etc/group

int shell(const std::string& line)
{
    const int status = std::system(("PATH=/bin; export PATH; " + line).c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void checkNode(const char* path, unsigned mode, unsigned group)
{
    struct stat status = {};
    CHECK_EQUAL(stat(path, &status), 0);
    CHECK_EQUAL(status.st_mode, S_IFCHR | mode);
    CHECK_EQUAL(status.st_gid, group);
    CHECK_EQUAL(static_cast<unsigned>(status.st_rdev >> 8), *deviceMajor());
    const Descriptor device(0, path);
    CHECK_EQUAL(device.commandAt(0x53FF, 0), 0);
}

} // namespace

TARGET_TEST(load_script_loads_and_makes_the_node_for_the_group)
{
    needNoManager();
    unlink(VELMORA_MM_DEVICE_NODE);
    CHECK_EQUAL(shell(std::string("velmora-mm-load ") + board().areaText() + " " + kModuleFile), 0);
    checkNode(VELMORA_MM_DEVICE_NODE, 0660, kGroup);
    unlink(VELMORA_MM_DEVICE_NODE);
    CHECK_EQUAL(shell("velmora-mm-load --node"), 0);
    checkNode(VELMORA_MM_DEVICE_NODE, 0660, kGroup);
    CHECK_EQUAL(shell("velmora-mm-load --unload"), 0);
    CHECK(!moduleLoaded(kModuleName));
    CHECK(access(VELMORA_MM_DEVICE_NODE, F_OK) != 0);
}

TARGET_TEST(load_script_says_why_it_failed_and_leaves_no_node)
{
    needNoManager();
    unlink(VELMORA_MM_DEVICE_NODE);
    CHECK_EQUAL(shell("velmora-mm-load " + areaText(board().pageOffset, board().areaStart()) + " " + kModuleFile +
                      " 2>/tmp/why"),
                1);
    CHECK(readFile("/tmp/why").find("the module was refused") != std::string::npos);
    CHECK_EQUAL(shell("velmora-mm-load --node 2>/tmp/why"), 1);
    CHECK(readFile("/tmp/why").find("not in /proc/devices") != std::string::npos);
    CHECK_EQUAL(shell("velmora-mm-load --nonsense 2>/dev/null"), 1);
    CHECK(access(VELMORA_MM_DEVICE_NODE, F_OK) != 0);
}

TARGET_TEST(load_script_takes_the_area_from_the_modprobe_configuration)
{
    needNoManager();
    CHECK_EQUAL(shell("NODE=/dev/mm GROUP=nosuchgroup MODE=0600 velmora-mm-load"), 0);
    checkNode("/dev/mm", 0600, 0);
    unlink("/dev/mm");
}

TARGET_TEST(load_and_unload_send_the_events_of_the_udev_rule)
{
    needNoManager();
    const int events = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_groups = 1;
    CHECK_EQUAL(bind(events, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    needManager();
    CHECK_EQUAL(unloadModule(kModuleName), 0);
    std::vector<std::string> seen;
    pollfd ready = {events, POLLIN, 0};
    while (poll(&ready, 1, 1000) == 1) {
        char event[2048];
        const ssize_t got = recv(events, event, sizeof event - 1, 0);
        event[got < 0 ? 0 : got] = '\0';
        const std::string fields(event, static_cast<std::size_t>(got < 0 ? 0 : got));
        if (std::strcmp(event, "add@/module/velmora_mm") == 0 || std::strcmp(event, "remove@/module/velmora_mm") == 0) {
            CHECK(fields.find(std::string("SUBSYSTEM=module") + '\0') != std::string::npos);
            seen.push_back(event);
            if (seen.size() == 2)
                break;
        }
    }
    close(events);
    CHECK_EQUAL(seen, (std::vector<std::string>{"add@/module/velmora_mm", "remove@/module/velmora_mm"}));
}
