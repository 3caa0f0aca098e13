// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// printk and the ring of the lines that it printed.
#include "host/console.h"

#include <cstdarg>
#include <deque>
#include <memory>
#include <mutex>
#include <string_view>

#include "host/executor.h"
#include "host/format.h"
#include "host/internal.h"
#include "platform/printk.h"

namespace host {
namespace {

constexpr std::size_t ring_size = 65536;
constexpr int default_priority = 4;

/* The ring belongs to the process, not to a Kernel: its lines can still be read when the Kernel
 * has ended, and are gone when the next one begins. */
class Console {
  public:
    void print(std::string_view text, unsigned long now) {
        const std::lock_guard guard(mutex_);
        while (!text.empty()) {
            if (!open_)
                begin_line(text, now);
            const std::size_t end = text.find('\n');
            line_.text.append(text.substr(0, end));
            if (end == std::string_view::npos)
                return;
            end_line();
            // A tag at the start of a call is the call's; every line may bring its own.
            text.remove_prefix(end + 1);
        }
    }
    void clear() {
        const std::lock_guard guard(mutex_);
        ring_.clear();
        open_ = false;
    }
    void set_sink(ConsoleSink sink) {
        const std::lock_guard guard(mutex_);
        sink_.swap(sink);
    }
    std::vector<LogLine> lines() {
        const std::lock_guard guard(mutex_);
        std::vector<LogLine> result(ring_.begin(), ring_.end());
        if (open_)
            result.push_back(line_);
        return result;
    }

  private:
    void begin_line(std::string_view& text, unsigned long now) {
        line_ = {default_priority, now, {}};
        open_ = true;
        if (text.size() >= 3 && text[0] == '<' && text[1] >= '0' && text[1] <= '7' &&
            text[2] == '>') {
            line_.priority = text[1] - '0';
            text.remove_prefix(3);
        }
    }
    void end_line() {
        open_ = false;
        if (sink_)
            sink_(line_);
        if (ring_.size() == ring_size)
            ring_.pop_front();
        ring_.push_back(std::move(line_));
    }

    std::mutex mutex_;
    std::deque<LogLine> ring_;
    ConsoleSink sink_;
    LogLine line_{};     // the line that has no end yet
    bool open_ = false;  // there is one
};

Console& console() {
    static Console the_console;
    return the_console;
}

/* Calls `use` with the formatted text. Nearly all texts fit on the stack. */
template <class Use>
std::size_t with_text(const char* format, va_list arguments, Use use) {
    char room[512];
    const std::size_t length = format_text(room, sizeof room, format, arguments);
    if (length < sizeof room) {
        use(std::string_view(room, length));
        return length;
    }
    const auto text = std::make_unique<char[]>(length + 1);
    format_text(text.get(), length + 1, format, arguments);
    use(std::string_view(text.get(), length));
    return length;
}

}  // namespace

const Service console_service = {clear_console, [] {}, [](std::vector<std::string>&) {}};

void set_console(ConsoleSink sink) {
    console().set_sink(std::move(sink));
}

std::vector<LogLine> console_lines() {
    return console().lines();
}

void clear_console() {
    console().clear();
}

std::string kformat(const char* format, ...) {
    std::string result;
    va_list arguments;
    va_start(arguments, format);
    with_text(format, arguments, [&](std::string_view text) { result = text; });
    va_end(arguments);
    return result;
}

}  // namespace host

int printk(const char* format, ...) {
    host::enter("printk");
    const unsigned long now = host::executor().now();
    va_list arguments;
    va_start(arguments, format);
    const std::size_t length = host::with_text(
        format, arguments, [&](std::string_view text) { host::console().print(text, now); });
    va_end(arguments);
    return static_cast<int>(length);
}
