// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "tests/simulation/run.h"

#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <system_error>

#include "tests/simulation/choose.h"

namespace simulation {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int look_every = 500;          // milliseconds
constexpr double longest_line = 60;      // seconds; after so many without one the run hangs
constexpr std::size_t most_said = 8000;  // bytes of what a dying run says that are kept

double seconds_since(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

/* What the running process leaves behind for the one that watches it, however it ends. */
struct Board {
    std::atomic<std::uint64_t> lines;
    std::uint64_t world;
    std::uint64_t line_of_world;
    std::uint64_t digest;
    Counts counts;
    bool violated;
    char name[64];
    char text[most_said];

    void write(const Violation& violation) {
        std::snprintf(name, sizeof name, "%s", violation.name.c_str());
        std::snprintf(text, sizeof text, "%s", violation.text.c_str());
        violated = true;
    }
};

/* Memory that both processes see. */
class SharedBoard {
  public:
    SharedBoard()
        : memory_(mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                       -1, 0)) {
        if (memory_ == MAP_FAILED)
            throw std::system_error(errno, std::generic_category(), "mmap");
        board_ = new (memory_) Board{};
    }
    ~SharedBoard() { munmap(memory_, sizeof(Board)); }
    SharedBoard(const SharedBoard&) = delete;
    SharedBoard& operator=(const SharedBoard&) = delete;

    Board& operator*() { return *board_; }
    Board* operator->() { return board_; }

  private:
    void* memory_;
    Board* board_;
};

/* A world of lines. The first ones make it; the judge is there from the first that acts. */
class World {
  public:
    World(Board& board, const app::Site& site) : board_(board), reading_{.site = &site} {
        board.line_of_world = 0;
    }

    /// False after a violation.
    bool take(const std::string& text) {
        app::ScriptLine line("line", static_cast<int>(++board_.line_of_world), text);
        if (line.at_end())
            return true;
        const app::ScriptStep step = app::read_step(line, reading_);
        if (!judge_ && !text.starts_with("hosts") && !text.starts_with("jiffies"))
            judge_.emplace(*reading_.site, reading_.first_jiffy);
        if (judge_)
            judge_->take(step);
        board_.lines.fetch_add(1, std::memory_order_relaxed);
        return !judge_ || !judge_->violation();
    }

    /// Writes down how it went; after a violation the process ends, because what a broken module
    /// holds cannot be taken apart in order.
    void end(bool may_wait) {
        if (!judge_)
            return;
        if (!judge_->violation())
            judge_->end(may_wait);
        board_.counts.add(judge_->counts());
        board_.digest = (board_.digest ^ judge_->digest()) * 0x9E3779B97F4A7C15u;
        if (!judge_->violation())
            return;
        board_.write(*judge_->violation());
        _exit(1);
    }

  private:
    Board& board_;
    app::ScriptReading reading_;
    std::optional<Judge> judge_;
};

/* The lines of a world, one after the other, as long as `take` goes on. */
template <class Take>
void for_each_line(std::uint64_t seed, std::uint64_t number, std::uint64_t most, Take take) {
    Chooser chooser(seed, number);
    for (const std::string& line : chooser.first_lines())
        if (!take(line))
            return;
    for (std::uint64_t i = 0; i < std::min(chooser.length(), most); ++i)
        if (!take(chooser.next_line()))
            return;
    for (const std::string& line : chooser.last_lines())
        if (!take(line))
            return;
}

void run_worlds(Board& board, std::uint64_t seed, const Limits& limits) {
    const auto begin = Clock::now();
    const app::Site nowhere;
    for (std::uint64_t number = 0;; ++number) {
        const std::uint64_t done = board.lines.load(std::memory_order_relaxed);
        if ((limits.lines != 0 && done >= limits.lines) ||
            (limits.seconds > 0 && seconds_since(begin) >= limits.seconds))
            return;
        board.world = number;
        World world(board, nowhere);
        for_each_line(seed, number, limits.lines != 0 ? limits.lines - done : ~0ull,
                      [&](const std::string& line) { return world.take(line); });
        world.end(false);
    }
}

/* How a run came to its end without saying so itself. */
Violation read_death(int status, const std::string& said) {
    constexpr std::string_view mark = "host: ";
    const std::size_t at = said.find(mark);
    if (at != said.npos) {
        const std::string line =
            said.substr(at + mark.size(), said.find('\n', at) - at - mark.size());
        return {"kernel_rule:" + line.substr(0, line.find(':')), line};
    }
    const std::string how = WIFSIGNALED(status)
                                ? std::string("signal SIG") + sigabbrev_np(WTERMSIG(status))
                                : "exit status " + std::to_string(WEXITSTATUS(status));
    return {"crash", how + (said.empty() ? "" : "\n" + said)};
}

class Progress {
  public:
    explicit Progress(const std::string& what) : what_(what) {}
    ~Progress() {
        if (shown_ && terminal_)
            std::fputs("\r\033[K", stderr);
    }
    void show(std::uint64_t lines, double seconds) {
        if (!terminal_ && seconds < next_)
            return;
        next_ = seconds + 10;
        shown_ = true;
        std::fprintf(stderr, "%ssimulation: %s: %llu lines, %.0f a second%s", terminal_ ? "\r" : "",
                     what_.c_str(), static_cast<unsigned long long>(lines),
                     seconds > 0 ? static_cast<double>(lines) / seconds : 0,
                     terminal_ ? "\033[K" : "\n");
    }

