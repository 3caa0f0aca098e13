// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "app/script_text.h"

#include <cstdio>
#include <string_view>

#include "fabric/topology.h"
#include "fabric/wire.h"

namespace app {
namespace {

struct StatusName {
    tarv_stat_t status;
    const char* name;
};
constexpr StatusName status_names[] = {
    {tarv_stat_ok, "ok"},       {tarv_stat_pending, "pending"},     {tarv_stat_timeout, "timeout"},
    {tarv_stat_error, "error"}, {tarv_stat_not_found, "not_found"},
};

template <class... Arguments>
std::string text(const char* format, Arguments... arguments) {
    char buffer[320];
    std::snprintf(buffer, sizeof buffer, format, arguments...);
    return buffer;
}

std::string format_path(const char* which, const ib_path_record_v2_t& path) {
    return text("\n  %s dgid %s sgid %s dlid %u slid %u pkey 0x%x sl %u mtu %u rate %u life %u",
                which, format_digits(path.dgid).c_str(), format_digits(path.sgid).c_str(),
                unsigned{path.dlid}, unsigned{path.slid}, unsigned{path.pkey}, unsigned{path.sl},
                unsigned{path.mtu}, unsigned{path.rate}, unsigned{path.pkt_life_time});
}

constexpr std::size_t pointer_digits = 16;
constexpr std::string_view lower_digits = "0123456789abcdef";

/* Programs lie between 2^40 and 2^48, so that the first 4 digits are 0 and the next 2 are not. */
bool is_address(std::string_view digits) {
    return digits.size() == pointer_digits &&
           digits.find_first_not_of(lower_digits) == std::string_view::npos &&
           digits.starts_with("0000") && digits.substr(4, 2) != "00";
}

bool is_alphanumeric(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

}  // namespace

std::string status_name(tarv_stat_t status) {
    for (const StatusName& row : status_names)
        if (row.status == status)
            return row.name;
    return std::to_string(status);
}

std::string numbered_status(tarv_stat_t status) {
    const std::string number = std::to_string(status), name = status_name(status);
    return name == number ? number : number + " " + name;
}

std::optional<tarv_stat_t> parse_status(const std::string& name) {
    for (const StatusName& row : status_names)
        if (row.name == name)
            return row.status;
    return {};
}

std::string list_statuses() {
    std::string list;
    for (const StatusName& row : status_names)
        list += (list.empty() ? "" : ", ") + numbered_status(row.status);
    return list;
}

std::string format_digits(const gx_gid_t& gid) {
    std::string digits = "0x";
    for (const std::uint8_t byte : fabric::wire(gid))
        digits += text("%02x", unsigned{byte});
    return digits;
}

std::string format_record(const tarv_arp_data_t& record) {
    std::string result =
        text("ip %s mask 0x%x lid %u gid %s qpn 0x%06x qkey 0x%x cap %u port %u paths %d",
             fabric::format_ip(record.dst_ip).c_str(), record.mask, unsigned{record.lid},
             format_digits(record.gid).c_str(), record.qpn, record.qkey, unsigned{record.cap_flg},
             record.local_port_num, record.paths_count);
    if (record.mask & TARV_MASK_PRIMARY_PATH)
        result += format_path("primary", record.paths[0]);
    if (record.mask & TARV_MASK_SECONDARY_PATH)
        result += format_path("secondary", record.paths[1]);
    return result;
}

std::string hide_addresses(std::string line) {
    for (std::size_t begin = 0; begin < line.size(); ++begin) {
        // "0x" in front of an address is part of the text around it.
        if (line.compare(begin, 2, "0x") == 0)
            begin += 2;
        std::size_t end = begin;
        while (end < line.size() && is_alphanumeric(line[end]))
            ++end;
        if (is_address(std::string_view(line).substr(begin, end - begin)))
            line.replace(begin, pointer_digits, pointer_digits, 'x');
        begin = end;
    }
    return line;
}

}  // namespace app
