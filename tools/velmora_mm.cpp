// velmora-mm: the command-line tool.
#include <cstring>
#include <fstream>
#include <iostream>
#include <string_view>

#include "../host/session.h"
#include "area.h"

namespace {

constexpr std::string_view kHelp =
    R"(velmora-mm - tools for the memory manager of the printer controller

usage: velmora-mm script [FILE]
       velmora-mm area OPTIONS
       velmora-mm help [area] | --help | -h

script   Runs a session script (FILE, or standard input) against the whole manager on a simulated
         controller: 256 MiB of RAM at 0x94000000, 64 KiB of user memory at 0x10000000. One answer
         a command, written at once: the kernel-log messages as 'log "..."' lines, then one line
         that begins with '='. docs/session-format.md describes commands, answers and state dump.

area     Works out the module parameter "bigphysarea" for a reserved stretch of physical memory, or
         checks a given text. 'velmora-mm help area' lists the options.

exit status of script
   0  every line was understood, whatever the answers were
   1  the file cannot be read
   2  a line was not understood: '! line N: why' names the first
   3  a command hung ('= hang') or touched memory that does not exist ('= oops 0xADDR')

example
   printf 'load "95000000-9e000000"\nioctl 0x5308 {00000000}\ndump\n' | velmora-mm script
)";

int usage(const std::string& problem)
{
    std::cerr << "velmora-mm: " << problem << "\nTry 'velmora-mm --help'.\n";
    return 2;
}

int script(int count, char** arguments)
{
    if (count > 1)
        return usage("script takes one file at most");
    if (count == 0)
        return static_cast<int>(velmora::sim::runSession(std::cin, std::cout));
    std::ifstream file(arguments[0]);
    if (!file) {
        std::cerr << "velmora-mm: cannot read '" << arguments[0] << "': " << std::strerror(errno) << "\n";
        return 1;
    }
    return static_cast<int>(velmora::sim::runSession(file, std::cout));
}

} // namespace

int main(int count, char** arguments)
{
    if (count < 2)
        return usage("a command is missing");
    const std::string_view command = arguments[1];
    if (command == "help" || command == "--help" || command == "-h") {
        const bool aboutArea = count > 2 && std::string_view(arguments[2]) == "area";
        std::cout << (aboutArea ? velmora::tools::areaHelp : kHelp);
        return 0;
    }
    if (command == "area")
        return velmora::tools::area({arguments + 2, arguments + count}, std::cout, std::cerr);
    if (command == "script")
        return script(count - 2, arguments + 2);
    return usage("unknown command '" + std::string(command) + "'");
}