  private:
    const std::string what_;
    const bool terminal_ = isatty(STDERR_FILENO);
    bool shown_ = false;
    double next_ = 10;
};

/* Reads what the child says until it ends. True when it hangs and was ended. */
bool watch(pid_t child, int pipe, SharedBoard& board, Progress* progress, std::string& said) {
    const auto begin = Clock::now();
    auto last_line = begin;
    std::uint64_t lines = 0;
    for (;;) {
        pollfd ready{pipe, POLLIN, 0};
        if (poll(&ready, 1, look_every) > 0) {
            char text[4096];
            const ssize_t size = read(pipe, text, sizeof text);
            if (size == 0)
                return false;
            if (size > 0 && said.size() < most_said)
                said.append(text, static_cast<std::size_t>(size));
            continue;
        }
        const std::uint64_t now = board->lines.load(std::memory_order_relaxed);
        if (now != lines)
            last_line = Clock::now();
        lines = now;
        if (progress)
            progress->show(lines, seconds_since(begin));
        if (seconds_since(last_line) > longest_line) {
            kill(child, SIGKILL);
            return true;
        }
    }
}

Result run_apart(const std::function<void(Board&)>& run, const char* shown_as) {
    SharedBoard board;
    int ends[2];
    if (pipe(ends) != 0)
        throw std::system_error(errno, std::generic_category(), "pipe");
    const auto begin = Clock::now();
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child < 0)
        throw std::system_error(errno, std::generic_category(), "fork");
    if (child == 0) {
        dup2(ends[1], STDERR_FILENO);
        ::close(ends[0]);
        ::close(ends[1]);
        try {
            run(*board);
        } catch (const std::exception& failed) {
            board->write({"exception", failed.what()});
        }
        _exit(0);
    }
    ::close(ends[1]);
    std::string said;
    bool hangs = false;
    {
        std::optional<Progress> progress;
        if (shown_as)
            progress.emplace(shown_as);
        hangs = watch(child, ends[0], board, progress ? &*progress : nullptr, said);
    }
    ::close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);

    Result result;
    result.seconds = seconds_since(begin);
    result.lines = board->lines;
    result.digest = board->digest;
    result.counts = board->counts;
    result.world = board->world;
    result.line_of_world = board->line_of_world;
    if (hangs)
        result.violation = {"hang", "a line did not end"};
    else if (board->violated)
        result.violation = {board->name, board->text};
    else if (status != 0)
        result.violation = read_death(status, said);
    return result;
}

/* With the same violation at the end, and nothing behind it. Of an expectation every word counts:
 * that a peer which nobody asked for is not resolved is another one. */
bool still_breaks(Lines& lines, const Violation& violation, std::uint64_t& budget) {
    const auto words = [](const Violation& one) {
        return one.name == "expectation" ? one.text.substr(one.text.find(": ")) : one.name;
    };
    const Result result = run_lines(lines, app::Site());
    budget -= std::min<std::uint64_t>(budget, result.lines + 20);
    if (!result.violation || words(*result.violation) != words(violation))
        return false;
    lines.resize(std::min<std::size_t>(lines.size(), result.line_of_world));
    return true;
}

}  // namespace

Lines make_lines(std::uint64_t seed, std::uint64_t number, std::uint64_t most) {
    Lines lines;
    for_each_line(seed, number, most, [&](const std::string& line) {
        lines.push_back(line);
        return true;
    });
    return lines;
}

Result run_seed(std::uint64_t seed, const Limits& limits) {
    const std::string name = "seed " + std::to_string(seed);
    return run_apart([&](Board& board) { run_worlds(board, seed, limits); }, name.c_str());
}

Result run_lines(const Lines& lines, const app::Site& site) {
    return run_apart(
        [&](Board& board) {
            World world(board, site);
            for (const std::string& line : lines)
                if (!world.take(line))
                    break;
            world.end(true);
        },
        nullptr);
}

/* Leaves out ever smaller stretches of lines, as long as that changes nothing. */
Lines shrink(Lines lines, std::size_t kept, const Violation& violation) {
    std::uint64_t budget = 1'000'000;
    const std::size_t all = lines.size();
    if (!still_breaks(lines, violation, budget))
        return lines;
    // What has to be true of the last lines is true because of all of them; what breaks a rule of
    // any line needs none of them.
    const bool of_last_lines = violation.name == "expectation" || violation.name == "still_waiting";
    kept = of_last_lines ? kept - std::min(kept, all - lines.size()) : 0;
    for (std::size_t stretch = lines.size() - kept; stretch > 0 && budget > 0;) {
        bool shorter = false;
        for (std::size_t at = 0; at + kept < lines.size() && budget > 0;) {
            Lines without = lines;
            const auto begin = without.begin() + static_cast<std::ptrdiff_t>(at);
            without.erase(begin, begin + static_cast<std::ptrdiff_t>(
                                             std::min(stretch, without.size() - kept - at)));
            if (!without.empty() && still_breaks(without, violation, budget)) {
                lines = std::move(without);
                shorter = true;
            } else {
                at += stretch;
            }
        }
        std::fprintf(stderr, "simulation: %zu lines are left\n", lines.size());
        if (!shorter || stretch > lines.size())
            stretch = stretch > 1 ? (stretch + 1) / 2 : 0;
    }
    return lines;
}

}  // namespace simulation
