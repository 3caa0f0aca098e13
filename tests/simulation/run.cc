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

namespace soak {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int look_every = 500;          // milliseconds
constexpr double longest_step = 60;      // seconds; after so many without one the run hangs
constexpr std::size_t most_said = 8000;  // bytes of what a dying run says that are kept

double seconds_since(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

/* What the running process leaves behind for the one that watches it, however it ends. */
struct Board {
    std::atomic<std::uint64_t> steps;
    std::uint64_t world;
    std::uint64_t step_of_world;
    std::uint64_t digest;
    std::array<std::uint64_t, kinds> taken;
    Tally tally;
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

/* The steps of a world, one by one. */
class Chooser {
  public:
    Chooser(std::uint64_t seed, std::uint64_t n) : random_(seed, n), shape_(choose_world(random_)) {
        length_ = 1000 + random_.below(4000);
    }
    const WorldShape& shape() const { return shape_; }
    std::uint64_t length() const { return length_; }

    Step next() {
        Step step = choose_step(random_, shape_);
        // A world begins with what makes the rest worth while.
        switch (number_++) {
            case 0:
                return {Kind::load, {random_.one_in(2) ? 300u : 60u}, {}};
            case 1:
                return {Kind::write, {}, "enable\n"};
            case 2:
                return {
                    Kind::write, {}, random_.one_in(4) ? "sa_queries off\n" : "sa_queries on\n"};
            default:
                return step;
        }
    }

  private:
    Random random_;
    WorldShape shape_;
    std::uint64_t length_;
    std::uint64_t number_ = 0;
};

/* Runs a world. False after a violation. */
bool run_world(Board& board, const WorldShape& shape, std::uint64_t count,
               const std::function<Step()>& next) {
    Simulation world(shape);
    for (std::uint64_t i = 0; i < count && !world.violation(); ++i) {
        const Step step = next();
        board.step_of_world = i + 1;
        ++board.taken[static_cast<std::size_t>(step.kind)];
        world.take(step);
        board.steps.fetch_add(1, std::memory_order_relaxed);
    }
    if (!world.violation()) {
        board.step_of_world = count + 1;
        world.end();
    }
    board.tally.add(world.tally());
    board.digest = (board.digest ^ world.digest()) * 0x9E3779B97F4A7C15u;
    if (!world.violation())
        return true;
    board.write(*world.violation());
    // What a broken module holds cannot be taken apart in order.
    _exit(1);
}

void run_worlds(Board& board, std::uint64_t seed, const Limits& limits) {
    const auto begin = Clock::now();
    for (std::uint64_t n = 0;; ++n) {
        const std::uint64_t done = board.steps.load(std::memory_order_relaxed);
        if ((limits.steps != 0 && done >= limits.steps) ||
            (limits.seconds > 0 && seconds_since(begin) >= limits.seconds))
            return;
        Chooser chooser(seed, n);
        board.world = n;
        const std::uint64_t left = limits.steps != 0 ? limits.steps - done : chooser.length();
        run_world(board, chooser.shape(), std::min(chooser.length(), left),
                  [&] { return chooser.next(); });
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
    void show(std::uint64_t steps, double seconds) {
        if (!terminal_ && seconds < next_)
            return;
        next_ = seconds + 10;
        shown_ = true;
        std::fprintf(stderr, "%ssoak: %s: %llu steps, %.0f a second%s", terminal_ ? "\r" : "",
                     what_.c_str(), static_cast<unsigned long long>(steps),
                     seconds > 0 ? static_cast<double>(steps) / seconds : 0,
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
    auto last_step = begin;
    std::uint64_t steps = 0;
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
        const std::uint64_t now = board->steps.load(std::memory_order_relaxed);
        if (now != steps)
            last_step = Clock::now();
        steps = now;
        if (progress)
            progress->show(steps, seconds_since(begin));
        if (seconds_since(last_step) > longest_step) {
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
    result.steps = board->steps;
    result.digest = board->digest;
    result.taken = board->taken;
    result.tally = board->tally;
    result.world = board->world;
    result.step_of_world = board->step_of_world;
    if (hangs)
        result.violation = {"hang", "a step did not end"};
    else if (board->violated)
        result.violation = {board->name, board->text};
    else if (status != 0)
        result.violation = read_death(status, said);
    return result;
}

/* With the same violation at the end, and nothing behind it. */
bool still_breaks(Episode& episode, const std::string& violation, std::uint64_t& budget) {
    const Result result = run_episode(episode);
    budget -= std::min<std::uint64_t>(budget, result.steps + 20);
    if (!result.violation || result.violation->name != violation)
        return false;
    episode.steps.resize(std::min<std::size_t>(episode.steps.size(), result.step_of_world));
    return true;
}

}  // namespace

Episode make_episode(std::uint64_t seed, std::uint64_t n, std::uint64_t steps) {
    Chooser chooser(seed, n);
    Episode episode{chooser.shape(), {}};
    for (std::uint64_t i = 0; i < (steps != 0 ? steps : chooser.length()); ++i)
        episode.steps.push_back(chooser.next());
    return episode;
}

Result run_seed(std::uint64_t seed, const Limits& limits) {
    const std::string name = "seed " + std::to_string(seed);
    return run_apart([&](Board& board) { run_worlds(board, seed, limits); }, name.c_str());
}

Result run_episode(const Episode& episode) {
    return run_apart(
        [&](Board& board) {
            std::size_t i = 0;
            run_world(board, episode.shape, episode.steps.size(),
                      [&] { return episode.steps[i++]; });
        },
        nullptr);
}

/* Leaves out ever smaller stretches of steps, as long as that changes nothing. */
Episode shrink(Episode episode, const std::string& violation) {
    std::uint64_t budget = 4'000'000;
    if (!still_breaks(episode, violation, budget))
        return episode;
    for (std::size_t stretch = episode.steps.size(); stretch > 0 && budget > 0;) {
        bool shorter = false;
        for (std::size_t at = 0; at < episode.steps.size() && budget > 0;) {
            Episode without = episode;
            const auto begin = without.steps.begin() + static_cast<std::ptrdiff_t>(at);
            without.steps.erase(begin, begin + static_cast<std::ptrdiff_t>(
                                                   std::min(stretch, without.steps.size() - at)));
            if (!without.steps.empty() && still_breaks(without, violation, budget)) {
                episode = std::move(without);
                shorter = true;
            } else {
                at += stretch;
            }
        }
        std::fprintf(stderr, "soak: %zu steps are left\n", episode.steps.size());
        if (!shorter || stretch > episode.steps.size())
            stretch = stretch > 1 ? (stretch + 1) / 2 : 0;
    }
    return episode;
}

}  // namespace soak
