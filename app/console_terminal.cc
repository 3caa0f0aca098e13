// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "app/console_terminal.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

// readline's header needs this one before it.
#include <cstdio>

#include <readline/history.h>
#include <readline/readline.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <system_error>
#include <utility>

#include "app/table.h"

namespace app {
namespace {

constexpr int look_around = 50;  // milliseconds between two looks at what cannot wake us

/* readline has one state for the whole program, and so have these. */
Complete completion;
std::vector<std::string> matches;
std::size_t next_match;
bool line_is_there;
bool input_has_ended;
std::string typed;
std::atomic<bool> interrupted;
struct sigaction interrupt_before;

char* give_match(const char*, int state) {
    if (state == 0)
        next_match = 0;
    return next_match < matches.size() ? strdup(matches[next_match++].c_str()) : nullptr;
}

char** complete_word(const char* word, int start, int) {
    // File names are of no use here.
    rl_attempted_completion_over = 1;
    matches = completion(std::string(rl_line_buffer, static_cast<std::size_t>(start)), word);
    return rl_completion_matches(word, give_match);
}

void take_line(char* line) {
    line_is_there = true;
    input_has_ended = line == nullptr;
    typed = line ? line : "";
    std::free(line);
    // Whatever the line sets going prints on a terminal in its ordinary state.
    rl_callback_handler_remove();
}

void remember(const std::string& line) {
    const bool blank = line.find_first_not_of(" \t") == std::string::npos;
    const HIST_ENTRY* const last = history_length > 0 ? history_get(history_length) : nullptr;
    if (!blank && (!last || line != last->line))
        add_history(line.c_str());
}

}  // namespace

Terminal::Terminal(std::string prompt, Complete complete)
    : prompt_(std::move(prompt)),
      interactive_(isatty(STDIN_FILENO) && isatty(STDOUT_FILENO)),
      posted_event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (posted_event_ < 0)
        throw std::system_error(errno, std::generic_category(), "eventfd");
    if (!interactive_)
        return;
    completion = std::move(complete);
    rl_readline_name = "tarv-host";
    rl_attempted_completion_function = complete_word;
    rl_persistent_signal_handlers = 1;
    rl_variable_bind("echo-control-characters", "off");
    struct sigaction action {};
    action.sa_handler = [](int) { interrupted = true; };
    sigaction(SIGINT, &action, &interrupt_before);
}

Terminal::~Terminal() {
    print_posted();
    close(posted_event_);
    if (interactive_)
        sigaction(SIGINT, &interrupt_before, nullptr);
}

std::size_t Terminal::width() const {
    return terminal_width(STDOUT_FILENO);
}

void Terminal::post(const std::string& text) {
    const std::lock_guard guard(mutex_);
    posted_ += text;
    eventfd_write(posted_event_, 1);
}

void Terminal::print_posted() {
    std::string text;
    {
        const std::lock_guard guard(mutex_);
        text.swap(posted_);
        eventfd_t count;
        eventfd_read(posted_event_, &count);
    }
    std::fputs(text.c_str(), stdout);
    std::fflush(stdout);
}

void Terminal::print(const std::string& text) {
    print_posted();
    std::fputs(text.c_str(), stdout);
    std::fflush(stdout);
}

bool Terminal::read_line(std::string& line, const std::function<bool()>& stop) {
    print_posted();
    if (!interactive_)
        return wait(&Terminal::read_piped, line, stop);
    line_is_there = false;
    rl_callback_handler_install(prompt_.c_str(), take_line);
    const bool got_one = wait(&Terminal::read_typed, line, stop);
    if (!line_is_there)
        rl_callback_handler_remove();
    if (!got_one)
        std::puts("");
    return got_one;
}

/* `read` is called when there is something to read, and says whether it made a line. */
bool Terminal::wait(bool (Terminal::*read)(std::string&), std::string& line,
                    const std::function<bool()>& stop) {
    if (take_piped(line))
        return true;
    interrupted = false;
    while (!ended_ && !stop()) {
        pollfd sources[] = {{STDIN_FILENO, POLLIN, 0}, {posted_event_, POLLIN, 0}};
        if (poll(sources, std::size(sources), look_around) < 0) {
            if (errno != EINTR)
                return false;
            if (interactive_)
                heed_signals();
            continue;
        }
        if (sources[1].revents != 0) {
            if (interactive_)
                rl_clear_visible_line();
            print_posted();
            if (interactive_)
                rl_forced_update_display();
        }
        if (sources[0].revents != 0 && (this->*read)(line))
            return true;
    }
    return false;
}

/* readline's own handlers only take note, so that it can put the terminal in order here. */
void Terminal::heed_signals() {
    rl_check_signals();
    if (!interrupted.exchange(false)) {
        rl_forced_update_display();
        return;
    }
    // The cursor is no longer where the typed text ends.
    rl_clear_visible_line();
    std::printf("%s%s^C\n", prompt_.c_str(), rl_line_buffer);
    rl_callback_sigcleanup();
    rl_replace_line("", 1);
    rl_on_new_line();
    rl_redisplay();
}

bool Terminal::read_typed(std::string& line) {
    rl_callback_read_char();
    if (!line_is_there)
        return false;
    ended_ = input_has_ended;
    if (ended_)
        return false;
    line = typed;
    remember(line);
    return true;
}

bool Terminal::read_piped(std::string& line) {
    char text[4096];
    const ssize_t length = read(STDIN_FILENO, text, sizeof text);
    if (length > 0) {
        piped_.append(text, static_cast<std::size_t>(length));
        return take_piped(line);
    }
    if (length < 0 && errno == EINTR)
        return false;
    // The last line may have no end.
    ended_ = true;
    line = std::exchange(piped_, {});
    return !line.empty();
}

bool Terminal::take_piped(std::string& line) {
    const std::size_t end = piped_.find('\n');
    if (end == std::string::npos)
        return false;
    line = piped_.substr(0, end);
    piped_.erase(0, end + 1);
    return true;
}

}  // namespace app
