// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// A MountTree in the terms of libfuse.
#pragma once

#define FUSE_USE_VERSION 314
#include <fuse3/fuse.h>
#include <fuse3/fuse_lowlevel.h>

#include <memory>

#include "app/mount_tree.h"

namespace app {

struct FuseDeleter {
    void operator()(fuse* handle) const { fuse_destroy(handle); }
};
using FusePointer = std::unique_ptr<fuse, FuseDeleter>;

/// A file system that is not mounted yet. Throws std::bad_alloc.
FusePointer make_fuse(MountTree& tree);

}  // namespace app
