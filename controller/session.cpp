#include "controller/session.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <functional>
#include <istream>
#include <map>
#include <ostream>

#include "kernel/mm/mm/MM_RunIndex.h"
#include "kernel/mm/mmi/MM_Interface.h"
#include "controller/call_table.h"
#include "host/machine.h"
#include "controller/device.h"
#include "controller/manager_state.h"
#include "controller/proc_file.h"
#include "controller/session_text.h"

namespace velmora::sim {

namespace {

constexpr U32 kMapStart = 0x20000000; // where the mapping requests of scripts begin

template <class... T> std::string format(const char* pattern, T... values)
{
    char text[128];
    std::snprintf(text, sizeof text, pattern, values...);
    return text;
}

// A command's answer line; a hang or an oops comes out as an exception-free value of its own.
struct Answer {
    std::string text;
    bool closes = false;
};

Answer say(std::string text)
{
    return {"= " + std::move(text), false};
}

// The arguments of one line, each looked at once; what is left over or missing is not understood.
class Arguments
{
public:
    explicit Arguments(std::vector<Word> words) : words_(std::move(words)) {}

    bool more() const { return next_ < words_.size(); }
    U32 number() { return parseNumber(take(Word::Kind::Plain, "a number").text); }
    std::string quoted() { return take(Word::Kind::Quoted, "a text in quotes").text; }
    std::string plain() { return take(Word::Kind::Plain, "a word").text; }
    std::vector<std::uint8_t> bytes() { return parseHex(take(Word::Kind::Plain, "bytes").text); }
    bool nextIsBraced() const { return more() && words_[next_].kind == Word::Kind::Braced; }
    std::vector<std::uint8_t> record() { return parseHex(take(Word::Kind::Braced, "a record").text); }

    U32 countAboveZero()
    {
        const U32 value = number();
        if (value == 0)
            throw SyntaxError("a length must be at least 1");
        return value;
    }

    void end() const
    {
        if (more())
            throw SyntaxError("'" + words_[next_].text + "' is more than the command takes");
    }

private:
    const Word& take(Word::Kind kind, const char* what)
    {
        if (!more())
            throw SyntaxError(std::string("the command takes ") + what + " more");
        if (words_[next_].kind != kind)
            throw SyntaxError("'" + words_[next_].text + "' should be " + what);
        return words_[next_++];
    }

