#include "session_lines.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <span>

#include <velmora/error.hpp>

#include "lib/command_records.hpp"
#include "units.hpp"

namespace velmora::tools {

using sim::SyntaxError;
using sim::Word;

namespace {

enum class Kind {
    Number,  // decimal, or hexadecimal with 0x
    Bytes,   // 4096, 64K, 8MiB
    Place,   // an address: a number, $variable, $variable+bytes
    Segment, // a name, a handle, heap
    Name,    // the four bytes of one
    Flag     // the bare key: 1, without it 0
};

struct Choice {
    std::string_view word;
    std::uint32_t value;
};

// How a line without the word is meant.
enum class Without { Refused, Zero, Allocation };

struct Field {
    std::string_view key; // empty: a word without one
    Kind kind;
    std::size_t offset, bytes; // in the record
    Without without = Without::Refused;
    std::span<const Choice> choices = {}; // words for some numbers
};

constexpr std::string_view kRecorded = "$a"; // and a number: the variables of a recording

constexpr Choice kTypes[] = {{"fixed", MM_FIXED}, {"float", MM_FLOAT}, {"align", MM_FLOATALIGN}};
constexpr Choice kDisciplines[] = {{"list", MM_LINKEDLIST}, {"stack", MM_STACK}};
constexpr Choice kAnswers[] = {{"yes", 1}, {"no", 0}};
constexpr Choice kEverything[] = {{"all", MM_DISPLAY_ALL}};

#define VELMORA_FIELD(record, field) offsetof(record, field), sizeof(record::field)
constexpr Field kTable[] = {{"option", Kind::Number, 0, 4, Without::Zero}};
constexpr Field kStart[] = {{"option", Kind::Number, VELMORA_FIELD(MM_TLibEntryInfo, enStartOption), Without::Zero}};
constexpr Field kCreate[] = {
    {"name", Kind::Name, VELMORA_FIELD(MM_TSegInfoFromApp, aubSegID)},
    {"type", Kind::Number, VELMORA_FIELD(MM_TSegInfoFromApp, ubType), Without::Refused, kTypes},
    {"kind", Kind::Number, VELMORA_FIELD(MM_TSegInfoFromApp, ubSegDSType), Without::Refused, kDisciplines},
    {"bytes", Kind::Bytes, VELMORA_FIELD(MM_TSegInfoFromApp, ulSegSize), Without::Zero},
    {"block", Kind::Bytes, VELMORA_FIELD(MM_TSegInfoFromApp, ulBlkSize)},
    {"map", Kind::Number, VELMORA_FIELD(MM_TSegInfoFromApp, ubMap), Without::Zero},
    {"lock", Kind::Number, VELMORA_FIELD(MM_TSegInfoFromApp, ubSemaphore), Without::Zero, kAnswers},
    {"overflow", Kind::Number, VELMORA_FIELD(MM_TSegInfoFromApp, ubVM), Without::Zero, kAnswers},
};
constexpr Field kMalloc[] = {
    {"segment", Kind::Segment, VELMORA_FIELD(MM_TMallocInfo, hulHandle)},
    {"bytes", Kind::Bytes, VELMORA_FIELD(MM_TMallocInfo, ulReqBytes)},
    {"owner", Kind::Number, VELMORA_FIELD(MM_TMallocInfo, ubMapID), Without::Zero},
};
constexpr Field kFree[] = {
    {"", Kind::Place, VELMORA_FIELD(MM_TFreeInfo, pubRlsAddr)},
    {"segment", Kind::Segment, VELMORA_FIELD(MM_TFreeInfo, hulHandle), Without::Allocation},
    {"bytes", Kind::Bytes, VELMORA_FIELD(MM_TFreeInfo, ulBytesNo), Without::Allocation},
};
constexpr Field kFill[] = {
    {"", Kind::Place, VELMORA_FIELD(MM_TMemsetInfo, s)},
    {"bytes", Kind::Bytes, VELMORA_FIELD(MM_TMemsetInfo, n), Without::Allocation},
    {"byte", Kind::Number, VELMORA_FIELD(MM_TMemsetInfo, c)},
};
constexpr Field kDelete[] = {{"name", Kind::Name, VELMORA_FIELD(MM_TDeleteSegmentInfo, aubCFGID)}};
constexpr Field kAdd[] = {
    {"name", Kind::Name, VELMORA_FIELD(MM_TAddSegmentInfo, aubCFGID)},
    {"bytes", Kind::Bytes, VELMORA_FIELD(MM_TAddSegmentInfo, ulSize), Without::Zero},
    {"at", Kind::Place, VELMORA_FIELD(MM_TAddSegmentInfo, pubAddr), Without::Zero},
};
constexpr Field kClear[] = {{"name", Kind::Name, VELMORA_FIELD(MM_TClearSegmentInfo, aubCFGID)}};
constexpr Field kCollect[] = {
    {"segment", Kind::Segment, VELMORA_FIELD(MM_TCollectGarbageInfo, hulHandle)},
    {"owner", Kind::Number, VELMORA_FIELD(MM_TCollectGarbageInfo, ubMapID)},
};
constexpr Field kContains[] = {
    {"", Kind::Place, VELMORA_FIELD(MM_TCheckSegmentInfo, ulAddr)},
    {"segment", Kind::Segment, VELMORA_FIELD(MM_TCheckSegmentInfo, hulHandle)},
};
// The command looks at the low byte only.
constexpr Field kDisplay[] = {
    {"segment", Kind::Segment, offsetof(MM_TDisplayMSTInfo, hulHandle), 1, Without::Refused, kEverything}};
constexpr Field kPhys[] = {{"", Kind::Place, VELMORA_FIELD(MM_TQueryPhysAddrInfo, ulStart)}};
constexpr Field kMst[] = {{"segment", Kind::Segment, VELMORA_FIELD(MM_TGetMSTInfo, hubHandle)}};
constexpr Field kMct[] = {{"row", Kind::Number, VELMORA_FIELD(MM_TGetMCTInfo, cfgid)}};
constexpr Field kMmap[] = {
    {"", Kind::Place, VELMORA_FIELD(MappingRecord, address)},
    {"bytes", Kind::Bytes, VELMORA_FIELD(MappingRecord, bytes), Without::Allocation},
    {"sync", Kind::Flag, VELMORA_FIELD(MappingRecord, sync), Without::Zero},
};
#undef VELMORA_FIELD

} // namespace

struct Form {
    std::string_view name;
    std::uint32_t number;
    std::span<const Field> fields;
    bool gives = false; // something that a variable can hold
};

namespace {

constexpr Form kForms[] = {
    {"table", MM_CMD_ENTRY, kTable},
    {"start", MM_CMD_LIB_ENTRY, kStart},
    {"create", MM_CMD_CREATE_SEGMENT, kCreate, true},
    {"malloc", MM_CMD_MALLOC, kMalloc, true},
    {"free", MM_CMD_FREE, kFree},
    {"fill", MM_CMD_MEMSET, kFill},
    {"delete", MM_CMD_DELETE_SEGMENT, kDelete},
    {"add", MM_CMD_ADD_SEGMENT, kAdd},
    {"clear", MM_CMD_CLEAR_SEGMENT, kClear},
    {"collect", MM_CMD_COLLECT_GARBAGE, kCollect},
    {"contains", MM_CMD_CHECK_SEGMENT, kContains},
    {"display", MM_CMD_DISPLAY_MST, kDisplay},
    {"phys", MM_CMD_QUERY_PHYS_ADDR, kPhys},
    {"mst", MM_CMD_GET_MST, kMst},
    {"mct", MM_CMD_GET_MCT, kMct},
    {"mmap", kMapping, kMmap},
};

std::size_t recordBytes(std::uint32_t number)
{
    return number == kMapping ? sizeof(MappingRecord) : recordOf(number).bytes;
}

std::uint32_t numberAt(const std::vector<std::uint8_t>& record, std::size_t offset, std::size_t bytes)
{
    std::uint32_t value = 0;
    std::memcpy(&value, record.data() + offset, bytes);
    return value;
}

// What a form takes, for those who wrote something else.
std::string wordsTaken(const Form& form)
{
    std::string text;
    for (const Field& field : form.fields) {
        text += text.empty() ? "" : ", ";
        text += field.key.empty() ? "an address" : std::string(field.key) + (field.kind == Kind::Flag ? "" : "=");
    }
    return "'" + std::string(form.name) + "' takes " + text + (form.gives ? " and -> $variable" : "");
}

std::uint32_t bytesIn(const std::string& text)
{
    const auto value = parseBytes(text);
    if (!value)
        throw SyntaxError("'" + text + "' is no number of bytes, as 4096, 64K or 8MiB");
    return static_cast<std::uint32_t>(*value);
}

std::uint32_t numberIn(const std::string& text, const Field& field)
{
    const auto choice = std::ranges::find(field.choices, text, &Choice::word);
    if (choice != field.choices.end())
        return choice->value;
    const auto value = parseNumber(text);
    if (value && (field.bytes == 4 || *value < 1U << 8 * field.bytes))
        return *value;
    std::string words;
    for (const Choice& one : field.choices)
        words += std::string(one.word) + ", ";
    throw SyntaxError("'" + text + "' is no " + std::string(field.key) + ": " + words + "a number of " +
                      std::to_string(8 * field.bytes) + " bits at most");
}

// A name's bytes, \xNN resolved.
std::string nameIn(const std::string& text)
{
    std::string name;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '\\') {
            name += text[at];
            continue;
        }
        if (text.compare(at, 2, "\\x") != 0 || text.size() < at + 4)
            throw SyntaxError("'" + text + "' is no name: what is no plain letter is \\xNN");
        name += static_cast<char>(sim::parseHex(std::string_view(text).substr(at + 2, 2)).front());
        at += 3;
    }
    if (name.empty() || name.size() > 4)
        throw SyntaxError("'" + text + "' is no name: it has one to four characters");
    return name;
}

