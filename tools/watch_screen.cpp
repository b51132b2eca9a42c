#include "watch_screen.hpp"

#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <langinfo.h>
#include <string>
#include <unistd.h>

#define NCURSES_NOMACROS
#include <curses.h>

#include "device_command.hpp"

namespace velmora::tools {

namespace {

volatile std::sig_atomic_t askedToEnd = 0;

void heed(int signal)
{
    struct sigaction action = {};
    action.sa_handler = [](int) { askedToEnd = 1; };
    sigaction(signal, &action, nullptr);
}

enum Pair : short { kTitle = 1, kUsed, kFull };

attr_t attributesOf(WatchPiece::Kind kind)
{
    switch (kind) {
    case WatchPiece::Kind::Plain: break;
    case WatchPiece::Kind::Title: return A_BOLD;
    case WatchPiece::Kind::Used: return has_colors() ? COLOR_PAIR(kUsed) : A_NORMAL;
    case WatchPiece::Kind::Full: return has_colors() ? COLOR_PAIR(kFull) : A_BOLD;
    case WatchPiece::Kind::Soft: return A_DIM;
    }
    return A_NORMAL;
}

void useColours()
{
    const char* const none = std::getenv("NO_COLOR");
    if (!has_colors() || (none != nullptr && *none != 0))
        return;
    start_color();
    use_default_colors();
    init_pair(kUsed, COLOR_GREEN, -1);
    init_pair(kFull, COLOR_RED, -1);
}

std::string terminalType()
{
    const char* const type = std::getenv("TERM");
    return type != nullptr && *type != 0 ? type : "";
}

} // namespace

WatchScreen::WatchScreen()
{
    if (isatty(STDIN_FILENO) != 1 || isatty(STDOUT_FILENO) != 1)
        throw Refusal("standard input and output have to be a terminal; --once prints the same once");
    asciiOnly_ = std::setlocale(LC_CTYPE, "") == nullptr || std::strcmp(nl_langinfo(CODESET), "UTF-8") != 0;
    if (newterm(nullptr, stdout, stdin) == nullptr)
        throw Refusal(terminalType().empty()
                          ? "$TERM does not name the terminal; --once prints the same once"
                          : "nothing is known of the terminal '" + terminalType() +
                                "': there is no terminfo entry here, see $TERMINFO; --once prints the same once");
    if (columns() < kLeastWatchColumns || rows() < kLeastWatchRows) {
        const std::string has = std::to_string(columns()) + " columns and " + std::to_string(rows()) + " rows";
        endwin();
        throw Refusal("the terminal has " + has + ", watch takes " + std::to_string(kLeastWatchColumns) + " and " +
                      std::to_string(kLeastWatchRows));
    }
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        heed(signal);
    cbreak();
    noecho();
    nonl();
    keypad(stdscr, TRUE);
    set_escdelay(25);
    curs_set(0);
    useColours();
}

WatchScreen::~WatchScreen()
{
    endwin();
}

unsigned WatchScreen::columns() const
{
    return static_cast<unsigned>(getmaxx(stdscr));
}

unsigned WatchScreen::rows() const
{
    return static_cast<unsigned>(getmaxy(stdscr));
}

void WatchScreen::draw(const std::vector<WatchLine>& lines)
{
    werase(stdscr);
    for (std::size_t row = 0; row < lines.size(); ++row) {
        wmove(stdscr, static_cast<int>(row), 0);
        for (const WatchPiece& piece : lines[row]) {
            wattrset(stdscr, static_cast<int>(attributesOf(piece.kind)));
            waddstr(stdscr, piece.text.c_str());
        }
    }
    wrefresh(stdscr);
}

WatchScreen::Key WatchScreen::key(int milliseconds)
{
    wtimeout(stdscr, milliseconds);
    const int code = wgetch(stdscr);
    if (askedToEnd != 0)
        return Key::Quit;
    switch (code) {
    case ERR: return Key::None;
    case 'q':
    case 'Q': return Key::Quit;
    case 'h':
    case '?': return Key::Help;
    case 'p':
    case ' ': return Key::Pause;
    case 's': return Key::Sort;
    case '+':
    case '=': return Key::Longer;
    case '-': return Key::Shorter;
    case KEY_UP:
    case 'k': return Key::Up;
    case KEY_DOWN:
    case 'j': return Key::Down;
    case KEY_RESIZE: return Key::Resize;
    default: return Key::Other;
    }
}

} // namespace velmora::tools
