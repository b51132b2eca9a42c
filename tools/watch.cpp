#include "commands.hpp"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <iterator>
#include <optional>

#include "command_line.hpp"
#include "device_command.hpp"
#include "kernel_log.hpp"
#include "terminal.hpp"
#include "watch_view.hpp"
#ifdef VELMORA_HAS_NCURSES
#include "watch_screen.hpp"
#endif

namespace velmora::tools {

namespace {

constexpr const char* kDescription =
    R"(velmora-mm watch - segments as they fill and empty, until q is pressed

A bar of what is used of each segment and its peak since watch began; what was free, and the longest run of free
blocks, in the past; the last lines of the kernel log.
)";

constexpr const char* kNotes =
    R"(keys
  h  help         s  sort by handle, use, free, name     + -      longer, shorter interval
  q  quit         p  pause, and go on                    up down  other segments

It takes a terminal of 20 columns and 5 rows at least. The heap is not watched: the manager shows it on the kernel log
only, see "velmora-mm status". When the device goes away watch ends, with exit status 3.
)";

constexpr const char* kExamples = R"(  velmora-mm watch
  velmora-mm watch --interval 0.2 --device unix:/tmp/mm.sock
  velmora-mm watch --once
)";

constexpr double kIntervals[] = {0.1, 0.2, 0.5, 1, 2, 5, 10, 30, 60};

struct Options {
    double interval = 1;
    bool once = false;
};

void describe(CLI::App& app, Options& options)
{
    app.add_option("--interval", options.interval, "seconds between two looks, 0.1 to 60; default 1")
        ->type_name("SECONDS")
        ->check(CLI::Range(kIntervals[0], *std::rbegin(kIntervals)).description(""));
    app.add_flag("--once", options.once, "print what there is now, and end: no terminal is needed");
}

std::string clockText()
{
    const std::time_t seconds = std::time(nullptr);
    char text[16];
    return {text, std::strftime(text, sizeof text, "%H:%M:%S", std::localtime(&seconds))};
}

void print(std::ostream& out, const WatchView& view)
{
    constexpr unsigned kColumns = 80;
    for (const WatchLine& line : watchLines(view, kColumns, 0, !localeIsUtf8())) {
        std::string text;
        for (const WatchPiece& piece : line)
            text += piece.text;
        out << text.substr(0, text.find_last_not_of(' ') + 1) << "\n";
    }
}

#ifdef VELMORA_HAS_NCURSES

// The log as far as it can be read: what hinders is shown in its place.
class WatchedLog
{
public:
    WatchedLog(const std::string& device, WatchView& view) : view_(view)
    {
        try {
            log_.emplace(device);
        } catch (const std::system_error& error) {
            view_.logUnknown = error.what();
        }
    }

    void take()
    {
        try {
            if (log_)
                view_.addLog(log_->take());
        } catch (const std::runtime_error& error) { // lost messages; a device that is gone says so itself
            view_.addLog({error.what()});
        }
    }

private:
    std::optional<KernelLog> log_;
    WatchView& view_;
};

class Watch
{
public:
    Watch(Device& device, const std::string& name, double interval) : device_(device)
    {
        view_.device = name;
        view_.interval = interval;
        log_.emplace(name, view_);
    }

    void run()
    {
        look(); // before the terminal is taken: a device that is none is said plainly
        WatchScreen screen;
        for (auto next = Clock::now() + interval();;) {
            draw(screen);
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(next - Clock::now());
            const WatchScreen::Key key = screen.key(std::max(static_cast<int>(left.count()), 0));
            if (key == WatchScreen::Key::Quit)
                return;
            heed(key);
            if (Clock::now() >= next) {
                if (!view_.paused)
                    look();
                next = Clock::now() + interval();
            }
        }
    }

private:
    using Clock = std::chrono::steady_clock;

    Clock::duration interval() const
    {
        return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(view_.interval));
    }

    void look()
    {
        view_.sample(device_);
        log_->take();
        view_.time = clockText();
    }

    void draw(WatchScreen& screen) const
    {
        const unsigned columns = screen.columns(), rows = screen.rows();
        if (columns < kLeastWatchColumns || rows < kLeastWatchRows)
            return screen.draw({{{"too small", WatchPiece::Kind::Title}}});
        screen.draw(watchLines(view_, columns, rows, screen.asciiOnly()));
    }

    void heed(WatchScreen::Key key)
    {
        using Key = WatchScreen::Key;
        const bool leavesHelp = view_.help && key != Key::None && key != Key::Resize;
        view_.help = !leavesHelp && (view_.help || key == Key::Help);
        if (key == Key::Pause)
            view_.paused = !view_.paused;
        else if (key == Key::Sort)
            view_.order = static_cast<WatchOrder>((static_cast<int>(view_.order) + 1) % 4);
        else if (key == Key::Longer)
            view_.interval =
                *std::ranges::upper_bound(std::begin(kIntervals), std::end(kIntervals) - 1, view_.interval);
        else if (key == Key::Shorter)
            view_.interval =
                *std::prev(std::max(std::ranges::lower_bound(kIntervals, view_.interval), std::begin(kIntervals) + 1));
        else if (key == Key::Up)
            view_.first -= view_.first != 0 ? 1 : 0;
        else if (key == Key::Down)
            view_.first += view_.first + 1 < view_.segments.size() ? 1 : 0;
    }

    Device& device_;
    WatchView view_;
    std::optional<WatchedLog> log_;
};

void watchOnTerminal(Device& device, const std::string& name, double interval)
{
    Watch(device, name, interval).run();
}

#else

void watchOnTerminal(Device&, const std::string&, double)
{
    throw Refusal("this velmora-mm was built without ncurses; --once prints the same once");
}

#endif

} // namespace

int watch(const Words& words, std::ostream& out, std::ostream& errors)
{
    DeviceCommand command("watch", kDescription, deviceNotes(kNotes, kExamples));
    Options options;
    describe(command.app(), options);
    return command.run(words, out, errors, [&](Device& device) {
        const std::string name = deviceName(command.device());
        if (!options.once) {
            watchOnTerminal(device, name, options.interval);
            return kDone;
        }
        WatchView view{.device = name, .time = clockText(), .interval = options.interval};
        view.sample(device);
        print(out, view);
        return kDone;
    });
}

} // namespace velmora::tools