std::uint32_t placeIn(const std::string& text, Meanings& meanings)
{
    const std::string variable = variableOf(text);
    if (variable.empty()) {
        if (const auto value = parseNumber(text))
            return *value;
        throw SyntaxError("'" + text + "' is no address: a number, $variable or $variable+BYTES");
    }
    const std::uint32_t more = text.size() == variable.size() ? 0 : bytesIn(text.substr(variable.size() + 1));
    return meanings.valueOf(variable) + more;
}

std::uint32_t handleIn(const std::string& text, const Field& field, Meanings& meanings)
{
    if (const auto choice = std::ranges::find(field.choices, text, &Choice::word); choice != field.choices.end())
        return choice->value;
    std::uint32_t handle = MM_HEAPHANDLE;
    if (isVariable(text) && meanings.isKnown(text)) // "$JCB" is a name
        handle = meanings.valueOf(text);
    else if (const auto number = parseNumber(text))
        handle = *number;
    else if (text != "heap")
        handle = meanings.handleOf(nameIn(text));
    if (field.bytes < 4 && handle >= 1U << 8 * field.bytes)
        throw SyntaxError("'" + text + "' is no segment for this command: its handle has " +
                          std::to_string(8 * field.bytes) + " bits at most");
    return handle;
}

// What a field holds where the line leaves it to the allocation that its address lies in.
std::uint32_t ofAllocation(const NamedLine& line, const Field& field, std::uint32_t address, Meanings& meanings)
{
    const std::string variable = variableOf(line.values.front());
    if (variable.empty())
        throw SyntaxError("'" + std::string(line.form->name) + "' of a number needs " + std::string(field.key) + "=");
    const Allocation allocation = meanings.allocationOf(variable);
    if (field.kind == Kind::Segment)
        return allocation.handle;
    if (!allocation.contains(address))
        throw SyntaxError("'" + line.values.front() + "' lies behind the bytes that were allocated");
    return allocation.bytes - (address - allocation.start);
}

