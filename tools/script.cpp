#include "commands.hpp"

#include <cstdio>
#include <fstream>
#include <optional>
#include <system_error>

#include "command_line.hpp"
#include "replay.hpp"

namespace velmora::tools {

namespace {

constexpr const char* kDescription = "velmora-mm script - runs a session script, or replays a recording\n";

constexpr const char* kNotes =
    R"(Without --device the whole manager answers on a simulated controller: 256 MiB of RAM at 0x94000000, 64 KiB of user
memory at 0x10000000. One answer a command, written at once: the kernel-log messages as 'log "..."' lines, then one line
that begins with '='. 'expect' compares the answer before it: '= met', or '! line N: expected A, got B'.
docs/session-format.md describes commands, answers and state dump.

On a device the lines by name are run, and ioctl with a whole record; what only a simulated controller can do (call, peek,
dump, ...) is not understood there, and kernel messages are not shown.

exit status
  0  every line was understood, whatever the answers were, and every expectation was met
  1  an expectation was not met; a recording ends in the middle; the script cannot be read, or the answers not written
  2  a line was not understood: '! line N: why' names the first
  3  a command hung ('= hang') or touched memory that does not exist ('= oops 0xADDR'); there is no such device, or it
     went away

examples
  printf 'load "95000000-9e000000"\ntable\nstart\ndump\n' | velmora-mm script
  velmora-mm script --device unix:/tmp/mm.sock recording.txt
)";

[[noreturn]] void cannotRead(const std::string& name)
{
    throw std::runtime_error("cannot read " + name + ": " + std::strerror(errno));
}

// A script that cannot be read to its end has not been run, however well it began.
ReplayEnd runScript(const std::optional<std::string>& name, std::ostream& out, Target& target)
{
    out.exceptions(std::ios::badbit); // answers that nobody gets end the session
    if (!name) {
        const ReplayEnd end = replay(std::cin, out, target);
        if (std::ferror(stdin) != 0)
            cannotRead("standard input");
        return end;
    }
    std::ifstream file(*name);
    if (!file)
        cannotRead("'" + *name + "'");
    const ReplayEnd end = replay(file, out, target);
    if (file.bad()) // a folder can be opened
        cannotRead("'" + *name + "'");
    return end;
}

int statusOf(const ReplayEnd& end, std::ostream& errors)
{
    if (end.unmet != 0)
        errors << "velmora-mm script: " << end.unmet << (end.unmet == 1 ? " expectation was" : " expectations were")
               << " not met\n";
    if (end.session == sim::SessionEnd::Understood && (end.unmet != 0 || end.cut))
        return kFailed;
    return static_cast<int>(end.session);
}

int runOn(const std::string& deviceName, const std::optional<std::string>& file, std::ostream& out,
          std::ostream& errors)
{
    try {
        Device device(openNode(deviceName));
        return statusOf(runScript(file, out, *deviceTarget(device)), errors);
    } catch (const std::system_error& error) { // that it is not there
        errors << "velmora-mm script: " << error.what() << "\n";
    } catch (const ConnectionError& error) { // that it went away
        errors << "velmora-mm script: " << error.what() << "\n";
    }
    return kNoDevice;
}

} // namespace

int script(const Words& words, std::ostream& out, std::ostream& errors)
{
    CLI::App app(kDescription, "velmora-mm script");
    prepare(app);
    app.footer(kNotes);
    std::optional<std::string> file;
    app.add_option("FILE", file, "the script; default: standard input")->type_name("");
    std::optional<std::string> device;
    app.add_option("--device", device, "a device that answers: a node's path, or unix:SOCKET of a controller")
        ->type_name("PATH");
    return runWords(app, words, out, errors, [&] {
        return device ? runOn(*device, file, out, errors) : statusOf(runScript(file, out, *simulatedTarget()), errors);
    });
}

} // namespace velmora::tools
