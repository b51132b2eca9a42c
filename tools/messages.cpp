#include "messages.hpp"

#include <algorithm>
#include <cctype>
#include <sstream>
#include <stdexcept>

#include "embedded_pages.hpp"

namespace velmora::tools {

namespace {

bool isSpace(char c)
{
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

bool isDigit(char c)
{
    return std::isdigit(static_cast<unsigned char>(c)) != 0;
}

bool isHexDigit(char c)
{
    return std::isxdigit(static_cast<unsigned char>(c)) != 0;
}

std::size_t spacesAt(std::string_view text, std::size_t at)
{
    std::size_t count = 0;
    while (at + count < text.size() && isSpace(text[at + count]))
        ++count;
    return count;
}

// Without the marks of the page: code in single quotes, a link as its words.
std::string plain(std::string_view text)
{
    std::string result;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const std::size_t words = text.find("](", at), end = text.find(')', at);
        if (text[at] == '`') {
            result += '\'';
        } else if (text[at] == '[' && words != text.npos && end != text.npos && words < text.find(' ', at)) {
            result.append("docs/").append(text.substr(at + 1, words - at - 1));
            at = end;
        } else if (text.substr(at, 2) != "**") {
            result += text[at];
        } else {
            ++at;
        }
    }
    return result;
}

// Reads the lines of the page in order, and says where it is when something is missing.
class PageReader
{
public:
    explicit PageReader(std::string_view page)
    {
        std::istringstream lines{std::string(page)};
        for (std::string line; std::getline(lines, line);)
            lines_.push_back(line);
    }

    bool atEnd() const { return next_ == lines_.size(); }
    const std::string& peek() const
    {
        static const std::string kNothing;
        return atEnd() ? kNothing : lines_[next_];
    }
    std::string take() { return lines_.at(next_++); }

    [[noreturn]] void fail(const std::string& wanted) const
    {
        throw std::runtime_error("line " + std::to_string(next_ + 1) + " of the messages' page: " + wanted);
    }

