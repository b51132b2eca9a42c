// velmora-mm run: programs that know only the device's node, on a simulated controller.
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace velmora::tools {

constexpr int kRunFailed = 125;     // exit status: there is no controller, or no record can be made
constexpr int kCannotRun = 126;     // the program is there and cannot be run
constexpr int kNotFound = 127;      // there is no such program
constexpr int kEndedBySignal = 128; // and the signal's number

// Runs the subcommand on the words after its name. Exit status: the program's, one of the above, or 2 for unusable arguments.
int run(const std::vector<std::string>& words, std::ostream& out, std::ostream& errors);

} // namespace velmora::tools
