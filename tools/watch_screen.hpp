// The terminal while "velmora-mm watch" draws on it, by ncurses.
#pragma once

#include <memory>
#include <vector>

#include "tools/watch_view.hpp"

namespace velmora::tools {

class WatchScreen
{
public:
    enum class Key { None, Quit, Help, Pause, Sort, Longer, Shorter, Up, Down, Resize, Other };

    // Takes the terminal over; its end gives it back as it was. Refusal with a sentence when it cannot be drawn on.
    WatchScreen();
    WatchScreen(const WatchScreen&) = delete;
    WatchScreen& operator=(const WatchScreen&) = delete;
    ~WatchScreen();

    unsigned columns() const;
    unsigned rows() const;
    bool asciiOnly() const { return asciiOnly_; }
    void draw(const std::vector<WatchLine>& lines);
    // Waits for a key, so many milliseconds at most. Quit too when the process is asked to end by a signal.
    Key key(int milliseconds);

private:
    bool asciiOnly_ = true;
};

} // namespace velmora::tools
