// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What the benchmarks have in common: the peers of one InfiniBand subnet, orders in which nobody
// can guess the next one, the host that the module stands on, and the start of a program.
//
// There are two of these hosts, and a program is linked with one of them: the plain one, which is
// for comparing with others, since its calls cost what a kernel's do; and the strict one, which
// checks every call. Time is virtual on both, so that `jiffies` costs a load, as in a kernel, and
// not a question to the system's clock.
#pragma once

#include <arpa/inet.h>
#include <benchmark/benchmark.h>

#include <string>
#include <utility>
#include <vector>

#include "platform/memory.h"
#include "tarv/tarv-arp-hash.h"

namespace bench {

/// The most that a subnet has unicast LIDs for.
inline constexpr u32 full_subnet = 49'151;

inline constexpr u32 our_ip = 0x0100000A;  // 10.0.0.1

/// The n-th peer, from 10.1.0.0 on.
inline u32 peer_ip(u32 n) {
    return htonl(0x0A010000 + n);
}

/// Its port.
gx_gid_t peer_gid(u32 n);

/// Everything that is known of it once it is resolved with both paths.
tarv_arp_data_t peer_record(u32 n);

[[noreturn]] void stop_because(const char* what);

/// A fault of the benchmark itself must not become a figure.
inline void require(bool holds, const char* what) {
    if (!holds) [[unlikely]]
        stop_because(what);
}

/// The numbers from 0 to `count` - 1 in an order that no prefetcher can guess: the same at every
/// call with the same `seed`.
std::vector<u32> shuffled(u32 count, u32 seed = 1);

/// Allocates from the kernel's memory, so that everybody's entries cost the same to make.
template <class T>
struct KernelAllocator {
    using value_type = T;
    KernelAllocator() = default;
    template <class U>
    KernelAllocator(const KernelAllocator<U>&) {}
    T* allocate(std::size_t count) {
        return static_cast<T*>(kmalloc(count * sizeof(T), GFP_KERNEL));
    }
    void deallocate(T* memory, std::size_t) { kfree(memory); }
    friend bool operator==(const KernelAllocator&, const KernelAllocator&) { return true; }
};

/// A T in the kernel's memory.
template <class T, class... Values>
T* make(Values&&... values) {
    return new (kmalloc(sizeof(T), GFP_ATOMIC)) T(std::forward<Values>(values)...);
}

/// A row of the results: "OPERATION/WHO/peers:N/threads:T".
template <class Function>
benchmark::internal::Benchmark* row(const std::string& operation, const std::string& who, u32 peers,
                                    Function function, int threads = 1) {
    return benchmark::RegisterBenchmark((operation + "/" + who).c_str(), function)
        ->ArgName("peers")
        ->Arg(peers)
        ->Threads(threads);
}

/// The host that the program is linked with, while one of these exists.
struct Host {
    Host();
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;
};
extern const char* const host_name;

/// Time passes, and timers that fall due run. For one thread; others may call the module meanwhile.
void pass_ticks(unsigned long ticks);

/// What a program's main() does: makes the host, has the rows registered, runs them, and calls
/// `finish` while the host still exists.
int run(int argc, char** argv, void (*register_rows)(), void (*finish)() = nullptr);

}  // namespace bench
