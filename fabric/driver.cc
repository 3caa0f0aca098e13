// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "fabric/driver.h"

#include "fabric/waist.h"
#include "fabric/witness.h"
#include "host/check.h"

namespace fabric {
namespace {

tarv_stat_t send_arp_data(tarv_arp_data_t* record, void* context, int media_reset) {
    const host::DriverCall call("send_arp_data_fn");
    return static_cast<Driver*>(context)->send_request(*record, media_reset);
}

/* The module gives no context here: the query is about the host, which has one driver. */
tarv_stat_t get_if_info(u32 ip, gx_p_key_t* pkey, u32* unused, int* scratch, int* loopback) {
    const host::DriverCall call("get_if_info_fn");
    if (unused != nullptr)
        *unused = 0;
    if (scratch != nullptr)
        *scratch = 0;
    return Waist::current().driver().interface_info(ip, pkey, loopback);
}

}  // namespace

bool is_ipoib_arp(const ArpPacket& arp) {
    ArpPacket proper;
    return arp.ether_type == proper.ether_type && arp.hardware_type == proper.hardware_type &&
           arp.protocol_type == proper.protocol_type && arp.hardware_size == proper.hardware_size &&
           arp.protocol_size == proper.protocol_size;
}

tarv_arp_data_t make_arp_data(const ArpPacket& arp, int port) {
    tarv_arp_data_t record{};
    record.mask = TARV_MASK_SRC_IP | TARV_MASK_DST_IP | TARV_MASK_GID | TARV_MASK_QPN |
                  TARV_MASK_CAP_FLG | TARV_MASK_LOCAL_PORT;
    record.arp_operation = arp.operation;
    record.src_ip = arp.sender_ip;
    record.dst_ip = arp.target_ip;
    record.gid = held(arp.sender_gid);
    record.qpn = arp.sender_qpn;
    record.cap_flg = arp.sender_flags;
    record.local_port_num = static_cast<u32>(port);
    return record;
}

tarv_stat_t Driver::attach() {
    Uses uses = {host::InterModuleUse("tarv_attach_fn"), host::InterModuleUse("tarv_detach_fn"),
                 host::InterModuleUse("tarv_process_arp_data_fn")};
    auto* attach_fn = uses.attach.function<tarv_attach_fn_t>();
    if (attach_fn == nullptr)
        return tarv_stat_error;
    void* handle = nullptr;
    tarv_stat_t status = attach_fn(get_if_info, send_arp_data, this, &handle);
    if (status != tarv_stat_ok)
        return status;
    MutexLock lock(attachment_mutex_);
    uses_ = std::move(uses);
    attached_ = true;
    handle_ = handle;
    return status;
}

tarv_stat_t Driver::detach() {
    void* handle;
    {
        MutexLock lock(attachment_mutex_);
        attached_ = false;
        handle = handle_;
        while (intakes_ > 0)
            idle_.wait(attachment_mutex_);
    }
    const host::InterModuleUse use("tarv_detach_fn");
    auto* detach_fn = use.function<tarv_detach_fn_t>();
    const tarv_stat_t status = detach_fn == nullptr ? tarv_stat_error : detach_fn(handle);
    uses_ = {};
    return status;
}

bool Driver::attached() const {
    MutexLock lock(attachment_mutex_);
    return attached_;
}

Driver::Intake::Intake(Driver& driver) : driver_(driver) {
    MutexLock lock(driver_.attachment_mutex_);
    begun_ = driver_.attached_;
    driver_.intakes_ += begun_ ? 1 : 0;
}

Driver::Intake::~Intake() {
    if (!begun_)
        return;
    MutexLock lock(driver_.attachment_mutex_);
    driver_.intakes_--;
    driver_.idle_.notify_all();
}

void Driver::hand_in(tarv_arp_data_t record) const {
    auto* process = uses_.process.function<tarv_process_arp_data_fn_t>();
    Witness* const sees = witness();
    if (sees != nullptr)
        sees->before_arp(record);
    const tarv_stat_t result = process(&record);
    if (sees != nullptr)
        sees->after_arp(result);
}

}  // namespace fabric
