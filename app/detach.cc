// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "app/detach.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>

#include "app/command_line.h"

namespace app {
namespace {

int open_file(const std::string& name) {
    const int file = open(name.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (file < 0)
        throw UsageError("--log: " + name + ": " + std::generic_category().message(errno));
    return file;
}

int open_journal() {
    const int journal = sd_journal_stream_fd("tarv-host", LOG_INFO, 0);
    if (journal < 0)
        throw UsageError("--detach: there is no journal here (" +
                         std::generic_category().message(-journal) +
                         "); --log FILE says where the lines are to go");
    return journal;
}

}  // namespace

Detachment::Detachment(const std::string& log_file)
    : log_name_(log_file.empty() ? "the journal" : log_file),
      log_(log_file.empty() ? open_journal() : open_file(log_file)) {}

Detachment::~Detachment() {
    close(log_);
    if (first_process_ >= 0)
        close(first_process_);
}

std::optional<int> Detachment::split() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        throw std::system_error(errno, std::generic_category(), "pipe");
    std::fflush(nullptr);
    const pid_t process = fork();
    if (process < 0)
        throw std::system_error(errno, std::generic_category(), "fork");
    if (process == 0) {
        close(ends[0]);
        first_process_ = ends[1];
        setsid();
        return {};
    }
    close(ends[1]);
    char ready;
    ssize_t length;
    while ((length = read(ends[0], &ready, 1)) < 0 && errno == EINTR)
        continue;
    close(ends[0]);
    if (length == 1)
        return 0;
    int status = 0;
    while (waitpid(process, &status, 0) < 0 && errno == EINTR)
        continue;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

void Detachment::ready(const std::string& text) {
    std::fputs(text.c_str(), stdout);
    std::fflush(stdout);
    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    dup2(nothing, STDIN_FILENO);
    close(nothing);
    dup2(log_, STDOUT_FILENO);
    dup2(log_, STDERR_FILENO);
    // Whoever started the program may be gone already, and needs to be told nothing then.
    [[maybe_unused]] const ssize_t told = write(first_process_, "", 1);
    close(first_process_);
    first_process_ = -1;
}

}  // namespace app
