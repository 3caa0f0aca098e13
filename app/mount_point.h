// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// A directory on which a FUSE file system is mounted, as long as this object, or the program,
// lives.
#pragma once

#include <signal.h>

#include <string>

#include "app/mount_fuse.h"

namespace app {

/// One exists at a time.
class MountPoint {
  public:
    /// Mounts. Throws UsageError with one line that says why it cannot, and what helps.
    MountPoint(const std::string& directory, fuse* handle);
    ~MountPoint();
    MountPoint(const MountPoint&) = delete;
    MountPoint& operator=(const MountPoint&) = delete;

  private:
    fuse* const handle_;
};

}  // namespace app
