// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "host/user_memory.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "host/faults.h"
#include "host/internal.h"
#include "platform/uaccess.h"

namespace host {
namespace {

constinit thread_local const UserMemory* innermost = nullptr;

}  // namespace

// The pages are only reserved; one more than needed, so that the end of the text is inside.
UserMemory::UserMemory(const std::string& text) : text_(text), mapped_(text.size() + 1) {
    void* const pages =
        mmap(nullptr, mapped_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (pages == MAP_FAILED)
        throw std::bad_alloc();
    address_ = static_cast<const char*>(pages);
    outer_ = innermost;
    innermost = this;
}

UserMemory::~UserMemory() {
    innermost = outer_;
    munmap(const_cast<char*>(address_), mapped_);
}

const UserMemory* UserMemory::current() {
    return innermost;
}

bool UserMemory::covers(const void* address) const {
    const auto* const at = static_cast<const char*>(address);
    return at >= address_ && at < address_ + mapped_;
}

const char* UserMemory::bytes_at(const void* address, std::size_t* available) const {
    const auto offset = static_cast<std::size_t>(static_cast<const char*>(address) - address_);
    *available = text_.size() - offset;
    return text_.data() + offset;
}

}  // namespace host

unsigned long copy_from_user(void* to, const void* from, unsigned long size) {
    host::enter("copy_from_user");
    host::must_sleep("copy_from_user");
    if (host::fails_now("copy_from_user"))
        return size;
    const host::UserMemory* const memory = host::UserMemory::current();
    if (!memory || !memory->covers(from)) {
        // A handler called directly, with a buffer of its caller.
        std::memcpy(to, from, size);
        return 0;
    }
    std::size_t available = 0;
    const char* const bytes = memory->bytes_at(from, &available);
    const std::size_t copied = std::min<std::size_t>(size, available);
    std::memcpy(to, bytes, copied);
    return size - copied;
}
