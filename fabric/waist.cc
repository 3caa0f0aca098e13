// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "fabric/waist.h"

#include <atomic>

#include "host/check.h"
#include "host/kernel.h"

namespace fabric {
namespace {

std::atomic<Waist*> the_waist = nullptr;

}  // namespace

Waist::Waist(Adapter& adapter, Gsi& gsi, Driver& driver)
    : adapter_(adapter), gsi_(gsi), driver_(driver) {
    watch_ = host::Kernel::current().watch([this](std::vector<std::string>& lines) {
        adapter_.report(lines);
        gsi_.report(lines);
    });
    Waist* none = nullptr;
    if (!the_waist.compare_exchange_strong(none, this))
        host::die("a second fabric was made while one exists");
}

Waist::~Waist() {
    the_waist = nullptr;
}

Waist& Waist::current() {
    Waist* waist = the_waist;
    if (waist == nullptr)
        host::die("the verbs layer or the GSI service was called, but there is no fabric");
    return *waist;
}

}  // namespace fabric
