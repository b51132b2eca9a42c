// Runs session scripts: lines in bytes as controller/session.h has them, lines by name (session_lines.hpp), expectations; on the
// simulated controller in this process or on a device.
#pragma once

#include <iosfwd>
#include <memory>

#include <velmora/device.hpp>

#include "session_lines.hpp"
#include "controller/session.h"

namespace velmora::tools {

// Where the commands of a script go.
class Target
{
public:
    virtual ~Target() = default;

    // What a command was answered; or, where it was not, how the session ends.
    struct Outcome {
        sim::SessionReply reply; // its text only where closes is set
        Answer answer;
    };
    virtual Outcome run(const Request& request) = 0;
    // A line in bytes. Throws sim::SyntaxError where it is not understood, or is nothing for this target.
    virtual sim::SessionReply line(std::vector<sim::Word> words) = 0;
};

// The simulated controller, switched on.
std::unique_ptr<Target> simulatedTarget();
// A device, which throws what the client library throws. It shows no kernel messages, and has nothing that a program cannot do.
std::unique_ptr<Target> deviceTarget(Device& device);

struct ReplayEnd {
    sim::SessionEnd session = sim::SessionEnd::Understood;
    unsigned unmet = 0; // expectations
    bool cut = false;   // a recording that ends in the middle; what is there was run
};

// Runs the script and writes the answers, each as soon as it is known. An expectation that is not met is a line
// "! line N: expected A, got B"; the script goes on.
ReplayEnd replay(std::istream& script, std::ostream& answers, Target& target);

} // namespace velmora::tools
