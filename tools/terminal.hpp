// What can be drawn where the output goes: colours, block characters, how many columns.
#pragma once

#include <optional>
#include <ostream>
#include <string>

namespace velmora::tools {

// Whether standard output is what is written to, and a terminal.
bool isTerminal(const std::ostream& out);

// Columns of the terminal on standard output; nullopt where there is none that says so.
std::optional<unsigned> terminalColumns();

// The locale's characters are UTF-8's, as $LC_ALL, $LC_CTYPE or $LANG has it.
bool localeIsUtf8();

// What --color says: always, never, or auto: on a terminal, not with $NO_COLOR, nor TERM=dumb.
bool wantsColour(const std::string& word, const std::ostream& out);
// Why a word says nothing of the kind; empty for those that do.
std::string colourMistake(const std::string& word);

// text in lines of at most so many characters, broken between words where there is room for a word; each line begins with
// indent spaces and ends with a newline.
std::string wrapped(const std::string& text, unsigned columns, unsigned indent = 0);

} // namespace velmora::tools