std::uint32_t valueIn(const NamedLine& line, std::size_t index, Meanings& meanings)
{
    const Field& field = line.form->fields[index];
    const std::string& text = line.values[index];
    if (text.empty() && field.without == Without::Allocation)
        return ofAllocation(line, field, placeIn(line.values.front(), meanings), meanings);
    if (text.empty())
        return 0;
    switch (field.kind) {
    case Kind::Bytes: return bytesIn(text);
    case Kind::Place: return placeIn(text, meanings);
    case Kind::Segment: return handleIn(text, field, meanings);
    case Kind::Flag: return 1;
    default: return numberIn(text, field);
    }
}

std::string bytesWord(std::uint32_t bytes)
{
    if (bytes != 0 && bytes % (1U << 20) == 0)
        return std::to_string(bytes >> 20) + "M";
    if (bytes != 0 && bytes % 1024 == 0)
        return std::to_string(bytes >> 10) + "K";
    return std::to_string(bytes);
}

std::string placeWord(std::uint32_t address, const Names& names)
{
    const auto known = names.allocationAt(address);
    if (!known)
        return addressText(address);
    const std::uint32_t more = address - known->allocation.start;
    return known->variable + (more == 0 ? "" : "+" + hexText(more));
}

std::string segmentWord(std::uint32_t handle, const Names& names)
{
    if (handle == MM_HEAPHANDLE)
        return "heap";
    return names.segmentName(handle).value_or(std::to_string(handle));
}