    std::vector<Word> words_;
    std::size_t next_ = 0;
};

// Runs one entry of the manager and words its result, or the end of the session.
Answer runEntry(const std::function<U32()>& entry, const std::function<std::string(U32)>& wording)
{
    const Outcome outcome = machine().run(entry);
    switch (outcome.kind) {
    case Outcome::Kind::Hang:
    case Outcome::Kind::Endless: return {"= hang", true};
    case Outcome::Kind::Oops: return {format("= oops 0x%08x", static_cast<unsigned>(outcome.address)), true};
    case Outcome::Kind::Returned: break;
    }
    return say(wording(outcome.value));
}

std::string asSigned(U32 value)
{
    return std::to_string(static_cast<S32>(value));
}

Answer load(Arguments& arguments)
{
    const std::string text = arguments.quoted();
    arguments.end();
    std::memset(bigphysarea_info, 0, sizeof bigphysarea_info);
    text.copy(bigphysarea_info, sizeof bigphysarea_info - 1);
    return runEntry([] { return static_cast<U32>(printer_mm_init()); }, asSigned);
}

Answer unload(Arguments& arguments)
{
    arguments.end();
    return runEntry(
        [] {
            printer_mm_exit();
            return 0u;
        },
        asSigned);
}

Answer ioctlCommand(Arguments& arguments)
{
    const U32 command = arguments.number();
    std::vector<std::uint8_t> record;
    U32 address = kScratch;
    if (arguments.nextIsBraced())
        record = arguments.record();
    else
        address = arguments.number();
    arguments.end();
    if (record.size() > kScratchBytes)
        throw SyntaxError("a record is larger than the scratch memory");

    std::copy(record.begin(), record.end(), Machine::at(kScratch));
    return runEntry([=] { return static_cast<U32>(Velmora_MM_ioctl(command, address)); },
                    [&](U32 result) {
                        hideRoutineAddresses(Machine::at(kScratch), record.size());
                        const std::string back = toHex(Machine::at(kScratch), record.size());
                        return asSigned(result) + (record.empty() ? "" : " " + back);
                    });
}

Answer mapDevice(Arguments& arguments)
{
    MapTarget target;
    TMMMapRequest request{};
    request.ulPgOff = arguments.number() >> MMP_PAGE_SHIFT;
    request.ulStart = kMapStart;
    request.ulEnd = kMapStart + arguments.countAboveZero();
    if (arguments.more()) {
        if (arguments.plain() != "sync")
            throw SyntaxError("only 'sync' may follow the length");
        request.fSync = 1;
    }
    arguments.end();
    request.pvKernel = &target;
    return runEntry([&] { return static_cast<U32>(Velmora_MM_mmap(&request)); },
                    [&](U32 result) {
                        if (result != 0)
                            return asSigned(result);
                        return format("0 pfn=0x%x size=0x%x prot=%s", static_cast<unsigned>(target.pfn),
                                      static_cast<unsigned>(target.bytes),
                                      target.protection == MM_PROT_CACHED ? "cached" : "uncached");
                    });
}

Answer readDevice(Arguments& arguments)
{
    arguments.number();
    arguments.end();
    return runEntry([] { return static_cast<U32>(Velmora_MM_read()); }, asSigned);
}

Answer writeDevice(Arguments& arguments)
{
    arguments.number();
    arguments.end();
    return runEntry([] { return static_cast<U32>(Velmora_MM_write()); }, asSigned);
}

Answer readProc(Arguments& arguments)
{
    const U32 offset = arguments.number();
    const U32 count = arguments.number();
    arguments.end();
    std::string content;
    return runEntry(
        [&] {
            content = readProcFile(offset, count);
            return static_cast<U32>(content.size());
        },
        [&](U32 result) { return asSigned(result) + " \"" + escaped(content) + "\""; });
}

Answer callFunction(Arguments& arguments)
{
    const std::string name = arguments.plain();
    const CallableFunction* const function = findFunction(name);
    if (function == nullptr)
        throw SyntaxError("the manager has no function '" + name + "'");
    std::vector<U32> words;
    while (arguments.more())
        words.push_back(arguments.number());
    if (words.size() != function->arguments)
        throw SyntaxError(name + " takes " + std::to_string(function->arguments) + " arguments");

    // A function may write results through its arguments, wherever they point: the lists are looked through.
    return runEntry(
        [&] {
            const U32 result = function->invoke(words.data());
            MM_RecheckRunIndexes();
            return result;
        },
        [&](U32 result) -> std::string {
            for (const U32 word : words) // a segment table entry, if the function took one
                if (Machine::exists(word, sizeof(TMMSegInfoWire)))
                    hideRoutineAddresses(Machine::at(word), sizeof(TMMSegInfoWire));
            if (function->returnsNothing)
                return "void";
            return format("0x%08x", static_cast<unsigned>(isManagerTable(result) ? 1 : result));
        });
}

Answer peek(Arguments& arguments)
{
    const U32 address = arguments.number();
    const U32 bytes = arguments.countAboveZero();
    arguments.end();
    return say(Machine::exists(address, bytes) ? toHex(Machine::at(address), bytes) : "fault");
}

Answer poke(Arguments& arguments)
{
    const U32 address = arguments.number();
    const std::vector<std::uint8_t> bytes = arguments.bytes();
    arguments.end();
    if (!Machine::exists(address, bytes.size()))
        return say("fault");
    std::copy(bytes.begin(), bytes.end(), Machine::at(address));
    MM_MemoryWritten(address, bytes.size());
    return say("0");
}

Answer fill(Arguments& arguments)
{
    const U32 address = arguments.number();
    const U32 bytes = arguments.countAboveZero();
    const U32 value = arguments.number();
    arguments.end();
    if (value > 0xFF)
        throw SyntaxError("a byte is at most 255");
    if (!Machine::exists(address, bytes))
        return say("fault");
    std::memset(Machine::at(address), static_cast<int>(value), bytes);
    MM_MemoryWritten(address, bytes);
    return say("0");
}

Answer checksum(Arguments& arguments)
{
    const U32 address = arguments.number();
    const U32 bytes = arguments.countAboveZero();
    arguments.end();
    if (!Machine::exists(address, bytes))
        return say("fault");
    return say(format("0x%08x", static_cast<unsigned>(crc32(Machine::at(address), bytes))));
}

Answer locks(Arguments& arguments)
{
    arguments.end();
    const Machine& m = machine();
    return say(format("search=%d free=%d push=%d pop=%d", m.lockHeld(search_lock), m.lockHeld(free_lock),
                      m.lockHeld(push_lock), m.lockHeld(pop_lock)));
}

Answer dump(Arguments& arguments)
{
    arguments.end();
    return {dumpManagerState() + "= 0", false};
}

const std::map<std::string, Answer (*)(Arguments&), std::less<>> commands = {
    {"load", load},         {"unload", unload}, {"ioctl", ioctlCommand}, {"mmap", mapDevice}, {"read", readDevice},
    {"write", writeDevice}, {"proc", readProc}, {"call", callFunction},  {"peek", peek},      {"poke", poke},
    {"fill", fill},         {"crc", checksum},  {"locks", locks},        {"dump", dump},
};

Answer runWords(std::vector<Word> words)
{
    const Word first = words.front();
    const auto command = first.kind == Word::Kind::Plain ? commands.find(first.text) : commands.end();
    if (command == commands.end())
        throw SyntaxError("unknown command '" + first.text + "'");
    words.erase(words.begin());
    Arguments arguments(std::move(words));
    return command->second(arguments);
}

} // namespace

SessionReply runSessionLine(std::vector<Word> words)
{
    Answer answer = runWords(std::move(words));
    return {machine().takeLog(), std::move(answer.text), answer.closes};
}

void writeReply(std::ostream& out, const SessionReply& reply)
{
    for (const std::string& message : reply.log)
        out << "log \"" << escaped(message) << "\"\n";
    out << reply.text << std::endl;
}

SessionEnd runSession(std::istream& script, std::ostream& answers)
{
    powerOn();
    std::string line;
    for (unsigned number = 1; std::getline(script, line); ++number) {
        SessionReply reply;
        try {
            std::vector<Word> words = splitLine(line);
            if (words.empty())
                continue;
            reply = runSessionLine(std::move(words));
        } catch (const SyntaxError& error) {
            answers << "! line " << number << ": " << error.what() << std::endl;
            return SessionEnd::NotUnderstood;
        }
        writeReply(answers, reply);
        if (reply.closes)
            return SessionEnd::Closed;
    }
    return SessionEnd::Understood;
}

} // namespace velmora::sim
