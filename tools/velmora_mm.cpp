// velmora-mm: the manager's command-line tool.
#include <fstream>
#include <optional>

#include "controller/session.h"
#include "area.h"
#include "command_line.hpp"
#include "run.hpp"

namespace {

using velmora::tools::UsageError;

constexpr const char* kScriptHelp =
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
int script(const std::optional<std::string>& name)
{
    std::cout.exceptions(std::ios::badbit); // answers that nobody gets end the session
    velmora::sim::SessionEnd end;
    if (!name) {
        end = velmora::sim::runSession(std::cin, std::cout);
        if (std::ferror(stdin) != 0)
            cannotRead("standard input");
    } else {
        std::ifstream file(*name);
        if (!file)
            cannotRead("'" + *name + "'");
        end = velmora::sim::runSession(file, std::cout);
        if (file.bad()) // a folder can be opened
            cannotRead("'" + *name + "'");
    }
    return static_cast<int>(end);
}

int area(const std::vector<std::string>& words)
{
    return velmora::tools::area({words.begin(), words.end()}, std::cout, std::cerr);
}

} // namespace

int main(int count, char** arguments)
{
    CLI::App app("velmora-mm - tools for the memory manager of the printer controller\n", "velmora-mm");
    velmora::tools::prepare(app);
    app.set_version_flag("--version", "velmora-mm " VELMORA_MM_VERSION, "the version");
    app.require_subcommand(0, 1);

    std::optional<std::string> scriptFile;
    CLI::App* const scriptCommand = app.add_subcommand("script", "runs a session script on a simulated controller");
    scriptCommand->add_option("FILE", scriptFile, "the script; default: standard input")->type_name("");
    scriptCommand->footer(kScriptHelp);

    // Has options of its own, --help among them.
    CLI::App* const areaCommand =
        app.add_subcommand("area", "the module parameter \"bigphysarea\" for a reserved stretch of physical memory");
    areaCommand->set_help_flag();
    areaCommand->prefix_command();

    CLI::App* const runCommand =
        app.add_subcommand("run", "runs a program that knows only /dev/Velmora_MM on a simulated controller");
    runCommand->set_help_flag();

    std::string topic;
    CLI::App* const helpCommand = app.add_subcommand("help", "this text, or that of a command");
    helpCommand->add_option("COMMAND", topic, "script, area or run; default: an overview")->type_name("");

    // The words after "run" are that command's, "--" among them.
    const int words = count > 1 && arguments[1] == runCommand->get_name() ? 2 : count;
    const std::string overview = app.help(); // once a command is parsed, the application's help is that command's
    return velmora::tools::runProgram(app, words, arguments, [&] {
        if (scriptCommand->parsed())
            return script(scriptFile);
        if (areaCommand->parsed())
            return area(areaCommand->remaining());
        if (runCommand->parsed())
            return velmora::tools::run({arguments + 2, arguments + count}, std::cout, std::cerr);
        if (!helpCommand->parsed())
            throw UsageError("a command is missing: script, area, run or help");
        if (topic == "area")
            return area({"--help"});
        if (topic == "run")
            return velmora::tools::run({"--help"}, std::cout, std::cerr);
        if (!topic.empty() && topic != "script")
            throw UsageError("there is no help on '" + topic + "', only on script, area and run");
        std::cout << (topic.empty() ? overview : scriptCommand->help(app.get_name()));
        return 0;
    });
}
