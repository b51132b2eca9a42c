// Session scripts: one command a line, one answer a command. docs/session-format.md describes both.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "controller/session_text.h"

namespace velmora::sim {

// Exit status of a session.
enum class SessionEnd {
    Understood = 0,    // every line was understood, whatever the answers were
    NotUnderstood = 2, // "! line N: why" was printed for the first line that was not
    Closed = 3         // a command hung or touched an address that does not exist
};

// What one line is answered.
struct SessionReply {
    std::vector<std::string> log; // kernel messages, as they were printed
    std::string text;             // the line that begins with "=", a dump's lines before it
    bool closes = false;          // the session: no line can be run after this one
};

// Runs one line on the machine, which was powered on before. Throws SyntaxError when it is not understood.
SessionReply runSessionLine(std::vector<Word> words);

// Writes it as the session's answer, at once.
void writeReply(std::ostream& out, const SessionReply& reply);

// Powers the machine on, runs the script and writes the answers, each as soon as it is known.
SessionEnd runSession(std::istream& script, std::ostream& answers);

} // namespace velmora::sim
