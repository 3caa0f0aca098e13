// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "tests/simulation/run.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>

#include "tests/simulation/choose.h"

namespace simulation {
namespace {

using Clock = std::chrono::steady_clock;

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
            (limits.seconds > 0 &&
             std::chrono::duration<double>(Clock::now() - begin).count() >= limits.seconds))
            return;
        board.world = number;
        World world(board, nowhere);
        for_each_line(seed, number, limits.lines != 0 ? limits.lines - done : ~0ull,
                      [&](const std::string& line) { return world.take(line); });
        world.end(false);
    }
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
    return run_apart([&](Board& board) {
        World world(board, site);
        for (const std::string& line : lines)
            if (!world.take(line))
                break;
        world.end(true);
    });
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
