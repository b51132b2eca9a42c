// velmora-mm: the manager's command-line tool. Finds the command that is meant; the rest is the command's.
#include <algorithm>

#include "command_line.hpp"
#include "commands.hpp"

namespace {

using namespace velmora::tools;

const Command* commandNamed(std::string_view name)
{
    const auto found = std::ranges::find(commands(), name, &Command::name);
    return found == commands().end() ? nullptr : &*found;
}

// The overview, for those who name no command, ask for help, or are mistaken.
int overview(const Words& words, std::ostream& out, std::ostream& errors)
{
    CLI::App app("velmora-mm - tools for the memory manager of the printer controller\n", "velmora-mm");
    prepare(app);
    app.set_version_flag("--version", "velmora-mm " VELMORA_MM_VERSION, "the version");
    for (const Command& command : commands())
        app.add_subcommand(std::string(command.name), std::string(command.summary));
    std::string topic;
    CLI::App* const help = app.add_subcommand("help", "this text, or that of a command");
    help->add_option("COMMAND", topic, "a command; default: an overview")->type_name("");
    app.require_subcommand(0, 1);
    const std::string text = app.help(); // once a command is parsed, the application's help is that command's

    return runWords(app, words, out, errors, [&] {
        if (!help->parsed())
            throw UsageError("a command is missing");
        if (topic.empty()) {
            out << text;
            return kDone;
        }
        const Command* const command = commandNamed(topic);
        if (command == nullptr)
            throw UsageError("there is no help on '" + topic + "': it is no command");
        return command->run({"--help"}, out, errors);
    });
}

} // namespace

int main(int count, char** arguments)
{
    const Words words(arguments + 1, arguments + count);
    return runMain("velmora-mm", [&] {
        const Command* const command = words.empty() ? nullptr : commandNamed(words.front());
        return command == nullptr ? overview(words, std::cout, std::cerr)
                                  : command->run({words.begin() + 1, words.end()}, std::cout, std::cerr);
    });
}
