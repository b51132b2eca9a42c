#include "commands.hpp"

#include <algorithm>
#include <optional>

#include <nlohmann/json.hpp>

#include "command_line.hpp"
#include "device_command.hpp"
#include "kernel_log.hpp"
#include "log_line.hpp"
#include "messages.hpp"
#include "units.hpp"
#include "whole_file.hpp"

namespace velmora::tools {

namespace {

constexpr const char* kDescription =
    R"(velmora-mm explain - what the manager's messages in a kernel log mean

Finds the manager's messages in a log and says for each what it means, what state it leaves and what to do: each message
once, with the first line of it and how many there are, in the order of the log. Takes a single line as well as a whole log
of dmesg, the journal or syslog, with timestamps, priorities and senders' names; the output of velmora-controller --log; and
the answers of a session script. Lines of other programs are passed over.
)";

constexpr const char* kNotes =
    R"(docs/messages.md has all messages.

exit status
  0  at least one message was explained
  1  there is none of the manager's in the log, or the log cannot be read
  2  unusable arguments
  3  there is no such device, or its log cannot be read

examples
  dmesg | velmora-mm explain
  journalctl -k | velmora-mm explain --all
  velmora-mm explain --json /var/log/kern.log
  velmora-mm explain --device unix:/tmp/mm.sock
)";

constexpr std::size_t kWidth = 80;

using Row = std::vector<MessageValue>;

// A message each time that it stands in the log; a table's lines are one.
struct Occurrence {
    const MessageEntry* entry;
    std::size_t line; // of the log, from 1
    std::size_t lastLine;
    std::string text;
    Row values;
    std::vector<Row> rows;
    std::size_t count = 1;
};

struct Line {
    std::size_t number;
    std::string text;
};

struct Findings {
    std::vector<Occurrence> occurrences;
    std::vector<Line> unknown; // failed checks of the manager that this version does not know
    std::size_t lines = 0;
};

// Reads a log line by line.
class LogReader
{
public:
    Findings read(const std::string& log)
    {
        for (std::size_t at = 0; at < log.size();) {
            const std::size_t end = std::min(log.find('\n', at), log.size());
            ++findings_.lines;
            for (const std::string& text : messagesIn(std::string_view(log).substr(at, end - at)))
                take(text);
            at = end + 1;
        }
        return std::move(findings_);
    }

private:
    void take(const std::string& text)
    {
        const std::vector<FoundMessage> found = MessageCatalogue::own().find(text);
        if (found.empty() && isFailedCheck(text))
            findings_.unknown.push_back({findings_.lines, text});
        for (const FoundMessage& message : found)
            add(message, text);
    }

    // Of whichever version: the names of the manager's functions begin so.
    static bool isFailedCheck(const std::string& text)
    {
        return text.starts_with("Assertion failed! ") && text.find(",line=") != text.npos &&
               (text.find(",MM_") != text.npos || text.find(",CM_") != text.npos);
    }

    void add(const FoundMessage& message, const std::string& text)
    {
        const bool goesOn = open_ && findings_.occurrences.back().entry == message.entry;
        switch (message.part) {
        case MessagePart::Beginning: return;
        case MessagePart::Frame: open_ = false; return; // a table's first one, before it is open, or its last
        case MessagePart::Text:
            open_ = false;
            findings_.occurrences.push_back(
                {message.entry, findings_.lines, findings_.lines, text, message.values, {}});
            return;
        case MessagePart::Heading:
        case MessagePart::Row: break;
        }
        if (!goesOn || (message.part == MessagePart::Heading && !findings_.occurrences.back().rows.empty()))
            findings_.occurrences.push_back({message.entry, findings_.lines, findings_.lines, text, {}, {}});
        if (message.part == MessagePart::Row)
            findings_.occurrences.back().rows.push_back(message.values);
        findings_.occurrences.back().lastLine = findings_.lines;
        open_ = true;
    }

    Findings findings_;
    bool open_ = false; // the last occurrence is a table whose lines may go on
};

