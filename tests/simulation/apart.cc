// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "tests/simulation/apart.h"

#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <new>
#include <system_error>

namespace simulation {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int look_every = 500;      // milliseconds
constexpr double longest_line = 60;  // seconds; after so many without one the run hangs

double seconds_since(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

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
            if (size > 0 && said.size() < Board::most_said)
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

}  // namespace

void Board::write(const Violation& violation) {
    std::snprintf(name, sizeof name, "%s", violation.name.c_str());
    std::snprintf(text, sizeof text, "%s", violation.text.c_str());
    violated = true;
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
    result.struck = board->struck;
    if (hangs)
        result.violation = {"hang", "a line did not end"};
    else if (board->violated)
        result.violation = {board->name, board->text};
    else if (status != 0)
        result.violation = read_death(status, said);
    return result;
}

}  // namespace simulation
