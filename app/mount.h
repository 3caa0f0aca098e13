// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The host's control files in a directory, for whoever works with cat, echo and scripts: a FUSE
// mount of what MountTree has.
//
// Life cycle: the constructor mounts, so that what cannot be mounted is known before anything else
// has started; serve() begins to answer, once a Machine has been started; the end of its Serving
// ends that, before the Machine goes; the destructor unmounts. Whoever uses the directory before
// and after is kept waiting.
//
//     Mount mount(directory, kmsg);
//     Machine machine(...);
//     machine.start();
//     const Mount::Serving serving = mount.serve(metrics);
//
// The directory is unmounted also when a signal kills the program, as far as a signal can be
// caught. After SIGKILL a dead mount stays, which fusermount3 -u takes away.
//
// This program must not touch the directory while it is mounted: it would wait for itself, and
// could not even be killed any more.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "app/command_line.h"
#include "app/kmsg.h"

namespace app {

/// Adds `--mount DIR`.
void add_mount_option(CommandLine& line, std::string& directory);

class Mount {
  public:
    /// With an empty `directory` nothing is mounted, and the rest does nothing. Throws UsageError
    /// when it cannot be mounted. One directory is mounted at a time.
    Mount(const std::string& directory, const Kmsg& kmsg);
    ~Mount();
    Mount(const Mount&) = delete;
    Mount& operator=(const Mount&) = delete;

    /// While it exists, requests are answered by threads of its own, several at once.
    class Serving {
      public:
        Serving(Mount& mount, std::function<std::string()> metrics);
        /// Lets the requests that run come to their end, and closes all files.
        ~Serving();
        Serving(const Serving&) = delete;
        Serving& operator=(const Serving&) = delete;

      private:
        Mount& mount_;
    };
    /// `metrics` gives the text of the file of that name, as long as the Serving exists.
    [[nodiscard]] Serving serve(std::function<std::string()> metrics) {
        return Serving(*this, std::move(metrics));
    }

    /// Somebody has unmounted the directory.
    bool gone() const;

  private:
    struct Mounted;
    std::unique_ptr<Mounted> mounted_;
};

}  // namespace app