    // "- **NAME** text", the lines that go on with it joined.
    std::string point(const std::string& name)
    {
        const std::string mark = "- **" + name + "** ";
        if (!peek().starts_with(mark))
            fail("'" + mark + "' is missing");
        std::string text = take().substr(mark.size());
        while (peek().starts_with("  "))
            text += take().substr(1);
        return plain(text);
    }

private:
    std::vector<std::string> lines_;
    std::size_t next_ = 0;
};

} // namespace

MessageCatalogue::Token MessageCatalogue::placeholder(const std::string& name)
{
    using enum Token::Kind;
    if (name.ends_with(":hex"))
        return {Hexadecimal, name.substr(0, name.size() - 4)};
    if (name == "file" || name == "line")
        return {name == "file" ? File : Line, name};
    return {name == "name" ? Name : name == "command" ? Words : Number, name};
}

std::vector<MessageCatalogue::Token> MessageCatalogue::tokensOf(const std::string& text)
{
    std::vector<Token> tokens;
    for (std::size_t at = spacesAt(text, 0); at < text.size();) {
        if (const std::size_t spaces = spacesAt(text, at); spaces != 0) {
            at += spaces;
            if (at < text.size())
                tokens.push_back({Token::Kind::Space, ""});
        } else if (text[at] == '{') {
            const std::size_t end = std::min(text.find('}', at), text.size());
            tokens.push_back(placeholder(text.substr(at + 1, end - at - 1)));
            at = end + 1;
        } else {
            const std::size_t end = std::min(text.find_first_of(" {", at), text.size());
            tokens.push_back({Token::Kind::Literal, text.substr(at, end - at)});
            at = end;
        }
    }
    return tokens;
}

// A text block is one message, and its last line tells which; of a table each line has its part.
void MessageCatalogue::addBlock(const std::vector<std::string>& lines)
{
    const bool table = entries_.back().table;
    for (const std::string& line : lines) {
        MessagePart part = &line == &lines.back() ? MessagePart::Text : MessagePart::Beginning;
        if (table && line.find('{') != line.npos)
            part = MessagePart::Row;
        else if (table)
            part = line.find_first_not_of('=') == line.npos ? MessagePart::Frame : MessagePart::Heading;
        patterns_.push_back({line, tokensOf(line), entries_.size() - 1, part});
    }
}

MessageCatalogue::MessageCatalogue(std::string_view page)
{
    PageReader reader(page);
    while (!reader.atEnd()) {
        const std::string heading = reader.take();
        if (!heading.starts_with("### "))
            continue;
        MessageEntry& entry = entries_.emplace_back();
        entry.title = plain(heading.substr(4));
        if (!reader.take().empty() || !reader.peek().starts_with("```"))
            reader.fail("a message in a block is missing");
        while (reader.peek().starts_with("```")) {
            entry.table = reader.take() == "```table";
            std::vector<std::string> lines;
            while (!reader.atEnd() && reader.peek() != "```")
                lines.push_back(reader.take());
            if (lines.empty() || reader.atEnd())
                reader.fail("a block has no message, or no end");
            reader.take();
            addBlock(lines);
        }
        if (!reader.peek().empty())
            reader.fail("an empty line is missing");
        reader.take();
        entry.from = reader.point("From");
        entry.means = reader.point("Means");
        entry.state = reader.point("State");
        entry.action = reader.point("Do");
        std::erase(entry.from, '\'');
    }
}

const MessageCatalogue& MessageCatalogue::own()
{
    static const MessageCatalogue catalogue(kMessagesPage);
    return catalogue;
}

// Placeholders take as much as they can; only names and words are tried shorter first, since others may follow at once.
bool MessageCatalogue::matchFrom(const std::vector<Token>& tokens, std::size_t token, std::string_view text,
                                 std::size_t at, Match& found)
{
    constexpr std::size_t kLongestName = 16, kLongestWords = 60; // a name's bytes may be escaped, four characters each
    if (token == tokens.size()) {
        found.end = at;
        return true;
    }
    const Token::Kind kind = tokens[token].kind;
    const std::string& name = tokens[token].text;
    const auto goOn = [&](std::size_t from, std::size_t count, bool keep) {
        const std::size_t before = found.values.size();
        if (keep)
            found.values.push_back({name, std::string(text.substr(from, count)), kind == Token::Kind::Hexadecimal});
        if (matchFrom(tokens, token + 1, text, from + count, found))
            return true;
        found.values.resize(before);
        return false;
    };
    const auto span = [&](std::size_t from, std::size_t most, const auto& belongs) {
        std::size_t count = 0;
        while (count < most && from + count < text.size() && belongs(text[from + count]))
            ++count;
        return count;
    };

    switch (kind) {
    case Token::Kind::Literal:
        return text.substr(at).starts_with(name) && matchFrom(tokens, token + 1, text, at + name.size(), found);
    case Token::Kind::Space: {
        const std::size_t spaces = spacesAt(text, at);
        return spaces != 0 && matchFrom(tokens, token + 1, text, at + spaces, found);
    }
    case Token::Kind::Number: {
        at += spacesAt(text, at);
        const std::size_t sign = at < text.size() && text[at] == '-' ? 1 : 0;
        const std::size_t digits = span(at + sign, 10, isDigit);
        return digits != 0 && goOn(at, sign + digits, true);
    }
    case Token::Kind::Line: { // N in the answers that tests keep
        const std::size_t count = span(at, 10, [](char c) { return c == 'N' || isDigit(c); });
        return count != 0 && goOn(at, count, false);
    }
    case Token::Kind::Hexadecimal: {
        at += spacesAt(text, at);
        const std::size_t digits = span(at, 8, isHexDigit);
        return digits != 0 && goOn(at, digits, true);
    }
    case Token::Kind::File: {
        const std::size_t count = span(at, text.size(), [](char c) { return c != ',' && !isSpace(c); });
        return count != 0 && goOn(at, count, false);
    }
    case Token::Kind::Name:
    case Token::Kind::Words:
        const std::size_t most = std::min(kind == Token::Kind::Name ? kLongestName : kLongestWords, text.size() - at);
        for (std::size_t count = 0; count <= most; ++count)
            if (goOn(at, count, true))
                return true;
        return false;
    }
    return false;
}

// The longest of the messages that begin at a place: a row may be the beginning of a longer one.
std::vector<FoundMessage> MessageCatalogue::find(std::string_view text) const
{
    std::vector<FoundMessage> found;
    for (std::size_t at = spacesAt(text, 0); at < text.size(); at += spacesAt(text, at)) {
        const Pattern* longest = nullptr;
        Match longestMatch;
        for (const Pattern& pattern : patterns_) {
            Match match;
            if (matchFrom(pattern.tokens, 0, text, at, match) && match.end > longestMatch.end) {
                longest = &pattern;
                longestMatch = std::move(match);
            }
        }
        if (longest == nullptr)
            return {};
        at = longestMatch.end;
        if (longest->part == MessagePart::Beginning && at + spacesAt(text, at) != text.size())
            return {};
        found.push_back({&entries_[longest->entry], longest->part, std::move(longestMatch.values)});
    }
    return found;
}

std::vector<std::pair<std::string, const MessageEntry*>> MessageCatalogue::texts() const
{
    std::vector<std::pair<std::string, const MessageEntry*>> result;
    for (const Pattern& pattern : patterns_)
        result.emplace_back(pattern.text, &entries_[pattern.entry]);
    return result;
}

} // namespace velmora::tools
