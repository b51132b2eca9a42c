// Session scripts: one command a line, one answer a command. docs/session-format.md describes both.
#pragma once

#include <iosfwd>

namespace velmora::sim {

// Exit status of a session.
enum class SessionEnd {
    Understood = 0,    // every line was understood, whatever the answers were
    NotUnderstood = 2, // "! line N: why" was printed for the first line that was not
    Closed = 3         // a command hung or touched an address that does not exist
};

// Powers the machine on, runs the script and writes the answers, each as soon as it is known.
SessionEnd runSession(std::istream& script, std::ostream& answers);

} // namespace velmora::sim
