// The first process of the emulated controller: mounts what a system has, runs the lines of /etc/run one by
// one, says how that ended and switches off, or restarts where /etc/board says so.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <sstream>
#include <vector>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include "lib/argument_vector.hpp"

namespace {

int run(const std::string& line)
{
    const int process = fork();
    if (process == 0) {
        std::istringstream words(line);
        std::vector<std::string> arguments;
        for (std::string word; words >> word;)
            arguments.push_back(word);
        const std::vector<char*> pointers = velmora::argumentVector(arguments);
        execv(pointers[0], pointers.data());
        std::perror(pointers[0]);
        _exit(127);
    }
    int status = 0;
    while (waitpid(process, &status, 0) != process) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Where the kernel does not fill /dev itself.
void makeNodes()
{
    mknod("/dev/null", S_IFCHR | 0666, makedev(1, 3));
    mknod("/dev/kmsg", S_IFCHR | 0600, makedev(1, 11));
}

bool endsWithRestart()
{
    std::ifstream board("/etc/board");
    for (std::string line; std::getline(board, line);)
        if (line == "AT_END=restart")
            return true;
    return false;
}

} // namespace

int main()
{
    for (const char* folder : {"/proc", "/sys", "/dev", "/tmp"})
        mkdir(folder, 0755);
    mount("proc", "/proc", "proc", 0, nullptr);
    mount("sysfs", "/sys", "sysfs", 0, nullptr);
    mount("devtmpfs", "/dev", "devtmpfs", 0, nullptr);
    mount("tmpfs", "/tmp", "tmpfs", 0, nullptr);
    makeNodes();

    setenv("PATH", "/bin", 1);

    int failed = 0;
    std::ifstream lines("/etc/run");
    for (std::string line; std::getline(lines, line);) {
        if (line.empty())
            continue;
        const int status = run(line);
        if (status != 0) {
            std::printf("FAIL '%s' ended with %d\n", line.c_str(), status);
            failed = 1;
        }
        std::fflush(stdout);
    }
    std::printf("CONTROLLER %s\n", failed == 0 ? "finished" : "failed");
    std::fflush(stdout);
    sync();
    usleep(100000); // the last line is on its way through the serial port
    reboot(endsWithRestart() ? RB_AUTOBOOT : RB_POWER_OFF);
    return 1;
}
