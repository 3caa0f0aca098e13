// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The administrator's and the other modules' side of the host's small services: memory accounting,
// names between modules, the configuration repository, /proc.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "platform/module.h"

namespace host {

struct MemoryUse {
    std::size_t blocks = 0;       ///< allocated now
    std::size_t bytes = 0;        ///< allocated now
    std::size_t peak_bytes = 0;   ///< the most at one time
    std::size_t allocations = 0;  ///< ever
};
MemoryUse memory_use();

/// What a kernel has in one piece, and one of old.
inline constexpr std::size_t largest_allocation = 4u << 20;
inline constexpr std::size_t largest_allocation_of_old = 128u << 10;
/// Under this Kernel kmalloc refuses more bytes than that; largest_allocation where nothing is
/// said.
void set_largest_allocation(std::size_t bytes);

/// What a module registered under `name`; null where nobody did, or who did is about to go. From
/// then on the module is in use, until inter_module_put().
const void* inter_module_get(const std::string& name);
void inter_module_put(const std::string& name);

/// The same for the life of an object.
class InterModuleUse {
  public:
    InterModuleUse() = default;
    explicit InterModuleUse(const std::string& name) : name_(name), data_(inter_module_get(name)) {}
    ~InterModuleUse() { end(); }
    InterModuleUse(InterModuleUse&& from) noexcept
        : name_(std::move(from.name_)), data_(std::exchange(from.data_, nullptr)) {}
    InterModuleUse& operator=(InterModuleUse&& from) noexcept {
        end();
        name_ = std::move(from.name_);
        data_ = std::exchange(from.data_, nullptr);
        return *this;
    }

    void end() {
        if (std::exchange(data_, nullptr))
            inter_module_put(name_);
    }
    explicit operator bool() const { return data_ != nullptr; }
    const void* data() const { return data_; }
    /// Null where the name was not found.
    template <class Function>
    Function* function() const {
        return reinterpret_cast<Function*>(const_cast<void*>(data_));
    }

  private:
    std::string name_;
    const void* data_ = nullptr;
};

/// The names registered now, in the order of their registration.
std::vector<std::string> inter_module_names();

/// Sets a value of a key of the repository (made when missing) and calls those who asked for
/// changes. `path` ends with '/'.
void set_repository_value(const std::string& path, const std::string& name, std::uint64_t value);
void remove_repository_key(const std::string& path);

/// Loads a module: parameters as NAME=VALUE (numbers in base 0), then its init function. Its
/// result; an unknown or unusable parameter throws std::invalid_argument and nothing was called.
int load_module(const module_info_t& module, const std::vector<std::string>& parameters = {});
/// Calls its exit function. Dies while somebody uses the module: one of its names, or an open file.
void unload_module(const module_info_t& module);

/// An open file of /proc. Reads and writes go through the module's handlers in process context,
/// each call of a read handler with a page-sized buffer of its own. An open file has one text,
/// which is that of the handler's pass for it: it grows as it is read, and what was given once is
/// served again wherever the reader seeks. Closing a file whose reader stopped before the end lets
/// the handler run to its end, so that it is not left in the middle of a pass. While the file is
/// open, the module that owns its entry is in use.
class ProcFile {
  public:
    /// `path` is below /proc, without a slash in front. Throws std::system_error (ENOENT, EISDIR,
    /// EACCES).
    explicit ProcFile(const std::string& path);
    ~ProcFile();
    ProcFile(const ProcFile&) = delete;
    ProcFile& operator=(const ProcFile&) = delete;

    /// At most `size` bytes from the file position on, which advances; empty at end of file.
    /// Throws std::system_error: EACCES, EIO without a read handler, EINVAL at a negative position,
    /// the handler's error where it gave nothing.
    std::string read(std::size_t size);
    /// The same at a position of its own; nothing advances.
    std::string read_at(std::size_t size, long offset);
    /// Moves the file position.
    void seek(long offset);
    /// One write call. The handler's result.
    long write(const std::string& text);

  private:
    struct Impl;
    Impl* impl_;
};

/// Paths of all entries below /proc, sorted; directories end with '/'.
std::vector<std::string> proc_entries();
/// The permissions of an entry as a directory listing shows them (0444 where the maker gave 0).
unsigned proc_mode(const std::string& path);

}  // namespace host
