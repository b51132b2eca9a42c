// The catalogue of the manager's messages, docs/messages.md, as the program reads it.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace velmora::tools {

// What the page says of a message. Texts are one line each, without the marks of the page.
struct MessageEntry {
    std::string title;
    std::string from; // functions that print it
    std::string means, state, action;
    bool table = false; // its lines come together
};

// What a line of a message is.
enum class MessagePart {
    Text,      // tells which message it is
    Beginning, // of a message whose next line tells
    Frame,     // of a table, without a word
    Heading,   // of a table
    Row        // of a table
};

// What stands in a placeholder, by its name in the page.
struct MessageValue {
    std::string name, text;
    bool hexadecimal = false;
};

struct FoundMessage {
    const MessageEntry* entry;
    MessagePart part;
    std::vector<MessageValue> values; // not those of a place in the source
};

class MessageCatalogue
{
public:
    // Throws std::runtime_error with a sentence where the page is not as it describes itself.
    explicit MessageCatalogue(std::string_view page);
    MessageCatalogue(const MessageCatalogue&) = delete; // what was found points into it
    // That of this program's page.
    static const MessageCatalogue& own();

    const std::vector<MessageEntry>& entries() const { return entries_; }

    // The messages that a text is made of, several where none but the last ends its line. Empty when anything in it is none.
    std::vector<FoundMessage> find(std::string_view text) const;

    // Lines as the page has them, with their entries: for tests.
    std::vector<std::pair<std::string, const MessageEntry*>> texts() const;

private:
    struct Token {
        enum class Kind { Literal, Space, Number, Hexadecimal, Name, Words, File, Line };
        Kind kind;
        std::string text; // of a literal; of a placeholder its name
    };
    struct Pattern {
        std::string text;
        std::vector<Token> tokens;
        std::size_t entry;
        MessagePart part;
    };
    struct Match {
        std::size_t end = 0; // in the text
        std::vector<MessageValue> values;
    };

    static std::vector<Token> tokensOf(const std::string& text);
    static Token placeholder(const std::string& name);
    static bool matchFrom(const std::vector<Token>& tokens, std::size_t token, std::string_view text, std::size_t at,
                          Match& found);
    void addBlock(const std::vector<std::string>& lines);

    std::vector<MessageEntry> entries_;
    std::vector<Pattern> patterns_;
};

} // namespace velmora::tools