// The word of a field, or nothing where the line can do without.
std::string wordFor(const Field& field, const std::vector<std::uint8_t>& record, const Names& names,
                    const std::optional<Names::Known>& known, std::uint32_t address)
{
    if (field.kind == Kind::Name)
        return nameText(record.data() + field.offset);
    const std::uint32_t value = numberAt(record, field.offset, field.bytes);
    if (value == 0 && field.without == Without::Zero)
        return "";
    if (known && field.without == Without::Allocation) {
        const Allocation& allocation = known->allocation;
        const std::uint32_t rest = allocation.bytes - (address - allocation.start);
        if (value == (field.kind == Kind::Segment ? allocation.handle : rest))
            return "";
    }
    const auto choice = std::ranges::find(field.choices, value, &Choice::value);
    if (choice != field.choices.end())
        return std::string(choice->word);
    switch (field.kind) {
    case Kind::Bytes: return bytesWord(value);
    case Kind::Place: return placeWord(value, names);
    case Kind::Segment: return segmentWord(value, names);
    case Kind::Flag: return std::string(field.key);
    default: return field.key == "owner" || field.key == "byte" ? hexText(value) : std::to_string(value);
    }
}

// The fields of the state dump, without the routines' addresses.
std::string entryWords(const MM_TGetMSTInfo& info)
{
    if (info.status != 0)
        return "no entry";
    const MM_TMMSegInfoWire& entry = info.SegTable;
    const MM_TSegInfoFromApp& request = entry.stInfoFromApp;
    if (request.ulBlkSize == 0)
        return "unused";
    std::array<char, 512> text;
    std::snprintf(
        text.data(), text.size(),
        "id=%s type=%u ds=%u map=%u sem=%u segsize=0x%x blksize=0x%x handle=%u retsize=0x%x vm=%u blkbit=%u "
        "start=0x%x end=0x%x mapstart=0x%x mapend=0x%x total=0x%x alloc=0x%x free=0x%x largest=0x%x avail=0x%x",
        nameText(request.aubSegID).c_str(), request.ubType, request.ubSegDSType, request.ubMap, request.ubSemaphore,
        request.ulSegSize, request.ulBlkSize, request.hulHandle, request.ulRetSegSize, request.ubVM, entry.ubBlkBit,
        entry.pubStartAddr, entry.pubEndAddr, entry.pubMapStartAddr, entry.pubMapEndAddr, entry.ulTotalBlkNum,
        entry.ulTotalAllocBlkNum, entry.ulTotalFreeBlkNum, entry.ulLargestBlkSize, entry.ulRealAvailSize);
    return text.data();
}

