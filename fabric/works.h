// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The fabric's share of the kernel's schedule.
//
// What the fabric has scheduled may still be waiting when the fabric goes; it must not run then,
// and the fabric must not go while it runs. Works sees to both.
#pragma once

#include <functional>
#include <memory>

#include "host/kernel.h"

namespace fabric {

class Works {
  public:
    Works();
    ~Works();  ///< close()
    Works(const Works&) = delete;
    Works& operator=(const Works&) = delete;

    /// As Kernel::schedule: never inside this call, from any context, with locks held.
    void schedule(host::Context context, unsigned long ticks, std::function<void()> work,
                  unsigned lane = 0);

    /// Waits for what is running; nothing runs afterwards. Not from inside scheduled work.
    void close();

  private:
    struct Gate;
    std::shared_ptr<Gate> gate_;
};

}  // namespace fabric