// Each message once, in the order of the first.
std::vector<Occurrence> summary(const std::vector<Occurrence>& occurrences)
{
    std::vector<Occurrence> result;
    for (const Occurrence& occurrence : occurrences) {
        const auto before = std::ranges::find(result, occurrence.entry, &Occurrence::entry);
        if (before == result.end())
            result.push_back(occurrence);
        else
            ++before->count;
    }
    return result;
}

std::uint32_t numberOf(const MessageValue& value)
{
    return static_cast<std::uint32_t>(std::stoll(value.text, nullptr, value.hexadecimal ? 16 : 10));
}

bool isAddress(const MessageValue& value)
{
    return value.hexadecimal && (value.name.ends_with("start") || value.name.ends_with("end") ||
                                 value.name == "address" || value.name == "page offset");
}

bool isWord(const MessageValue& value)
{
    return value.name == "name" || value.name == "command";
}

std::string shown(const MessageValue& value)
{
    if (isWord(value))
        return value.text;
    return isAddress(value) ? addressText(numberOf(value)) : std::to_string(static_cast<std::int32_t>(numberOf(value)));
}

std::optional<std::uint32_t> numberNamed(const Row& row, const std::string& name)
{
    const auto found = std::ranges::find(row, name, &MessageValue::name);
    return found == row.end() ? std::nullopt : std::optional(numberOf(*found));
}

bool addsUp(const Row& row)
{
    const auto all = numberNamed(row, "blocks"), allocated = numberNamed(row, "allocated"),
               free = numberNamed(row, "free");
    return !all || !allocated || !free || *allocated + *free == *all;
}

std::string rowText(const Row& row)
{
    std::string text;
    for (const MessageValue& value : row)
        text += (text.empty() ? "" : ", ") + value.name + " " + shown(value);
    return text + (addsUp(row) ? "" : ": free and allocated are not the blocks");
}

// A text in lines of up to kWidth characters, the first behind `mark`, the others as far in.
void printWrapped(std::ostream& out, const std::string& mark, const std::string& text)
{
    std::string line = mark;
    bool begun = false;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find(' ', at), text.size());
        const std::string_view word = std::string_view(text).substr(at, end - at);
        if (begun && line.size() + 1 + word.size() > kWidth) {
            out << line << "\n";
            line.assign(mark.size(), ' ');
            begun = false;
        }
        line.append(begun ? " " : "").append(word);
        begun = true;
        at = end + 1;
    }
    out << line << "\n";
}

void printRows(std::ostream& out, const Occurrence& occurrence)
{
    for (const Row& row : occurrence.rows)
        printWrapped(out, "  - ", rowText(row));
}

// Where it stands, and as what; a table's rows come below.
std::string placeText(const Occurrence& occurrence)
{
    const std::string line = std::to_string(occurrence.line);
    if (occurrence.entry->table)
        return "lines " + line + " to " + std::to_string(occurrence.lastLine);
    return "line " + line + ": " + occurrence.text;
}

void printExplanation(std::ostream& out, const Occurrence& occurrence)
{
    const MessageEntry& entry = *occurrence.entry;
    printRows(out, occurrence);
    printWrapped(out, "  from   ", entry.from);
    printWrapped(out, "  means  ", entry.means);
    printWrapped(out, "  state  ", entry.state);
    printWrapped(out, "  do     ", entry.action);
}

void printSummary(std::ostream& out, const Findings& findings)
{
    for (const Occurrence& occurrence : summary(findings.occurrences)) {
        out << occurrence.entry->title << "\n  ";
        if (occurrence.count > 1)
            out << occurrence.count << " times, first in ";
        out << placeText(occurrence) << "\n";
        printExplanation(out, occurrence);
        out << "\n";
    }
}

// Every line; what it means where it comes first.
void printAll(std::ostream& out, const Findings& findings)
{
    std::vector<const Occurrence*> explained;
    for (const Occurrence& occurrence : findings.occurrences) {
        const auto before = std::ranges::find(explained, occurrence.entry, &Occurrence::entry);
        out << placeText(occurrence) << "\n  " << occurrence.entry->title;
        if (before != explained.end()) {
            out << ", see line " << (*before)->line << "\n";
            printRows(out, occurrence);
        } else {
            out << "\n";
            printExplanation(out, occurrence);
            explained.push_back(&occurrence);
        }
        out << "\n";
    }
}

