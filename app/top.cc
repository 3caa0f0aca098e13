// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The verb "top": looks at a mounted host from outside, by the files of its mount, again and again.
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "app/stop_signals.h"
#include "app/table.h"
#include "app/top_view.h"
#include "app/verbs.h"

namespace app {
namespace {

using Clock = std::chrono::steady_clock;

struct TopOptions {
    std::string directory = "/run/tarv-host";  // where the unit of the package has its host
    double seconds = 1;
    bool once = false;
};

constexpr std::size_t all = std::numeric_limits<std::size_t>::max();
constexpr std::size_t row_bytes = 100;  // more than a row of the control file takes

/* As much of the file; empty when it cannot be read. Closing it early keeps nobody waiting. */
std::string read_file(const std::string& path, std::size_t most) {
    std::ifstream in(path, std::ios::binary);
    std::string text;
    char buffer[4096];
    while (text.size() < most && (in.read(buffer, sizeof buffer), in.gcount() > 0))
        text.append(buffer, static_cast<std::size_t>(in.gcount()));
    return text;
}

class Host {
  public:
    explicit Host(const std::string& directory) : directory_(directory + "/quorvane/tarv/") {}

    /* False when there is no host any more. */
    bool look(std::size_t rows) {
        Samples now(read_file(directory_ + "metrics", all));
        if (now.empty())
            return false;
        before_ = std::exchange(now_, std::move(now));
        // Where somebody else is reading the table, the last one has to do.
        std::string control =
            read_file(directory_ + "control", rows == all ? all : rows * row_bytes);
        if (control.starts_with("IP address"))
            control_ = std::move(control);
        return true;
    }
    std::string text(std::size_t width, std::size_t height) const {
        return format_top(now_, before_, control_, width, height);
    }

  private:
    const std::string directory_;
    Samples now_{""}, before_{""};
    std::string control_;
};

/* The terminal as long as it is drawn on: another screen without a cursor, keys one by one. What
 * was on it before comes back, whatever ends the program in order. */
class Screen {
  public:
    Screen() {
        if (tcgetattr(STDIN_FILENO, &before_) == 0) {
            termios keys = before_;
            keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
            keys.c_cc[VSUSP] = _POSIX_VDISABLE;  // a stopped program could not give it back
            typing_ = tcsetattr(STDIN_FILENO, TCSANOW, &keys) == 0;
        }
        struct sigaction wake {};
        wake.sa_handler = [](int) {};
        sigaction(SIGWINCH, &wake, &resized_);
        put("\033[?1049h\033[?25l");
    }
    ~Screen() {
        put("\033[?25h\033[?1049l");
        sigaction(SIGWINCH, &resized_, nullptr);
        if (typing_)
            tcsetattr(STDIN_FILENO, TCSANOW, &before_);
    }
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    static winsize size() {
        winsize size{};
        if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0)
            size.ws_col = 80, size.ws_row = 24;
        return size;
    }

    /* False when there is nobody to see it. */
    bool draw(const std::string& text) const {
        std::string frame = "\033[H";
        bool first = true;
        for (std::size_t at = 0; at < text.size(); first = false) {
            const std::size_t end = text.find('\n', at);
            frame += (first ? "" : "\r\n") + text.substr(at, end - at) + "\033[K";
            at = end + 1;
        }
        return put(frame + "\033[J");
    }

    /* False when it is to end. Ends early when the terminal has changed its size. */
    bool wait(double seconds) const {
        const auto end = Clock::now() + std::chrono::duration<double>(seconds);
        for (auto now = Clock::now(); now < end; now = Clock::now()) {
            // A signal between a look and the wait is then seen soon, too.
            const double rest = std::chrono::duration<double>(end - now).count();
            pollfd keys{typing_ ? STDIN_FILENO : -1, POLLIN, 0};
            const int ready =
                poll(&keys, 1, static_cast<int>(std::ceil(std::min(rest, 0.25) * 1000)));
            if (StopSignals::told())
                return false;
            if (ready < 0)
                return errno == EINTR;
            char key = 'q';
            if (ready > 0 && (read(STDIN_FILENO, &key, 1) <= 0 || key == 'q' || key == '\004'))
                return false;
        }
        return true;
    }

  private:
    static bool put(const std::string& text) {
        for (std::size_t done = 0; done < text.size();) {
            const ssize_t written = write(STDOUT_FILENO, text.data() + done, text.size() - done);
            if (written < 0 && errno != EINTR)
                return false;
            done += static_cast<std::size_t>(std::max<ssize_t>(written, 0));
        }
        return true;
    }

    termios before_{};
    bool typing_ = false;
    struct sigaction resized_ {};
};

int watch(Host& host, const TopOptions& options) {
    const StopSignals signals;
    bool there = true, seen = true;
    {
        const Screen screen;
        do {
            const winsize size = Screen::size();
            there = host.look(size.ws_row);
            seen = there && screen.draw(host.text(size.ws_col, size.ws_row));
        } while (seen && screen.wait(options.seconds));
    }
    if (!there)
        throw std::runtime_error(options.directory + ": the host has gone");
    return seen ? 0 : 1;
}

int top(const TopOptions& options) {
    Host host(options.directory);
    if (!host.look(0))
        throw UsageError(options.directory +
                         ": no host is mounted there; tarv-host run --mount DIR mounts one");
    if (!options.once && isatty(STDOUT_FILENO))
        return watch(host, options);
    host.look(all);
    std::fputs(host.text(terminal_width(STDOUT_FILENO), all).c_str(), stdout);
    return 0;
}

}  // namespace

Action declare_top(CommandLine& line) {
    const auto options = std::make_shared<TopOptions>();
    line.optional_word("DIR", options->directory,
                       "Where the host is mounted (otherwise /run/tarv-host)");
    line.flag("--once", options->once,
              "Print once, all entries, and end; so it is where standard\n"
              "output is no terminal");
    line.seconds("--interval", options->seconds, "How long between two looks (otherwise 1)");
    line.footer("q ends it, and so does Ctrl-C.");
    return [options] { return top(*options); };
}

}  // namespace app
