// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Our host's end of whatever fabric there is: the adapter and the GSI service that the waist's
// calls reach, and the IPoIB driver that the module is given.
//
// Exactly one Waist exists at a time, inside the life of a host::Kernel, to whose list of remains
// it adds what a module left open.
#pragma once

#include <memory>

#include "fabric/adapter.h"
#include "fabric/driver.h"
#include "fabric/gsi.h"

namespace fabric {

class Waist {
  public:
    Waist(Adapter& adapter, Gsi& gsi, Driver& driver);
    ~Waist();
    Waist(const Waist&) = delete;
    Waist& operator=(const Waist&) = delete;

    /// The one that exists; the program stops when there is none.
    static Waist& current();

    Adapter& adapter() { return adapter_; }
    Gsi& gsi() { return gsi_; }
    Driver& driver() { return driver_; }

  private:
    Adapter& adapter_;
    Gsi& gsi_;
    Driver& driver_;
    std::shared_ptr<void> watch_;
};

}  // namespace fabric