std::string rowWords(const MM_TGetMCTInfo& info)
{
    if (info.status != 0)
        return "no row";
    return "id=" + nameText(info.SegTable.aubCFGID) + " size=" + hexText(info.SegTable.ulSize) +
           " start=" + hexText(info.SegTable.pubStartAddr);
}

std::string createdWords(const MM_TSegInfoFromApp& made)
{
    return "handle=" + std::to_string(made.hulHandle) + " bytes=" + hexText(made.ulSegSize) +
           " usable=" + hexText(made.ulRetSegSize);
}

const Form* formOf(std::string_view name)
{
    const auto* const form = std::ranges::find(kForms, name, &Form::name);
    return form == std::end(kForms) ? nullptr : form;
}

// Where a word of a line belongs: the flag of that name, the field of its key, or the address.
std::optional<std::size_t> placeOf(const Form& form, const std::string& word)
{
    const std::size_t sign = word.find('=');
    const std::string key = sign == word.npos ? "" : word.substr(0, sign);
    std::optional<std::size_t> place;
    for (std::size_t at = 0; at < form.fields.size(); ++at) {
        const Field& field = form.fields[at];
        if (field.kind == Kind::Flag && field.key == word)
            return at;
        if (field.kind != Kind::Flag && field.key == key && !place)
            place = at;
    }
    return place;
}

void takeWord(NamedLine& line, const std::string& word)
{
    const auto place = placeOf(*line.form, word);
    if (!place)
        throw SyntaxError("'" + word + "' is not understood: " + wordsTaken(*line.form));
    const Field& field = line.form->fields[*place];
    const bool bare = field.key.empty() || field.kind == Kind::Flag;
    if (!line.values[*place].empty())
        throw SyntaxError("'" + word + "' is said a second time");
    line.values[*place] = bare ? word : word.substr(field.key.size() + 1);
    if (line.values[*place].empty())
        throw SyntaxError("'" + word + "' says nothing");
}

} // namespace

std::uint32_t NamedLine::number() const
{
    return form->number;
}

const std::string& NamedLine::value(std::string_view key) const
{
    for (std::size_t at = 0; at < values.size(); ++at)
        if (form->fields[at].key == key)
            return values[at];
    throw std::logic_error("there is no field " + std::string(key));
}

bool isVariable(std::string_view text)
{
    return text.size() > 1 && text.front() == '$' &&
           std::ranges::all_of(text.substr(1), [](unsigned char c) { return std::isalnum(c) != 0 || c == '_'; });
}

std::string variableOf(const std::string& place)
{
    const std::string variable = place.substr(0, place.find('+'));
    return isVariable(variable) ? variable : "";
}

std::string recordedVariable(std::uint32_t n)
{
    return std::string(kRecorded) + std::to_string(n);
}

std::string nameText(const std::uint8_t* id)
{
    std::size_t length = 4;
    while (length > 1 && id[length - 1] == 0)
        --length;
    const std::string name(id, id + length);
    const bool variable = name.starts_with(kRecorded) && parseNumber(name.substr(kRecorded.size()));
    const bool taken = variable || parseNumber(name) || name == "heap" || name == "all";
    std::string text;
    for (std::size_t at = 0; at < length; ++at) {
        const auto c = id[at];
        const bool plain = c < 0x80 && (std::isalnum(c) != 0 ||
                                        std::string_view("$_-.").find(static_cast<char>(c)) != std::string_view::npos);
        text += plain && !(taken && at == 0) ? std::string(1, static_cast<char>(c)) : "\\x" + sim::toHex(&c, 1);
    }
    return text;
}

bool isNamed(const std::vector<Word>& words)
{
    if (words.front().kind != Word::Kind::Plain || formOf(words.front().text) == nullptr)
        return false;
    if (words.front().text != "fill" && words.front().text != "mmap")
        return true;
    return std::ranges::any_of(words, [](const Word& word) {
        return word.kind == Word::Kind::Plain &&
               (word.text.starts_with("$") || word.text.find('=') != std::string::npos);
    });
}

