// A command of velmora-mm: what its table holds, and what every command keeps to.
//
// Exit statuses have one meaning in all commands that ask a device; run, script and area have further ones, which their
// help lists.
#pragma once

#include <iosfwd>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace velmora::tools {

using Words = std::vector<std::string>;

constexpr int kDone = 0;
constexpr int kFailed = 1;            // refused by the manager or the kernel, or something was found to be wrong
constexpr int kUnusableArguments = 2; // it could not be told what was asked for
constexpr int kNoDevice = 3;          // there is no device, or it went away

// Arguments that cannot be used, where the program itself has to find out. what() says what was expected.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Command {
    std::string_view name;    // the word that calls it
    std::string_view summary; // one line of the overview
    // Parses the words behind the name, --help among them, and does what they say. Returns the exit status; what went wrong
    // is one line on errors that begins with "velmora-mm NAME: ". Exceptions that are no command's business (no memory, an
    // output that cannot be written) pass.
    int (*run)(const Words& words, std::ostream& out, std::ostream& errors);
};

} // namespace velmora::tools
