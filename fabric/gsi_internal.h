// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The inside of the GSI service's objects, and the translation between its datagrams and the wire.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "fabric/gsi.h"

/* A registration. It stays when it is closed, so that a use of its handle is recognised. */
struct gsi_class {
    u8 management_class = 0;
    u8 version = 0;
    int port = 0;
    bool is_server = false;
    bool uses_rmpp = false;
    gsi_dtgrm_cb_t* send_done = nullptr;
    gsi_dtgrm_cb_t* recv_done = nullptr;
    void* context = nullptr;
    bool open = true;
    int in_flight = 0;   // posted, send completion not yet called
    int completing = 0;  // completions that are being called
};

namespace fabric {

enum class SlotState { free, held, posted, received };

struct GsiSlot {
    gsi_dtgrm_t record;  // first: what the module has a pointer to
    SlotState state = SlotState::free;
    gsi_dtgrm_pool* pool = nullptr;
    std::optional<Bytes> block;  // the RMPP data block
    int paysize = 0;
    std::size_t checksum = 0;  // of record and block, while posted

    std::size_t sum() const;
};

/// Ends the program: CALL: the datagram ADDRESS of pool NAME WHAT.
[[noreturn]] void die_of(const char* call, const GsiSlot& slot, const char* what);

/// A posted MAD as it goes out. `block` is its RMPP data block or null; `rmpp`: it is carried by
/// RMPP, otherwise it just stands in its place.
Bytes encode_request(const std::uint8_t* mad, const Bytes* block, bool rmpp,
                     std::uint64_t transaction, const GsiTranslations& translations);

/// An answer from the wire into a datagram's 256 bytes. What a short answer does not fill holds no
/// sensible value.
void decode_answer(const Bytes& wire, const GsiTranslations& translations, std::uint8_t* mad);

}  // namespace fabric

/* A pool makes its datagrams when they are first asked for. */
struct gsi_dtgrm_pool {
    std::string name;
    u32 count = 0;
    u32 made = 0;
    std::vector<gsi_dtgrm_t*> free;
};
