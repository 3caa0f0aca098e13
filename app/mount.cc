// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "app/mount.h"

#include <fcntl.h>
#include <linux/fuse.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "app/mount_fuse.h"
#include "app/mount_point.h"
#include "app/mount_tree.h"

namespace app {
namespace {

/* Requests may wait for one another inside the module, one writer for the next. */
constexpr std::size_t server_threads = 8;

}  // namespace

void add_mount_option(CommandLine& line, std::string& directory) {
    line.text("--mount", directory, "DIR",
              "Show the control files and the console's lines (kmsg) below\n"
              "an existing directory, through FUSE");
}

struct Mount::Mounted {
    Mounted(const std::string& directory, const Kmsg& kmsg)
        : tree(kmsg), fuse(make_fuse(tree)), point(directory, fuse.get()) {
        session = fuse_get_session(fuse.get());
        // Several threads wait for one request, and only one of them gets it.
        const int descriptor = fuse_session_fd(session);
        fcntl(descriptor, F_SETFL, fcntl(descriptor, F_GETFL) | O_NONBLOCK);
        if (stop < 0)
            throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    ~Mounted() { close(stop); }

    void serve();
    bool wait();
    int receive(fuse_buf& buffer, bool& closes);

    MountTree tree;
    FusePointer fuse;
    MountPoint point;
    fuse_session* session = nullptr;
    const int stop = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    std::mutex receiving;  // one thread takes a request at a time
    std::vector<std::thread> threads;
    std::atomic<bool> gone = false;
};

/* False when the threads are to end. */
bool Mount::Mounted::wait() {
    pollfd sources[] = {{fuse_session_fd(session), POLLIN, 0}, {stop, POLLIN, 0}};
    while (poll(sources, std::size(sources), -1) < 0)
        if (errno != EINTR)
            return false;
    return sources[1].revents == 0;
}

/* Takes a request; `closes` when it closes a file. The kernel hands out requests in order, but they
 * are carried out side by side: what must come after a closing has to know of it before the next
 * request is taken. The result is that of fuse_session_receive_buf(). */
int Mount::Mounted::receive(fuse_buf& buffer, bool& closes) {
    const std::lock_guard guard(receiving);
    const int result = fuse_session_receive_buf(session, &buffer);
    closes = result >= static_cast<int>(sizeof(fuse_in_header)) &&
             static_cast<const fuse_in_header*>(buffer.mem)->opcode == FUSE_RELEASE;
    if (closes)
        tree.closing_begins();
    return result;
}

void Mount::Mounted::serve() {
    fuse_buf buffer{};
    while (wait()) {
        bool closes = false;
        const int result = receive(buffer, closes);
        if (result == -EAGAIN || result == -EINTR)
            continue;
        if (result <= 0) {
            gone = true;
            break;
        }
        fuse_session_process_buf(session, &buffer);
        if (closes)
            tree.closing_ended();
    }
    std::free(buffer.mem);
}

Mount::Mount(const std::string& directory, const Kmsg& kmsg) {
    if (!directory.empty())
        mounted_ = std::make_unique<Mounted>(directory, kmsg);
}

Mount::~Mount() = default;

bool Mount::gone() const {
    return mounted_ && mounted_->gone;
}

Mount::Serving::Serving(Mount& mount, std::function<std::string()> metrics) : mount_(mount) {
    if (!mount_.mounted_)
        return;
    Mounted& mounted = *mount_.mounted_;
    mounted.tree.show_metrics(std::move(metrics));
    for (std::size_t i = 0; i < server_threads; ++i)
        mounted.threads.emplace_back([&mounted] { mounted.serve(); });
}

Mount::Serving::~Serving() {
    if (!mount_.mounted_)
        return;
    Mounted& mounted = *mount_.mounted_;
    eventfd_write(mounted.stop, 1);
    for (std::thread& thread : mounted.threads)
        thread.join();
    mounted.threads.clear();
    mounted.tree.close_all();
}

}  // namespace app
