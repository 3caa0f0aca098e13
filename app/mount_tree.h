// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What stands below a mounted directory, whoever serves it: the entries of the host's /proc under
// their own names, kmsg, the console's lines, and beside the module's files metrics, which the host
// makes at each opening.
//
// The calls are those of a file system. What fails throws std::system_error with the error that the
// caller of the system call is to get. All may come from any thread, while a host::Kernel exists.
#pragma once

#include <sys/stat.h>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "app/kmsg.h"

namespace app {

class MountTree {
  public:
    explicit MountTree(const Kmsg& kmsg) : kmsg_(kmsg) {}
    ~MountTree();
    MountTree(const MountTree&) = delete;
    MountTree& operator=(const MountTree&) = delete;

    /// What gives the text of metrics; without it there is no such file.
    void show_metrics(std::function<std::string()> text);

    // Paths begin with a slash; "/" is the mounted directory itself.

    struct stat attributes(const std::string& path) const;
    std::vector<std::string> names_in(const std::string& path) const;

    /// The number of an open file, until it is closed. `flags` are those of open().
    std::uint64_t open(const std::string& path, int flags);
    std::string read(std::uint64_t file, std::size_t size, std::uint64_t offset);
    /// The number of bytes taken, or a negative error number.
    long write(std::uint64_t file, const std::string& text);
    void close(std::uint64_t file);
    void close_all();

    /// A file that was closed earlier than the requests that come from now on is about to be passed
    /// to close(), once for each call. The first read of any file waits for it: closing a control
    /// file ends the pass of its reader, and nobody should find that pass unfinished afterwards.
    void closing_begins();
    void closing_ended();

  private:
    class OpenFile;
    class OpenProcFile;
    class OpenKmsg;
    class OpenMetrics;

    bool has_metrics() const;

    std::shared_ptr<OpenFile> find(std::uint64_t file) const;
    void wait_for_closings();

    const Kmsg& kmsg_;
    mutable std::mutex mutex_;  // guards all below
    std::function<std::string()> metrics_;
    std::condition_variable closed_;
    unsigned closings_ = 0;
    std::uint64_t next_ = 1;
    std::map<std::uint64_t, std::shared_ptr<OpenFile>> files_;
};

}  // namespace app
