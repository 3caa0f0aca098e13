// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Where the records of an SA's answer end. A datagram is always whole, and an answer that fits into
// one does not say how much of it is records: behind the last one stand zeros, or what the SA's
// memory held before.
#pragma once

#include <span>

#include "fabric/packet.h"
#include "fabric/wire.h"

namespace rdma {

/// Shortens an answer of path records in one datagram to those that it begins with and that lead
/// from one of `ours` to the first record's destination: nothing else was asked for. The first
/// stays, whatever it is, and all else stays as it is.
void cut_behind_records(fabric::Bytes& answer, std::span<const fabric::Gid> ours);

}  // namespace rdma
