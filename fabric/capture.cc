// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "fabric/capture.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <utility>

namespace fabric {
namespace {

constexpr std::uint8_t icrc_size = 4;
constexpr std::uint8_t vcrc_size = 2;
constexpr std::uint32_t pcap_magic = 0xA1B2C3D4;
constexpr std::uint32_t link_type_erf = 197;
constexpr std::uint8_t erf_type_infiniband = 21;
constexpr std::uint8_t erf_varying_length = 0x04;  // flag; the interface number stands below it
constexpr std::size_t erf_header_size = 16;

void append_be16(Bytes& out, std::size_t value) {
    out.push_back(static_cast<std::uint8_t>(value >> 8));
    out.push_back(static_cast<std::uint8_t>(value));
}

/* A capture file's own headers are in the byte order of whoever wrote it; ours is fixed. */
void append_le(Bytes& out, std::uint64_t value, int size) {
    for (int i = 0; i < size; i++)
        out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

template <class T>
void append(Bytes& out, const T& header) {
    std::size_t at = out.size();
    out.resize(at + T::wire_size);
    encode(header, std::span(out).subspan(at));
}

/* A disk that is full shows later, when something is written. */
std::unique_ptr<std::ostream> open_file(const std::string& path) {
    auto file = std::make_unique<std::ofstream>(path, std::ios::binary);
    if (!file->is_open())
        throw std::system_error(errno, std::generic_category(), path);
    return file;
}

}  // namespace

Bytes encode_link(const Packet& packet) {
    bool is_mad = packet.dest_qp == gsi_qp || packet.src_qp == gsi_qp;
    std::size_t missing = is_mad ? mad_size - std::min(mad_size, packet.payload.size()) : 0;
    std::size_t size = packet.payload.size() + missing;
    std::size_t pad = (4 - size % 4) % 4;
    std::size_t transport =
        BaseTransportHeader::wire_size + DatagramHeader::wire_size + size + pad + icrc_size;
    std::size_t network = packet.has_grh ? GlobalRouteHeader::wire_size : 0;
    Bytes out;
    out.reserve(LocalRouteHeader::wire_size + network + transport + vcrc_size);

    LocalRouteHeader lrh;
    lrh.sl = packet.sl;
    lrh.next = packet.has_grh ? 3 : 2;
    lrh.dlid = packet.dlid;
    lrh.length =
        static_cast<std::uint16_t>((LocalRouteHeader::wire_size + network + transport) / 4);
    lrh.slid = packet.slid;
    append(out, lrh);
    if (packet.has_grh) {
        GlobalRouteHeader grh;
        grh.length = static_cast<std::uint16_t>(transport);
        grh.sgid = packet.sgid;
        grh.dgid = packet.dgid;
        append(out, grh);
    }
    BaseTransportHeader bth;
    bth.pad = static_cast<std::uint8_t>(pad);
    bth.pkey = packet.pkey;
    bth.dest_qp = packet.dest_qp;
    append(out, bth);
    append(out, DatagramHeader{packet.qkey, packet.src_qp});
    out.insert(out.end(), packet.payload.begin(), packet.payload.end());
    out.resize(out.size() + missing + pad + icrc_size + vcrc_size);
    return out;
}

CaptureFile::CaptureFile(const std::string& path) : CaptureFile(open_file(path)) {
    path_ = path;
}

CaptureFile::CaptureFile(std::unique_ptr<std::ostream> out) : out_(std::move(out)) {
    Bytes header;
    append_le(header, pcap_magic, 4);
    append_le(header, 2, 2);  // version 2.4
    append_le(header, 4, 2);
    append_le(header, 0, 8);      // time zone, accuracy
    append_le(header, 65535, 4);  // longest packet
    append_le(header, link_type_erf, 4);
    append_to_file(header);
}

CaptureFile::~CaptureFile() = default;

bool CaptureFile::whole() const {
    return out_->good();
}

/* A reader would stumble over half a packet. */
void CaptureFile::append_to_file(const Bytes& bytes) {
    if (!whole())
        return;
    out_->write(reinterpret_cast<const char*>(bytes.data()),
                static_cast<std::streamsize>(bytes.size()));
    out_->flush();
    if (whole()) {
        size_ += bytes.size();
        return;
    }
    std::error_code no_file_to_shorten;
    if (!path_.empty())
        std::filesystem::resize_file(path_, size_, no_file_to_shorten);
}

void CaptureFile::write(const SeenPacket& seen, std::chrono::nanoseconds time) {
    constexpr std::uint64_t second = 1000000000;
    Bytes link = encode_link(seen.packet);
    std::size_t length = erf_header_size + link.size();
    const auto since_1970 = static_cast<std::uint64_t>(time.count());
    std::uint64_t seconds = since_1970 / second;
    std::uint64_t rest = since_1970 % second;
    Bytes record;
    append_le(record, seconds, 4);
    append_le(record, rest / 1000, 4);
    append_le(record, length, 4);
    append_le(record, length, 4);
    append_le(record, seconds << 32 | (rest << 32) / second, 8);  // binary fixed point
    record.push_back(erf_type_infiniband);
    record.push_back(static_cast<std::uint8_t>(erf_varying_length | ((seen.port - 1) & 3)));
    append_be16(record, length);
    append_be16(record, 0);  // packets lost before this one
    append_be16(record, link.size());
    record.insert(record.end(), link.begin(), link.end());
    append_to_file(record);
}

void Tap::on_packet(Hook hook) {
    MutexLock lock(mutex_);
    hook_ = std::move(hook);
    update();
}

void Tap::capture_to(const std::string& path) {
    auto file = std::make_unique<CaptureFile>(path);
    MutexLock lock(mutex_);
    file_ = std::move(file);
    update();
}

bool Tap::stop_capture() {
    MutexLock lock(mutex_);
    const bool whole = !file_ || file_->whole();
    file_.reset();
    update();
    return whole;
}

void Tap::update() {
    any_ = hook_ || file_;
}

void Tap::see(const SeenPacket& seen) {
    if (!any_)
        return;
    MutexLock lock(mutex_);
    if (file_)
        file_->write(seen, std::chrono::system_clock::now().time_since_epoch());
    if (hook_)
        hook_(seen);
}

}  // namespace fabric
