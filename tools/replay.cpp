#include "replay.hpp"

#include <algorithm>
#include <cstring>
#include <istream>
#include <map>
#include <optional>
#include <ostream>

#include "lib/command_records.hpp"
#include "controller/device.h"
#include "recording.hpp"
#include "units.hpp"

namespace velmora::tools {

using sim::SessionEnd;
using sim::SessionReply;
using sim::SyntaxError;
using sim::Word;

namespace {

Word plain(std::string text)
{
    return {Word::Kind::Plain, std::move(text)};
}

MappingRecord mappingOf(const Request& request)
{
    MappingRecord mapping;
    std::memcpy(&mapping, request.record.data(), sizeof mapping);
    return mapping;
}

// By way of the lines in bytes, whose answers it reads.
class SimulatedTarget : public Target
{
public:
    SimulatedTarget() { sim::powerOn(); }

    Outcome run(const Request& request) override
    {
        Outcome outcome{sim::runSessionLine(wordsOf(request)), {}};
        if (outcome.reply.closes)
            return outcome;
        const std::vector<Word> words = sim::splitLine(outcome.reply.text);
        outcome.answer.result = std::stoi(words.at(1).text);
        if (request.number != kMapping && words.size() > 2)
            outcome.answer.record = sim::parseHex(words[2].text);
        return outcome;
    }

    SessionReply line(std::vector<Word> words) override { return sim::runSessionLine(std::move(words)); }

private:
    static std::vector<Word> wordsOf(const Request& request)
    {
        if (request.number != kMapping)
            return {plain("ioctl"),
                    plain(std::to_string(request.number)),
                    {Word::Kind::Braced, sim::toHex(request.record.data(), request.record.size())}};
        const MappingRecord mapping = mappingOf(request);
        std::vector<Word> words = {plain("mmap"), plain(std::to_string(mapping.address)),
                                   plain(std::to_string(mapping.bytes))};
        if (mapping.sync != 0)
            words.push_back(plain("sync"));
        return words;
    }
};

class DeviceTarget : public Target
{
public:
    explicit DeviceTarget(Device& device) : device_(device) {}

    Outcome run(const Request& request) override
    {
        Outcome outcome;
        if (request.number == kMapping) {
            const MappingRecord mapping = mappingOf(request);
            outcome.answer.result = map(mapping.address, mapping.bytes, mapping.sync != 0);
        } else {
            outcome.answer.record = request.record;
            outcome.answer.result =
                device_.command(request.number, outcome.answer.record.data(), outcome.answer.record.size());
        }
        return outcome;
    }

    // A recording loads the manager; a device has done that.
    SessionReply line(std::vector<Word> words) override
    {
        const std::string& command = words.front().text;
        if (command == "load" && words.size() == 2)
            return {{}, "= loaded already", false};
        if (command == "ioctl" && words.size() == 3 && words[2].kind == Word::Kind::Braced)
            return ioctlLine(sim::parseNumber(words[1].text), sim::parseHex(words[2].text));
        throw SyntaxError(
            "'" + command + (command == "ioctl" ? "' of an address" : "'") +
            " is for the simulated controller: a device takes lines by name, and ioctl with a whole record");
    }

private:
    int map(std::uint32_t address, std::uint32_t bytes, bool sync)
    {
        try {
            const Mapping view = device_.map(address, bytes, sync ? Caching::Uncached : Caching::Cached);
            return 0;
        } catch (const ConnectionError&) {
            throw;
        } catch (const Error& error) {
            return error.result();
        }
    }

    SessionReply ioctlLine(std::uint32_t number, std::vector<std::uint8_t> record)
    {
        if (const std::size_t whole = recordOf(number).bytes; record.size() < whole)
            throw SyntaxError("a device takes the whole record of this command, " + std::to_string(whole) + " bytes");
        const int result = device_.command(number, record.data(), record.size());
        return {{}, "= " + std::to_string(result) + " " + sim::toHex(record.data(), record.size()), false};
    }

    Device& device_;
};

// What the names of a script stand for, as far as it was run.
class Bindings : public Meanings
{
public:
    explicit Bindings(Target& target) : target_(target) {}

    std::uint32_t handleOf(const std::string& name) override
    {
        if (handles_.empty())
            readTable();
        const auto found = handles_.find(name);
        if (found == handles_.end())
            throw SyntaxError("there is no segment '" + name + "'");
        return found->second;
    }
    bool isKnown(const std::string& variable) override { return values_.contains(variable); }
    std::uint32_t valueOf(const std::string& variable) override
    {
        const auto found = values_.find(variable);
        if (found == values_.end())
            throw SyntaxError("nothing was given to " + variable);
        return found->second;
    }
    Allocation allocationOf(const std::string& variable) override
    {
        const auto found = allocations_.find(variable);
        if (found == allocations_.end())
            throw SyntaxError(variable + " is no allocation");
        return found->second;
    }

    // A line may have changed the segments there are.
    void forgetTable() { handles_.clear(); }

