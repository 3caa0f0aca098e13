// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The default adapter, open for a scope.
#pragma once

#include "platform/verbs.h"

/* Opens the default adapter; closes it at the end of the scope when that succeeded. Context: any,
 * no spin lock held. */
class open_hca {
  public:
    open_hca() : status_(gx_hca_open(gx_default_hca_name(), 0, &handle_)) {}
    ~open_hca() {
        if (status_ == gx_return_ok)
            gx_hca_close(handle_);
    }
    open_hca(const open_hca&) = delete;
    open_hca& operator=(const open_hca&) = delete;

    gx_return_t status() const { return status_; }
    gx_hca_h_t handle() const { return handle_; }

  private:
    gx_hca_h_t handle_ = nullptr;
    gx_return_t status_;
};
