// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The memory of a process that calls into the kernel. Its addresses mean nothing to the kernel:
// whoever follows one instead of calling copy_from_user() faults at that line.
#pragma once

#include <cstddef>
#include <string>

namespace host {

/// Text in the calling process's memory for the scope.
class UserMemory {
  public:
    explicit UserMemory(const std::string& text);
    ~UserMemory();
    UserMemory(const UserMemory&) = delete;
    UserMemory& operator=(const UserMemory&) = delete;

    /// Its address as the kernel gets it.
    const char* address() const { return address_; }

    /// The bytes at a user address, and how many there are until the end of the text; null and 0
    /// where there are none.
    const char* bytes_at(const void* address, std::size_t* available) const;

    /// The innermost one of the calling thread, or null.
    static const UserMemory* current();

    bool covers(const void* address) const;

  private:
    const std::string& text_;
    std::size_t mapped_;
    const char* address_;
    const UserMemory* outer_;
};

}  // namespace host
