// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "app/output.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <string_view>
#include <system_error>
#include <utility>

#include "app/table.h"

namespace app {

Output::Output(int descriptor, std::size_t most) : descriptor_(descriptor), most_(most) {
    // Signals are for the others, but for the one that says that nobody reads any more.
    sigset_t all, before;
    sigfillset(&all);
    sigdelset(&all, SIGPIPE);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    writer_ = std::thread([this] { write_all(); });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void Output::say(const std::string& text) {
    const std::lock_guard guard(mutex_);
    if (text_.size() + text.size() > most_) {
        ++lost_lines_;
        return;
    }
    tell_losses();
    text_ += text;
    said_.notify_one();
}

void Output::tell_losses() {
    if (lost_lines_ == 0)
        return;
    text_ += "... " + counted(std::exchange(lost_lines_, 0), "line") +
             " lost, because nobody read in time ...\n";
}

bool Output::finish() {
    {
        const std::lock_guard guard(mutex_);
        tell_losses();
        finishing_ = true;
        said_.notify_one();
    }
    if (writer_.joinable())
        writer_.join();
    return error_ == 0;
}

void Output::write_all() {
    std::unique_lock lock(mutex_);
    while (true) {
        said_.wait(lock, [this] { return finishing_ || !text_.empty(); });
        if (text_.empty())
            return;
        const std::string text = std::exchange(text_, {});
        lock.unlock();
        write_out(text);
        lock.lock();
    }
}

/* What cannot be written is lost; what comes later is tried again, as a disk may have room then. */
void Output::write_out(const std::string& text) {
    for (std::string_view rest = text; !rest.empty();) {
        const ssize_t written = write(descriptor_, rest.data(), rest.size());
        if (written >= 0) {
            rest.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno != EINTR) {
            const int error = errno;
            if (error_.exchange(error) == 0)
                std::fprintf(stderr, "tarv-host: standard output: %s\n",
                             std::generic_category().message(error).c_str());
            return;
        }
    }
}

}  // namespace app