    void bind(const std::string& variable, const Request& request, const Answer& answer)
    {
        values_.erase(variable);
        allocations_.erase(variable);
        if (answer.result != 0)
            return;
        if (request.number == MM_CMD_CREATE_SEGMENT) {
            MM_TSegInfoFromApp made;
            std::memcpy(&made, answer.record.data(), sizeof made);
            values_[variable] = made.hulHandle;
            return;
        }
        MM_TMallocInfo made;
        std::memcpy(&made, answer.record.data(), sizeof made);
        values_[variable] = made.pubStart;
        allocations_[variable] = {made.hulHandle, made.pubStart, made.ulReqBytes};
    }

private:
    void readTable()
    {
        for (std::uint8_t handle = 0; handle < MM_HEAPHANDLE; ++handle) {
            MM_TGetMSTInfo info{};
            info.hubHandle = handle;
            Request request{MM_CMD_GET_MST, std::vector<std::uint8_t>(sizeof info)};
            std::memcpy(request.record.data(), &info, sizeof info);
            const Answer answer = target_.run(request).answer;
            if (answer.result != 0 || answer.record.size() < sizeof info)
                continue;
            std::memcpy(&info, answer.record.data(), sizeof info);
            const MM_U8* const id = info.SegTable.stInfoFromApp.aubSegID;
            const std::string name(id, std::find(id, id + 4, 0));
            if (info.SegTable.stInfoFromApp.ulBlkSize != 0)
                handles_.emplace(name, handle);
        }
    }

    Target& target_;
    std::map<std::string, std::uint32_t> handles_; // by name; empty: to be read again
    std::map<std::string, std::uint32_t> values_;
    std::map<std::string, Allocation> allocations_;
};

bool changesTable(std::uint32_t command)
{
    return command == MM_CMD_LIB_ENTRY || command == MM_CMD_CREATE_SEGMENT;
}

class Replayer
{
public:
    Replayer(std::ostream& answers, Target& target) : answers_(answers), target_(target), bindings_(target) {}

    // False when no line can be run after this one.
    bool run(const std::string& line, unsigned number)
    {
        std::vector<Word> words = sim::splitLine(line);
        if (words.empty())
            return true;
        if (words.front().kind == Word::Kind::Plain && words.front().text == "expect") {
            expect(words, number);
            return true;
        }
        const SessionReply reply = isNamed(words) ? runNamed(parseNamed(words)) : runInBytes(std::move(words));
        last_ = reply.text.substr(reply.text.rfind('\n') + 1).substr(sizeof "= " - 1);
        writeReply(answers_, reply);
        return !reply.closes;
    }

    unsigned unmet() const { return unmet_; }

private:
    SessionReply runNamed(const NamedLine& line)
    {
        const Request request = requestOf(line, bindings_);
        Target::Outcome outcome = target_.run(request);
        if (outcome.reply.closes)
            return outcome.reply;
        if (changesTable(line.number()))
            bindings_.forgetTable();
        if (!line.result.empty())
            bindings_.bind(line.result, request, outcome.answer);
        outcome.reply.text = "= " + wordsOf(request, outcome.answer);
        return outcome.reply;
    }

    SessionReply runInBytes(std::vector<Word> words)
    {
        bindings_.forgetTable();
        return target_.line(std::move(words));
    }

    // "expect = ANSWER", "expect refused CODE", "expect no room", "expect $a = NUMBER".
    void expect(const std::vector<Word>& words, unsigned number)
    {
        if (!last_)
            throw SyntaxError("nothing was answered yet that could be expected");
        std::size_t first = 1;
        std::string got = *last_;
        const std::string& subject = words.size() > 1 ? words[1].text : "";
        const bool variable = isVariable(subject) && words.size() > 3;
        if (variable)
            got = addressText(bindings_.valueOf(subject));
        if (variable || subject == "=")
            first = variable ? 3 : 2;
        else if (subject != "refused" && subject != "no")
            throw SyntaxError("'expect' takes = ANSWER, refused CODE, no room, or $variable = NUMBER");
        if (words.size() <= first || (variable && words[2].text != "="))
            throw SyntaxError("'expect' lacks what is expected");
        std::string wanted;
        for (std::size_t at = first; at < words.size(); ++at)
            wanted += (at == first ? "" : " ") + asWritten(words[at]);
        if (variable)
            wanted = addressText(sim::parseNumber(wanted));
        if (wanted == got) {
            answers_ << "= met" << std::endl;
            return;
        }
        ++unmet_;
        const std::string name = variable ? subject + " = " : "";
        answers_ << "! line " << number << ": expected " << name << wanted << ", got " << name << got << std::endl;
    }

    static std::string asWritten(const Word& word)
    {
        return word.kind == Word::Kind::Quoted ? "\"" + sim::escaped(word.text) + "\"" : word.text;
    }

    std::ostream& answers_;
    Target& target_;
    Bindings bindings_;
    std::optional<std::string> last_; // answer, without what stands in front of it
    unsigned unmet_ = 0;
};

} // namespace

std::unique_ptr<Target> simulatedTarget()
{
    return std::make_unique<SimulatedTarget>();
}

std::unique_ptr<Target> deviceTarget(Device& device)
{
    return std::make_unique<DeviceTarget>(device);
}

ReplayEnd replay(std::istream& script, std::ostream& answers, Target& target)
{
    ReplayEnd end;
    Replayer replayer(answers, target);
    bool recording = false;
    unsigned number = 1;
    for (std::string line; std::getline(script, line); ++number) {
        recording = recording || (number == 1 && line.starts_with(kRecordingBegins));
        end.cut = recording && line != kRecordingEnds;
        if (recording && script.eof()) // half a line
            break;
        try {
            if (!replayer.run(line, number)) {
                end = {SessionEnd::Closed, 0, false};
                break;
            }
        } catch (const SyntaxError& error) {
            answers << "! line " << number << ": " << error.what() << std::endl;
            end = {SessionEnd::NotUnderstood, 0, false};
            break;
        }
    }
    if (end.cut)
        answers << "! line " << number << ": the recording ends here, in the middle: '" << kRecordingEnds
                << "' is missing" << std::endl;
    end.unmet = replayer.unmet();
    return end;
}

} // namespace velmora::tools
