// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Rates: the codes that a path record carries, and the widths and speeds that people write.

#include <array>
#include <charconv>

#include "fabric/topology.h"

namespace fabric {
namespace {

struct RateCode {
    int bandwidth;  // on the wire, in units of 100 Mb/s
    std::string_view text;
};

// The index is the code. The order is that in which the architecture grew.
constexpr std::array<RateCode, 24> rate_codes{{
    {0, ""},          {0, ""},         {25, "1xSDR"},    {100, "4xSDR"},   {300, "12xSDR"},
    {50, "1xDDR"},    {200, "4xDDR"},  {400, "4xQDR"},   {600, "12xDDR"},  {800, "8xQDR"},
    {1200, "12xQDR"}, {140, "1xFDR"},  {560, "4xFDR"},   {1120, "8xFDR"},  {1680, "12xFDR"},
    {250, "1xEDR"},   {1000, "4xEDR"}, {2000, "4xHDR"},  {3000, "12xEDR"}, {280, "2xFDR"},
    {500, "1xHDR"},   {4000, "4xNDR"}, {6000, "12xHDR"}, {8000, "8xNDR"},
}};

constexpr std::uint8_t first_fdr_code = 11;

struct Speed {
    std::string_view name;
    int bandwidth;  // of one lane
};

// FDR10 is QDR with another line coding and has QDR's codes.
constexpr std::array<Speed, 9> speeds{{{"SDR", 25},
                                       {"DDR", 50},
                                       {"QDR", 100},
                                       {"FDR10", 100},
                                       {"FDR", 140},
                                       {"EDR", 250},
                                       {"HDR", 500},
                                       {"NDR", 1000},
                                       {"XDR", 2000}}};

bool is_width(int lanes) {
    return lanes == 1 || lanes == 2 || lanes == 4 || lanes == 8 || lanes == 12;
}

std::uint8_t code_of(int bandwidth) {
    std::size_t best = 0;
    for (std::size_t code = 0; code < rate_codes.size(); ++code) {
        const int candidate = rate_codes[code].bandwidth;
        if (candidate <= bandwidth && candidate > rate_codes[best].bandwidth)
            best = code;
    }
    return static_cast<std::uint8_t>(best);
}

}  // namespace

int rate_bandwidth(std::uint8_t code) {
    return code < rate_codes.size() ? rate_codes[code].bandwidth : 0;
}

// Up to QDR eight bits of ten on the wire are data, from FDR on 64 of 66.
int data_bandwidth(std::uint8_t code) {
    const int on_wire = rate_bandwidth(code);
    return code < first_fdr_code ? on_wire * 8 / 10 : on_wire * 64 / 66;
}

std::uint8_t next_slower_rate(std::uint8_t code) {
    std::uint8_t next = 0;
    for (std::size_t i = 0; i < rate_codes.size(); ++i) {
        const auto other = static_cast<std::uint8_t>(i);
        if (data_bandwidth(other) < data_bandwidth(code) &&
            data_bandwidth(other) > data_bandwidth(next))
            next = other;
    }
    return next;
}

std::uint8_t slower_rate(std::uint8_t one, std::uint8_t other) {
    if (one == 0 || other == 0)
        return one == 0 ? other : one;
    return data_bandwidth(other) < data_bandwidth(one) ? other : one;
}

std::uint8_t smaller_mtu(std::uint8_t one, std::uint8_t other) {
    if (one == 0 || other == 0)
        return one == 0 ? other : one;
    return other < one ? other : one;
}

std::uint8_t parse_rate(std::string_view text) {
    int lanes = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, lanes);
    if (error != std::errc{} || rest == end || *rest != 'x' || !is_width(lanes))
        return 0;
    const std::string_view name(rest + 1, static_cast<std::size_t>(end - rest - 1));
    for (const Speed& speed : speeds) {
        if (speed.name == name)
            return code_of(lanes * speed.bandwidth);
    }
    return 0;
}

std::string_view format_rate(std::uint8_t code) {
    return code < rate_codes.size() ? rate_codes[code].text : std::string_view{};
}

}  // namespace fabric