NamedLine parseNamed(const std::vector<Word>& words)
{
    NamedLine line{formOf(words.front().text), {}, {}};
    line.values.resize(line.form->fields.size());
    for (std::size_t at = 1; at < words.size(); ++at) {
        if (words[at].kind != Word::Kind::Plain)
            throw SyntaxError("'" + words[at].text + "' is not understood: " + wordsTaken(*line.form));
        if (words[at].text != "->") {
            takeWord(line, words[at].text);
            continue;
        }
        if (!line.form->gives)
            throw SyntaxError("'" + std::string(line.form->name) + "' gives nothing that a variable could hold");
        if (at + 2 != words.size() || !isVariable(words[at + 1].text))
            throw SyntaxError("one variable follows '->' and ends the line, as $a");
        line.result = words[++at].text;
    }
    for (std::size_t at = 0; at < line.values.size(); ++at) {
        const Field& field = line.form->fields[at];
        if (field.without == Without::Refused && line.values[at].empty())
            throw SyntaxError((field.key.empty() ? "the address" : std::string(field.key) + "=") +
                              " is missing: " + wordsTaken(*line.form));
    }
    return line;
}

std::string textOf(const NamedLine& line)
{
    std::string text(line.form->name);
    for (std::size_t at = 0; at < line.values.size(); ++at) {
        const Field& field = line.form->fields[at];
        if (line.values[at].empty())
            continue;
        const bool bare = field.key.empty() || field.kind == Kind::Flag;
        text += " " + (bare ? "" : std::string(field.key) + "=") + line.values[at];
    }
    return text + (line.result.empty() ? "" : " -> " + line.result);
}

Request requestOf(const NamedLine& line, Meanings& meanings)
{
    Request request{line.form->number, std::vector<std::uint8_t>(recordBytes(line.form->number))};
    for (std::size_t at = 0; at < line.values.size(); ++at) {
        const Field& field = line.form->fields[at];
        if (field.kind == Kind::Name) {
            nameIn(line.values[at]).copy(reinterpret_cast<char*>(request.record.data() + field.offset), 4);
            continue;
        }
        const std::uint32_t value = valueIn(line, at, meanings);
        std::memcpy(request.record.data() + field.offset, &value, field.bytes);
    }
    return request;
}

std::optional<NamedLine> lineOf(const Request& request, const Names& names)
{
    const auto* const form = std::ranges::find(kForms, request.number, &Form::number);
    if (form == std::end(kForms) || request.record.size() < recordBytes(request.number))
        return std::nullopt;
    NamedLine line{form, {}, {}};
    std::optional<Names::Known> known;
    std::uint32_t address = 0;
    for (const Field& field : form->fields) {
        if (field.key.empty()) {
            address = numberAt(request.record, field.offset, field.bytes);
            known = names.allocationAt(address);
        }
        line.values.push_back(wordFor(field, request.record, names, known, address));
    }
    return line;
}

std::string wordsOf(const Request& request, const Answer& answer)
{
    if (request.number == MM_CMD_MALLOC && answer.result == MM_EINVASEGSIZE)
        return "no room";
    if (answer.result != 0)
        return "refused " + codeName(answer.result);
    switch (request.number) {
    case MM_CMD_MALLOC: return addressText(as<MM_TMallocInfo>(answer.record).pubStart);
    case MM_CMD_CREATE_SEGMENT: return createdWords(as<MM_TSegInfoFromApp>(answer.record));
    case MM_CMD_CHECK_SEGMENT: return as<MM_TCheckSegmentInfo>(answer.record).status != 0 ? "yes" : "no";
    case MM_CMD_QUERY_PHYS_ADDR: return addressText(as<MM_TQueryPhysAddrInfo>(answer.record).ulPhysAddr);
    case MM_CMD_GET_MST: return entryWords(as<MM_TGetMSTInfo>(answer.record));
    case MM_CMD_GET_MCT: return rowWords(as<MM_TGetMCTInfo>(answer.record));
    default: return "0";
    }
}

} // namespace velmora::tools
