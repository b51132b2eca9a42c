// What the programs' command lines have in common: --help and --version, how a mistake reads, and that output which
// cannot be written is an error.
//
//   Options options;
//   CLI::App app("does this and that", "program");
//   velmora::tools::prepare(app);
//   app.add_option("--copies", options.copies, "...");
//   return velmora::tools::runProgram(app, count, arguments, [&] { return work(options); });
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <functional>
#include <iostream>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "tools/command.hpp"

namespace velmora::tools {

// To be called before options and subcommands are added: they inherit the habits.
inline void prepare(CLI::App& app)
{
    app.set_help_flag("-h,--help", "this text");
    app.option_defaults()->take_last();
    app.get_formatter()->column_width(24);
    app.get_formatter()->label("Usage", "usage");
}

// What is wrong with a command line, in one line.
inline std::string mistakeIn(const CLI::App& app, const CLI::ParseError& error)
{
    std::string text = error.what();
    const std::vector<std::string> extras = app.remaining(true);
    if (const std::size_t missing = text.find(": 1 required "); missing != text.npos)
        return text.substr(0, missing) + " lacks its value";
    if (extras.empty())
        return text;
    if (extras.front().starts_with("-"))
        return "unknown option " + extras.front();
    const auto commands = app.get_subcommands([](const CLI::App*) { return true; });
    if (commands.empty() || !app.get_subcommands().empty())
        return "unexpected argument '" + extras.front() + "'";
    return "unknown command '" + extras.front() + "'";
}

// Parses the words of a command line, the program's name not among them, and runs the program. Exit status: what the
// program returns, 0 after --help or --version, kUnusableArguments or kFailed after a line on errors that says why.
inline int runWords(CLI::App& app, std::vector<std::string> words, std::ostream& out, std::ostream& errors,
                    const std::function<int()>& program)
{
    const auto unusable = [&](const std::string& why) {
        errors << app.get_name() << ": " << why << "\nTry '" << app.get_name() << " --help'.\n";
        return kUnusableArguments;
    };
    try {
        std::reverse(words.begin(), words.end()); // as the parser takes them
        app.parse(std::move(words));
        return program();
    } catch (const CLI::Success& request) {
        return app.exit(request, out, errors);
    } catch (const CLI::ParseError& error) {
        return unusable(mistakeIn(app, error));
    } catch (const UsageError& error) {
        return unusable(error.what());
    }
}

// The whole of main(). Whatever was to go to standard output and did not arrive there makes the exit status kFailed.
inline int runMain(const std::string& name, const std::function<int()>& program)
{
    int status = kFailed;
    try {
        status = program();
    } catch (const std::ios_base::failure&) { // an output that throws; looked at below
    } catch (const std::exception& error) {
        std::fflush(stdout);
        std::cerr << name << ": " << error.what() << "\n";
    }
    std::cout.exceptions(std::ios::goodbit);
    std::cout.flush();
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0 && std::cout)
        return status;
    std::cerr << name << ": cannot write the output: " << std::strerror(errno) << "\n";
    return kFailed;
}

// The same for a program without commands.
inline int runProgram(CLI::App& app, int count, char** arguments, const std::function<int()>& program)
{
    return runMain(app.get_name(), [&] {
        return runWords(app, {arguments + 1, arguments + count}, std::cout, std::cerr, program);
    });
}

} // namespace velmora::tools
