#include "commands.hpp"

#include <cstdio>
#include <fstream>
#include <optional>

#include "command_line.hpp"
#include "controller/session.h"

namespace velmora::tools {

namespace {

constexpr const char* kDescription = "velmora-mm script - runs a session script on a simulated controller\n";

constexpr const char* kNotes =
    R"(The whole manager answers, on a simulated controller: 256 MiB of RAM at 0x94000000, 64 KiB of user memory at
0x10000000. One answer a command, written at once: the kernel-log messages as 'log "..."' lines, then one line that
begins with '='. docs/session-format.md describes commands, answers and state dump.

exit status
  0  every line was understood, whatever the answers were
  1  the script cannot be read, or the answers cannot be written
  2  a line was not understood: '! line N: why' names the first
  3  a command hung ('= hang') or touched memory that does not exist ('= oops 0xADDR')

example
  printf 'load "95000000-9e000000"\nioctl 0x5308 {00000000}\ndump\n' | velmora-mm script
)";

[[noreturn]] void cannotRead(const std::string& name)
{
    throw std::runtime_error("cannot read " + name + ": " + std::strerror(errno));
}

// A script that cannot be read to its end has not been run, however well it began.
int runScript(const std::optional<std::string>& name, std::ostream& out)
{
    out.exceptions(std::ios::badbit); // answers that nobody gets end the session
    sim::SessionEnd end;
    if (!name) {
        end = sim::runSession(std::cin, out);
        if (std::ferror(stdin) != 0)
            cannotRead("standard input");
    } else {
        std::ifstream file(*name);
        if (!file)
            cannotRead("'" + *name + "'");
        end = sim::runSession(file, out);
        if (file.bad()) // a folder can be opened
            cannotRead("'" + *name + "'");
    }
    return static_cast<int>(end);
}

} // namespace

int script(const Words& words, std::ostream& out, std::ostream& errors)
{
    CLI::App app(kDescription, "velmora-mm script");
    prepare(app);
    app.footer(kNotes);
    std::optional<std::string> file;
    app.add_option("FILE", file, "the script; default: standard input")->type_name("");
    return runWords(app, words, out, errors, [&] { return runScript(file, out); });
}

} // namespace velmora::tools
