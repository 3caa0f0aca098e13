// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "app/mount_point.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <system_error>

#include "app/options.h"

namespace app {
namespace {

namespace fs = std::filesystem;

constexpr const char* device = "/dev/fuse";
constexpr const char* without = "; without --mount everything else works";

[[noreturn]] void refuse(const std::string& why) {
    throw UsageError("--mount: " + why);
}

std::string find_unmounter() {
    for (const char* file :
         {"/usr/bin/fusermount3", "/bin/fusermount3", "/usr/local/bin/fusermount3"})
        if (access(file, X_OK) == 0)
            return file;
    return {};
}

std::string message_of(int error) {
    return std::generic_category().message(error);
}

fs::path check_directory(const std::string& directory) {
    std::error_code error;
    fs::path path = fs::canonical(directory, error);
    const bool is_directory = !error && fs::is_directory(path, error);
    if (error.value() == ENOTCONN)
        refuse(directory + ": a program that was killed has left its mount there; fusermount3 -u " +
               directory + " takes it away");
    if (error)
        refuse(directory + ": " + error.message());
    if (!is_directory)
        refuse(directory + ": " + message_of(ENOTDIR));
    if (path.native().size() >= PATH_MAX)
        refuse(directory + ": " + message_of(ENAMETOOLONG));
    return path;
}

void check_fuse(const std::string& unmounter) {
    if (access(device, F_OK) != 0)
        refuse(std::string("there is no ") + device +
               ": load the kernel's module for it (modprobe fuse), or give it to the container "
               "(--device /dev/fuse --cap-add SYS_ADMIN)" +
               without);
    if (geteuid() != 0 && unmounter.empty())
        refuse(
            "there is no fusermount3, which mounts for users other than root: install the package "
            "fuse3 (apt-get install fuse3)" +
            std::string(without));
}

/* What is written to standard error while it exists: libfuse and fusermount3 explain themselves
 * there and nowhere else. */
class StandardErrorCatcher {
  public:
    StandardErrorCatcher()
        : file_(memfd_create("stderr", MFD_CLOEXEC)),
          before_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)) {
        std::fflush(stderr);
        dup2(file_, STDERR_FILENO);
    }
    ~StandardErrorCatcher() {
        std::fflush(stderr);
        dup2(before_, STDERR_FILENO);
        close(before_);
        close(file_);
    }
    StandardErrorCatcher(const StandardErrorCatcher&) = delete;
    StandardErrorCatcher& operator=(const StandardErrorCatcher&) = delete;

    /* In one line. */
    std::string text() const {
        char text[1024];
        const ssize_t length = pread(file_, text, sizeof text, 0);
        std::string result(text, static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
        while (result.ends_with('\n'))
            result.pop_back();
        std::ranges::replace(result, '\n', ';');
        return result;
    }

  private:
    const int file_;
    const int before_;
};

/* For the handler of deadly signals, which may use little else. */
char mounted_directory[PATH_MAX];
char unmounter_program[PATH_MAX];

/* Those that are not, or that cannot be caught. */
constexpr int harmless[] = {SIGKILL, SIGSTOP, SIGTSTP, SIGTTIN,  SIGTTOU,
                            SIGCONT, SIGCHLD, SIGURG,  SIGWINCH, SIGPIPE};
struct sigaction before[NSIG];

/* Calls it with the number of every signal that ends a program which does nothing about it. */
template <class Call>
void for_each_deadly(Call call) {
    for (int number = 1; number < NSIG; ++number)
        if (std::ranges::find(harmless, number) == std::end(harmless))
            call(number);
}

/* Whatever still uses the directory keeps a dead mount of its own. */
void unmount_at_once() {
    if (umount2(mounted_directory, MNT_DETACH) == 0 || unmounter_program[0] == '\0')
        return;
    if (_Fork() == 0) {
        execl(unmounter_program, unmounter_program, "-u", "-q", "-z", "--", mounted_directory,
              nullptr);
        _exit(127);
    }
}

void stop_catching() {
    for_each_deadly([](int number) { sigaction(number, &before[number], nullptr); });
}

/* Raised once more, the signal does what it did before there was a mount. */
void die_unmounted(int number) {
    unmount_at_once();
    stop_catching();
    raise(number);
}

void start_catching() {
    struct sigaction action {};
    action.sa_handler = die_unmounted;
    for_each_deadly([&](int number) {
        // The C library keeps some for itself.
        if (sigaction(number, nullptr, &before[number]) == 0 &&
            before[number].sa_handler != SIG_IGN)
            sigaction(number, &action, nullptr);
    });
}

void remember(char (&where)[PATH_MAX], const std::string& text) {
    where[text.copy(where, sizeof where - 1)] = '\0';
}

}  // namespace

MountPoint::MountPoint(const std::string& directory, fuse* handle) : handle_(handle) {
    const std::string path = check_directory(directory);
    const std::string unmounter = find_unmounter();
    check_fuse(unmounter);
    {
        const StandardErrorCatcher catcher;
        if (fuse_mount(handle_, path.c_str()) != 0)
            refuse(directory + ": cannot be mounted: " + catcher.text() + without);
    }
    remember(mounted_directory, path);
    remember(unmounter_program, unmounter);
    start_catching();
}

MountPoint::~MountPoint() {
    stop_catching();
    fuse_unmount(handle_);
}

}  // namespace app