void printUnknown(std::ostream& out, const Findings& findings)
{
    if (findings.unknown.empty())
        return;
    out << "Failed checks that this version does not know:\n";
    for (const Line& line : findings.unknown)
        out << "  line " << line.number << ": " << line.text << "\n";
}

// A list, since each message has values of its own.
Json jsonOf(const Row& row)
{
    Json values = Json::array();
    for (const MessageValue& value : row)
        values.push_back(
            {{"name", value.name},
             {"value", isWord(value) || isAddress(value) ? Json(shown(value))
                                                         : Json(static_cast<std::int32_t>(numberOf(value)))}});
    return values;
}

void printJson(std::ostream& out, const Findings& findings, bool all)
{
    Json json = listing("explain", 1);
    json["lines"] = findings.lines;
    json["messages"] = Json::array();
    for (const Occurrence& occurrence : all ? findings.occurrences : summary(findings.occurrences)) {
        const MessageEntry& entry = *occurrence.entry;
        Json message = {{"title", entry.title},    {"count", occurrence.count}, {"line", occurrence.line},
                        {"text", occurrence.text}, {"from", entry.from},        {"means", entry.means},
                        {"state", entry.state},    {"do", entry.action}};
        message["values"] = jsonOf(occurrence.values);
        message["rows"] = Json::array();
        for (const Row& row : occurrence.rows)
            message["rows"].push_back({{"values", jsonOf(row)}});
        json["messages"].push_back(std::move(message));
    }
    json["unknown"] = Json::array();
    for (const Line& line : findings.unknown)
        json["unknown"].push_back({{"line", line.number}, {"text", line.text}});
    printListing(out, json);
}

struct Request {
    std::string file, device; // one of them, or neither: standard input
    bool all = false, json = false;

    std::string name() const
    {
        if (!device.empty())
            return "the kernel log of " + device;
        return file.empty() || file == "-" ? "standard input" : file;
    }
};

std::string logOf(const std::string& device)
{
    std::string log;
    for (const std::string& message : KernelLog(device).take())
        log += message + "\n";
    return log;
}

int explainLog(const Request& request, const std::string& log, std::ostream& out, std::ostream& errors)
{
    const Findings findings = LogReader().read(log);
    if (request.json) {
        printJson(out, findings, request.all);
    } else {
        (request.all ? printAll : printSummary)(out, findings);
        printUnknown(out, findings);
    }
    if (!findings.occurrences.empty())
        return kDone;
    errors << "velmora-mm explain: none of the manager's messages is in " << request.name() << " ("
           << counted(findings.lines, "line") << ")\n";
    return kFailed;
}

} // namespace

int explain(const Words& words, std::ostream& out, std::ostream& errors)
{
    Request request;
    CLI::App app(kDescription, "velmora-mm explain");
    prepare(app);
    app.footer(kNotes);
    app.add_option("FILE", request.file, "a log, or - for standard input, which is what is read without FILE")
        ->type_name("");
    app.add_option("--device", request.device,
                   "explains the kernel log of a device instead: a node's path, or unix:SOCKET of a controller")
        ->type_name("PATH");
    app.add_flag("--all", request.all, "each line of the manager's, not each message once");
    app.add_flag("--json", request.json, "print it for programs; docs/json.md describes the fields");

    return runWords(app, words, out, errors, [&] {
        if (!request.file.empty() && !request.device.empty())
            throw UsageError("either a log or --device, not both");
        const auto sentence = [&](const std::exception& error, int status) {
            errors << "velmora-mm explain: " << error.what() << "\n";
            return status;
        };
        std::string log;
        try {
            log = request.device.empty() ? readWholeFile(request.file.empty() ? "-" : request.file)
                                         : logOf(request.device);
        } catch (const std::runtime_error& error) {
            return sentence(error, request.device.empty() ? kFailed : kNoDevice);
        }
        return explainLog(request, log, out, errors);
    });
}

} // namespace velmora::tools
