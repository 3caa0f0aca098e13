// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The verb "soak".
#pragma once

#include "app/verbs.h"

namespace soak {

app::DeclareVerb declare_soak;

}  // namespace soak
